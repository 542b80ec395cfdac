#include "zym/exception.h"

#include <algorithm>
#include <cstring>

#include "zym/hash.h"

namespace zym {
namespace {

std::string Hexadecimal(std::uint64_t value, std::size_t width = 0) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof(digits), value, 16).ptr;
  std::string text(digits, end);
  if (text.size() < width) text.insert(0, width - text.size(), '0');
  return text;
}

std::string ResultInHexadecimal(std::uint64_t value) {
  return "0x" + Hexadecimal(static_cast<std::uint32_t>(value), 8);
}

}  // namespace

Property::Property(std::string_view name, Type type, std::variant<std::uint64_t, std::string> value)
    : m_nameLength(std::min(name.size(), kMaxNameLength)),
      m_key(HashOf(name)),  // so that two properties of one name compare by one number
      m_type(type),
      m_value(std::move(value)) {
  std::memcpy(m_name.data(), name.data(), m_nameLength);
}

Property Property::Result(result_t value) {
  return {kResultName, kResult, std::uint64_t{static_cast<std::uint32_t>(value)}};
}

Property Property::SystemError(int error) {
  return {kSystemErrorName, kSystemError, std::uint64_t{static_cast<std::uint32_t>(error)}};
}

Property Property::ModuleResult(std::string text) {
  return {kModuleResultName, kText, std::move(text)};
}

Property Property::Unsigned(std::string_view name, std::uint64_t value) {
  return {name, kUnsigned64, value};
}

std::string Property::Render() const {
  switch (m_type) {
    case kResult:
      return ResultInHexadecimal(Number());
    case kText:
      return Text();
    case kSystemError:
    case kUnsigned64:
      break;
  }
  return std::to_string(Number());
}

exception::exception(const char* file, int line, std::string message)
    : m_file(file), m_line(line), m_details(std::make_shared<Details>()) {
  m_details->message = std::move(message);
}

const char* exception::what() const noexcept {
  try {
    std::call_once(m_details->built, [this] { BuildWhat(); });
    return m_details->what.c_str();
  } catch (...) {
    return "zym::exception: no memory for its text";
  }
}

void exception::AddProperty(Property property) {
  m_details->properties.push_back(std::move(property));
}

const Property* exception::FindProperty(std::string_view name) const noexcept {
  const auto& properties = m_details->properties;
  const auto found = std::ranges::find(properties, name, &Property::Name);
  return found != properties.end() ? &*found : nullptr;
}

void exception::SetStack(std::vector<std::uintptr_t> frames, std::vector<StackModule> modules) {
  std::ranges::sort(modules, {}, &StackModule::base);
  m_details->frames = std::move(frames);
  m_details->modules = std::move(modules);
}

void exception::AppendToPrimaryMessage(std::string_view text) {
  m_details->message += text;
}

void exception::BuildWhat() const {
  const Details& details = *m_details;
  std::string text = std::string(m_file) + "(" + std::to_string(m_line) + "): " + details.message + ".";
  if (details.properties.empty()) {
    text += " ";
  } else {
    text += " Properties:\n";
    for (const Property& property : details.properties)
      text.append(property.Name()).append("=").append(property.Render()).append("\n");
  }
  text += "Call stack:\n";
  for (std::size_t i = 0; i < details.frames.size(); ++i) {
    const std::uintptr_t frame = details.frames[i];
    text += std::to_string(i) + "# ";
    const auto after = std::ranges::upper_bound(details.modules, frame, {}, &StackModule::base);
    const StackModule* const module = after != details.modules.begin() ? &*std::prev(after) : nullptr;
    if (module != nullptr && frame - module->base < module->size)
      text += module->name + "!" + module->buildId + "!" + Hexadecimal(frame - module->base);
    else
      text += Hexadecimal(frame);
    text += "\n";
  }
  m_details->what = std::move(text);
}

GetInterfaceException::GetInterfaceException(const char* file, int line, std::uint32_t iid,
                                             std::uint32_t serviceKey, result_t result)
    : exception(file, line, "Can't get interface") {
  AddProperty(Property::Unsigned("zym.iid", iid));
  AddProperty(Property::Unsigned("zym.serviceKey", serviceKey));
  AddProperty(Property::Result(result));
}

types::string16_t Exception::Message() const {
  return Utf8ToUtf16Lossy(PrimaryMessage());
}

types::string16_t Exception::Description() const {
  return Message() + Utf8ToUtf16Lossy(std::string(". At ") + File() + "(" + std::to_string(Line()) + ") ");
}

ResultCodeException::ResultCodeException(const char* file, int line, result_t result, std::string message)
    : ExceptionBase(file, line, std::move(message)) {
  AddProperty(Property::Result(result));
}

result_t ResultCodeException::Result() const noexcept {
  return static_cast<result_t>(static_cast<std::uint32_t>(FindProperty(Property::kResultName)->Number()));
}

types::string16_t ResultCodeException::Message() const {
  const result_t result = Result();
  return Exception::Message() +
         Utf8ToUtf16Lossy(": " + ResultInHexadecimal(static_cast<std::uint32_t>(result)) + " (" +
                          std::string(ResultText(result)) + ")");
}

CheckResultFailedException::CheckResultFailedException(const char* file, int line, result_t result)
    : ExceptionBase(file, line, result, "Expression failed") {}

SystemException::SystemException(const char* file, int line, int error, std::string message)
    : ExceptionBase(file, line, ErrnoToResult(error), std::move(message)) {
  AddProperty(Property::SystemError(error));
}

CheckFailedException::CheckFailedException(const char* file, int line, std::string message)
    : ExceptionBase(file, line, std::move(message)) {}

}  // namespace zym
