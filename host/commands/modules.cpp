#include "host/commands/modules.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "host/failure.h"
#include "host/host.h"
#include "host/output/json.h"
#include "host/output/line_writer.h"
#include "host/output/mapped_path.h"
#include "host/output/shown_text.h"
#include "host/process_reach.h"
#include "process_manager/process_modules.h"

namespace pmhost {

using namespace system_interceptors::process_manager;

void ShowModules(const GlobalOptions& global, std::uint32_t pid) {
  Host host(global);
  const auto manager =
      host.Make<IProcessModuleManager>(qor::class_ids::kProcessModuleManager, "the modules' manager");
  zym::intrusive_ptr<IProcessModuleEnumerator> enumerator;
  if (const zym::result_t result = manager->EnumerateModules(pid, enumerator.Ref()); !ZYM_SUCCEEDED(result))
    throw Failure(ExplainProcess("cannot list the modules of process " + std::to_string(pid), pid, "maps",
                                 std::string(zym::ResultText(result))));

  MappedPaths paths(host.Make<qor::procfs::IParser>(qor::class_ids::kProcParser, "the reader of /proc"), pid);
  LineWriter writer(STDOUT_FILENO);
  JsonLine json;
  std::string line = "BASE                      SIZE  PATH";
  if (!global.json) writer.WriteLine(line);
  zym::intrusive_ptr<IProcessModule> module;
  zym::result_t next = zym::ZYM_OK;
  while ((next = enumerator->Next(module.Ref())) == zym::ZYM_OK) {
    std::uint64_t base = 0;
    std::uint64_t size = 0;
    zym::types::string16_t imagePath;
    Require(module->GetBaseAddress(base), "cannot tell the base of a module");
    Require(module->GetSize(size), "cannot tell the size of a module");
    const zym::result_t pathResult = module->GetImagePath(imagePath);
    const std::optional<std::string> path = paths.Path(pathResult, imagePath, base);
    if (global.json) {
      json.Begin();
      path ? json.Text("path", std::string_view(*path)) : json.Null("path");
      json.LongNumber("base", base);
      json.LongNumber("size", size);
      if (!writer.WriteLine(json.End())) break;
      continue;
    }
    char columns[64];
    std::snprintf(columns, sizeof(columns), "0x%016lx  %10lu  ", base, size);
    line = columns;
    AppendShown(line, std::string_view(path ? *path : ""));
    CutToWidth(line, writer.Width());
    if (!writer.WriteLine(line)) break;
  }
  Require(next, "cannot go on with the modules of process " + std::to_string(pid));
  writer.Finish();
}

}  // namespace pmhost
