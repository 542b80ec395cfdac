// The mapper of file names, which maps nothing on Linux: it copies, and normalises on request.
#pragma once

#include "process_manager/file_name_mapper.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

class FileNameMapper : public zym::object::Ifaces<system_interceptors::file_name_mapper::IFileNameMapper,
                                                  system_interceptors::file_name_mapper::IFileNameMapper2,
                                                  dorp::IFileNameMapper>,
                       public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator, zym::ITracer>,
                       public zym::NonCopyable {
 public:
  // Throws zym::GetInterfaceException without an allocator or a tracer.
  explicit FileNameMapper(zym::IServiceLocator* locator) : ServiceProvider(locator) {}

  zym::result_t CopyName(const zym::types::string16_t& in, zym::types::string16_t& out) override;
  zym::result_t CopyName(const char16_t* in, zym::types::string16_t& out) override;  // of two interfaces
  zym::result_t NormalizeName(const char16_t* in, zym::types::string16_t& out) override;

  zym::result_t CopyName(std::u16string_view in, zym::types::string16_t& out) override;
  zym::result_t CopyName(std::u16string_view in, zym::types::string16_t& out, std::uint32_t mode) override;

  zym::result_t CopyName(std::uint64_t unused, const char16_t* in, zym::types::string16_t& out) override;
  zym::result_t CopyNameBack(const char16_t* in, zym::types::string16_t& out) override;
};

}  // namespace qor::process_manager
