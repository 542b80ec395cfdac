#include "process_manager/procfs/proc_modules.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "process_manager/procfs/proc_file.h"
#include "process_manager/procfs/proc_path.h"
#include "process_manager/procfs/procfs_text.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::procfs {
namespace {

using zym::trace::dec;
using zym::trace::hex;
using zym::trace::kCall;
using zym::trace::kFailure;

// Only this very name is excluded: another init section that contains a kept name is kept.
bool IsKept(std::string_view name) {
  constexpr std::array kKept = {".text", ".rodata", ".data", ".bss"};
  if (name == ".init.text") return false;
  return std::ranges::any_of(kKept,
                             [&](const char* part) { return name.find(part) != std::string_view::npos; });
}

struct Section {
  std::string name;
  std::uint64_t address = 0;
};

// One file below "sections": its name is the section's, its content the address. An address of 0 is never
// taken, not on the second attempt either.
zym::result_t ParseModuleSections(zym::ITracer* tracer, const std::filesystem::path& path,
                                  std::vector<Section>& sections) {
  std::string name = path.filename().string();
  if (!IsKept(name)) {
    ZYM_TRACE(tracer, kCall, __func__ << ": Skip section: " << name);
    return zym::ZYM_OK;
  }
  ZYM_TRACE(tracer, kCall, "Module section info path: " << path.native());
  ProcFile file;
  const ReadResult read = file.Read(path.c_str());
  if (read == ReadResult::kCannotOpen) {
    ZYM_TRACE(tracer, kFailure, "Failed to open file");
    return zym::ZYM_E_ACCESS_DENIED;
  }
  const std::optional<std::uint64_t> address = ParseSectionAddress(file.Text());
  if (read != ReadResult::kDone || !address) {
    // It is the base address: the text says "size" for those who look for it.
    ZYM_TRACE(tracer, kFailure, "Failed to read section size");
    return zym::ZYM_E_ACCESS_DENIED;
  }
  if (*address == 0) {
    ZYM_TRACE(tracer, kCall, "bad offset, need call with allowZeroSectionOffset as true");
    return zym::ZYM_E_ACCESS_DENIED;
  }
  ZYM_TRACE(tracer, kCall, "Section base virtual address: " << hex << *address);
  sections.push_back({.name = std::move(name), .address = *address});
  return zym::ZYM_OK;
}

// Appends what lies below `path`, the "sections" of the module `name`. Here and below, traces name the
// operation of the reader whose work this is.
zym::result_t ReadSections(zym::ITracer* tracer, const NativePath& path, const std::string& name,
                           std::vector<Section>& sections) {
  ZYM_TRACE(tracer, kCall, "GetModulesSections: Section sysfs path: " << path);
  std::error_code error;
  std::filesystem::recursive_directory_iterator walk(path, error);
  while (!error && walk != std::filesystem::recursive_directory_iterator()) {
    if (std::error_code ignored; !walk->is_directory(ignored))
      ZYM_CHECK_RESULT_AS(tracer,
                          "ParseModuleSections(GetTracer(), enumerator, allowZeroOffset, sectionsInfo)",
                          ParseModuleSections(tracer, walk->path(), sections),
                          "Failed to parse module " << name << " sections");
    walk.increment(error);
  }
  if (!error) return zym::ZYM_OK;
  ZYM_TRACE(tracer, kFailure, "GetModulesSections: Cannot open directory '" << path << "'");
  return zym::ZYM_E_ACCESS_DENIED;
}

// The sections of one module, but for those that lie outside of it.
zym::result_t AppendSections(zym::ITracer* tracer, const NativePath& sysModule, const ModuleEntry& module,
                             ModulesSections& modulesSections) {
  std::vector<Section> sections;
  const NativePath path = JoinPath(JoinPath(sysModule, module.name), "sections");
  const zym::result_t result = ReadSections(tracer, path, module.name, sections);
  if (!ZYM_SUCCEEDED(result)) return result;
  const auto shared = std::make_shared<ModuleEntry>(module);
  for (Section& section : sections) {
    if (section.address < module.offset) {
      ZYM_TRACE(tracer, kCall,
                "GetModulesSections: Skip section: " << section.name
                                                     << " which is located outside module: " << module.name);
      continue;
    }
    modulesSections.push_back(
        {.size = module.size, .address = section.address, .name = std::move(section.name), .module = shared});
  }
  return zym::ZYM_OK;
}

// Sections don't overlap: each is cut where the next one begins, and the last one at `endVaddr`.
void CutAtTheNext(zym::ITracer* tracer, ModulesSections& sections, std::uint64_t endVaddr) {
  for (std::size_t i = 0; i + 1 < sections.size(); ++i) {
    ModuleSection& section = sections[i];
    const ModuleSection& next = sections[i + 1];
    const std::uint64_t distance = next.address - section.address;
    if (distance >= section.size) continue;
    ZYM_TRACE(tracer, kCall,
              "Section: " << section.name << " of mofule: '" << section.module->name
                          << "' with offset: " << hex << section.address
                          << " is adjusted to fit the offset of module's: '" << next.module->name
                          << "' section: " << next.name << " which is: " << next.address);
    section.size = distance;
  }
  if (sections.empty()) return;
  ModuleSection& last = sections.back();
  // One that begins beyond the end has no room at all.
  last.size = std::min(last.size, endVaddr > last.address ? endVaddr - last.address : 0);
}

}  // namespace

zym::result_t ReadModulesSections(zym::ITracer* tracer, const NativePath& sysModule,
                                  const ModulesList& modules, ModulesSections& modulesSections,
                                  std::uint64_t endVaddr) try {
  for (const ModuleEntry& module : modules) {
    const zym::result_t result = AppendSections(tracer, sysModule, module, modulesSections);
    if (!ZYM_SUCCEEDED(result)) return result;
  }
  std::ranges::stable_sort(modulesSections, {}, &ModuleSection::address);
  CutAtTheNext(tracer, modulesSections, endVaddr);
  for (const ModuleSection& section : modulesSections)
    ZYM_TRACE(tracer, kCall,
              "Module section start virtual address: '" << hex << section.address << ", size: " << dec
                                                        << section.size << " bytes.");
  std::erase_if(modulesSections, [](const ModuleSection& section) { return section.size == 0; });
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, "GetModulesSections");
}

}  // namespace qor::procfs
