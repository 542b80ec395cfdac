#include "process_manager/memory/process_module.h"

#include "process_manager/memory/process_memory_regions.h"
#include "zym/exception.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"
#include "zym/utf.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;

ProcessModuleFacts FactsOf(const procfs::MapsEntry& entry) {
  return {.path = entry.path, .base = entry.begin, .size = entry.end - entry.begin};
}

}  // namespace

FromEnumeratorModuleInfoProvider::FromEnumeratorModuleInfoProvider(const procfs::MapsEntry& entry)
    : m_facts(FactsOf(entry)) {}

ByAddressModuleInfoProvider::ByAddressModuleInfoProvider(zym::IServiceLocator* locator, PidType pid,
                                                         std::uint64_t address) {
  zym::intrusive_ptr<procfs::IParser> procfs;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(locator, procfs.Ref()), "Failed to load procfs::IParser");
  procfs::Maps maps;
  ZYM_CHECK_RESULT_OR_THROW(procfs->GetMaps(pid, maps), "Failed procfs->GetMaps(" << pid << ", maps)");
  m_facts = FactsOf(process_memory_manager::MappingAt(maps, address));
}

zym::result_t ProcessModuleInfoBase::GetImagePath(zym::types::string16_t& path) const try {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  path = zym::RequireUtf16(Facts().path);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessModuleInfoBase::GetBaseAddress(std::uint64_t& address) const {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  address = Facts().base;
  return zym::ZYM_OK;
}

zym::result_t ProcessModuleInfoBase::GetSize(std::uint64_t& size) const {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  size = Facts().size;
  return zym::ZYM_OK;
}

zym::result_t ProcessModuleInfoBase::GetInformation(ProcessModuleInformation& information) const try {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  information = {
      .imagePath = zym::RequireUtf16(Facts().path), .baseAddress = Facts().base, .size = Facts().size};
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::process_manager
