// The registry of the module's serialisable structures.
#pragma once

#include "process_manager/meta_info.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager::MetaInfoDescriptorsNamespace {

// A constant table of descriptors. Any thread.
class TypeDescriptorStaticRegistry
    : public zym::object::Ifaces<zym::IMetaInfoProvider, zym::IStructMetaInfoRegistry>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator>,
      public zym::NonCopyable {
 public:
  // The settings of the permission path.
  static constexpr std::uint32_t kInterceptorSettingsId = 0x50058721;

  explicit TypeDescriptorStaticRegistry(zym::IServiceLocator* locator) : ServiceProvider(locator) {}

  zym::result_t GetClassIds(zym::types::vector_t<std::uint32_t>& ids) override;
  zym::result_t GetDescriptor(std::uint32_t id, const zym::ISerObjDescriptor** descriptor) override;
  zym::result_t Reserved3() override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t Reserved4() override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t GetDescriptorById(std::uint32_t id, const zym::ISerObjDescriptor** descriptor) override;
  zym::result_t Reserved6() override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t Reserved7() override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t Reserved2() override { return zym::ZYM_E_NOT_IMPLEMENTED; }
};

}  // namespace qor::process_manager::MetaInfoDescriptorsNamespace
