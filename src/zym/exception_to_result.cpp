#include "zym/exception_to_result.h"

#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <typeinfo>

#include "zym/exception.h"
#include "zym/trace.h"

namespace zym {
namespace {

constexpr std::string_view kUnknownException = "unknown exception";

result_t FailureOr(result_t result) {
  return ZYM_SUCCEEDED(result) ? ZYM_E_EXCEPTION_WITH_SUCCESS : result;
}

std::optional<result_t> CodeByProperties(const exception& e) {
  if (const Property* p = e.FindProperty(Property::kResultName);
      p != nullptr && p->GetType() == Property::kResult)
    return FailureOr(static_cast<result_t>(static_cast<std::uint32_t>(p->Number())));
  if (const Property* p = e.FindProperty(Property::kSystemErrorName);
      p != nullptr && p->GetType() == Property::kSystemError)
    return ErrnoToResult(static_cast<int>(p->Number()));
  if (const Property* p = e.FindProperty(Property::kModuleResultName);
      p != nullptr && p->GetType() == Property::kText)
    return p->Text().find("undefined symbol:") != std::string::npos ? ZYM_E_SYMBOL_NOT_FOUND : ZYM_E_PLATFORM;
  return std::nullopt;
}

// Without memory for its description there is still what the exception says of itself.
void Append(trace::Record& record, const Exception& e) try {
  record << std::u16string_view(e.Description());
} catch (...) {
  record << e.what();
}
void Append(trace::Record& record, const std::exception& e) {
  record << e.what();
}
void Append(trace::Record& record, const std::nested_exception&) {
  record << kUnknownException;
}

std::optional<result_t> CodeOf(const ResultCodeException& e) {
  return FailureOr(e.Result());
}
std::optional<result_t> CodeOf(const Exception&) {
  return std::nullopt;
}
std::optional<result_t> CodeOf(const exception& e) {
  return CodeByProperties(e);
}
std::optional<result_t> CodeOf(const std::bad_alloc&) {
  return ZYM_E_OUT_OF_MEMORY;
}
std::optional<result_t> CodeOf(const std::bad_cast&) {
  return ZYM_E_BAD_CAST;
}
std::optional<result_t> CodeOf(const std::length_error&) {
  return ZYM_E_INVALID_SIZE;
}
std::optional<result_t> CodeOf(const std::out_of_range&) {
  return ZYM_E_OUT_OF_RANGE;
}
std::optional<result_t> CodeOf(const std::invalid_argument&) {
  return ZYM_E_INVALID_ARGUMENT;
}
std::optional<result_t> CodeOf(const std::exception&) {
  return std::nullopt;
}
std::optional<result_t> CodeOf(const std::nested_exception&) {
  return ZYM_E_UNKNOWN_EXCEPTION;
}

// Writes what the exception in flight says, and then what it nests; returns the first code.
std::optional<result_t> Walk(trace::Record& record, std::exception_ptr current);

template <class E>
std::optional<result_t> Describe(trace::Record& record, const E& e) {
  if (record) Append(record, e);
  std::optional<result_t> code = CodeOf(e);
  if (const auto* const nested = dynamic_cast<const std::nested_exception*>(&e);
      nested != nullptr && nested->nested_ptr() != nullptr) {
    const std::optional<result_t> inner = Walk(record, nested->nested_ptr());
    if (!code) code = inner;
  }
  return code;
}

std::optional<result_t> Walk(trace::Record& record, std::exception_ptr current) try {
  std::rethrow_exception(std::move(current));
} catch (const ResultCodeException& e) {
  return Describe(record, e);
} catch (const Exception& e) {
  return Describe(record, e);
} catch (const exception& e) {
  return Describe(record, e);
} catch (const std::bad_alloc& e) {
  return Describe(record, e);
} catch (const std::bad_cast& e) {
  return Describe(record, e);
} catch (const std::length_error& e) {
  return Describe(record, e);
} catch (const std::out_of_range& e) {
  return Describe(record, e);
} catch (const std::invalid_argument& e) {
  return Describe(record, e);
} catch (const std::exception& e) {
  return Describe(record, e);
} catch (const std::nested_exception& e) {  // of a type that is no std::exception
  return Describe(record, e);
} catch (...) {
  if (record) record << kUnknownException;
  return ZYM_E_UNKNOWN_EXCEPTION;
}

result_t Translate(trace::Record& record) {
  return Walk(record, std::current_exception()).value_or(ZYM_E_EXCEPTION_WITHOUT_RESULT);
}

}  // namespace

result_t ExceptionToResult(ITracer* tracer, std::string_view prefix) noexcept {
  trace::Record record(tracer, trace::kFailure);
  if (record) record << prefix;
  return Translate(record);
}

result_t ExceptionInFunctionToResult(ITracer* tracer, std::string_view function,
                                     std::string_view before) noexcept {
  trace::Record record(tracer, trace::kFailure);
  if (record) record << before << function << ": ";
  return Translate(record);
}

}  // namespace zym
