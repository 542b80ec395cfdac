#include "process_manager/meta_info/meta_info_registry.h"

#include <algorithm>
#include <iterator>
#include <new>

#include "process_manager/interceptor_settings.h"
#include "process_manager/meta_info/meta_info_descriptor.h"

// The descriptors of the two field records belong to the module and have no row: no structure with such a
// field has an id yet.
template class zym::SerObjDescriptorImpl<qor::RuntimeField>;
template class zym::SerObjDescriptorImpl<qor::AdditionalField>;

namespace qor::process_manager::MetaInfoDescriptorsNamespace {
namespace {

using PathVector = zym::types::vector_t<NativePath, zym::abi_v1_allocator>;

const zym::SerVectorHelperImpl<PathVector> g_pathVector;
const zym::SerField g_settingsFields[] = {
    {.name = "excluded",
     .address = [](void* object) -> void* { return &static_cast<InterceptorSettings*>(object)->excluded; },
     .vector = &g_pathVector},
};
const zym::SerObjDescriptorImpl<InterceptorSettings> g_settings(
    TypeDescriptorStaticRegistry::kInterceptorSettingsId, "InterceptorSettings",
    {std::begin(g_settingsFields), std::end(g_settingsFields)});

struct Row {
  std::uint32_t classId;
  const zym::ISerObjDescriptor* descriptor;
};

const Row g_rows[] = {
    {TypeDescriptorStaticRegistry::kInterceptorSettingsId, &g_settings},
};

}  // namespace

zym::result_t TypeDescriptorStaticRegistry::GetClassIds(zym::types::vector_t<std::uint32_t>& ids) try {
  for (const Row& row : g_rows) {
    // Twice the room whenever there is none, and at least 4 elements: the list of a whole product is long.
    if (ids.size() == ids.capacity()) ids.reserve(std::max<std::size_t>(4, 2 * ids.capacity()));
    ids.push_back(row.classId);
  }
  return zym::ZYM_OK;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

zym::result_t TypeDescriptorStaticRegistry::GetDescriptor(std::uint32_t id,
                                                          const zym::ISerObjDescriptor** descriptor) {
  const auto* const found = std::ranges::find(g_rows, id, &Row::classId);
  if (found == std::end(g_rows)) return zym::ZYM_E_NOT_FOUND;
  *descriptor = found->descriptor;
  return zym::ZYM_OK;
}

zym::result_t TypeDescriptorStaticRegistry::GetDescriptorById(std::uint32_t id,
                                                              const zym::ISerObjDescriptor** descriptor) {
  return GetDescriptor(id, descriptor);
}

}  // namespace qor::process_manager::MetaInfoDescriptorsNamespace
