#include "process_manager/process/file_name_mapper.h"

#include "process_manager/process/file_name_normalization.h"
#include "zym/exception_to_result.h"

namespace qor::process_manager {

zym::result_t FileNameMapper::CopyName(const zym::types::string16_t& in, zym::types::string16_t& out) try {
  if (&in != &out) out = in;
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t FileNameMapper::CopyName(const char16_t* in, zym::types::string16_t& out) {
  return CopyName(std::u16string_view(in), out);
}

zym::result_t FileNameMapper::NormalizeName(const char16_t* in, zym::types::string16_t& out) {
  return CopyName(std::u16string_view(in), out, IFileNameMapper2::kNormalize);
}

zym::result_t FileNameMapper::CopyName(std::u16string_view in, zym::types::string16_t& out) {
  return CopyName(in, out, 0);
}

zym::result_t FileNameMapper::CopyName(std::u16string_view in, zym::types::string16_t& out,
                                       std::uint32_t mode) try {
  out.assign(in);
  if (mode == kNormalize) NormalizeFileName(out);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t FileNameMapper::CopyName(std::uint64_t, const char16_t* in, zym::types::string16_t& out) {
  return CopyName(in, out);
}

zym::result_t FileNameMapper::CopyNameBack(const char16_t* in, zym::types::string16_t& out) {
  return CopyName(in, out);
}

}  // namespace qor::process_manager
