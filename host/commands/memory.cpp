#include "host/commands/memory.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <vector>

#include "host/failure.h"
#include "host/host.h"
#include "host/output/byte_printer.h"
#include "host/output/json.h"
#include "host/output/line_writer.h"
#include "host/output/mapped_path.h"
#include "host/output/shown_text.h"
#include "host/process_reach.h"
#include "host/run_limits.h"
#include "process_manager/process_manager.h"
#include "process_manager/process_memory.h"
#include "zym/object.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_memory_manager;
using system_interceptors::process_manager::IProcessControl;
using system_interceptors::process_manager::IProcessManager;

constexpr std::uint64_t kPiece = 1 << 20;
constexpr std::uint64_t kPage = 4096;

std::string Hexadecimal(std::uint64_t number) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%lx", number);
  return text;
}

const char* ProtectionName(std::uint32_t value) {
  switch (value) {
    case protection::kNoAccess:
      return "no access";
    case protection::kReadOnly:
      return "read";
    case protection::kReadWrite:
      return "read, write";
    case protection::kWriteCopy:
      return "write copy";
    case protection::kExecute:
      return "execute";
    case protection::kExecuteRead:
      return "execute, read";
    case protection::kExecuteReadWrite:
      return "execute, read, write";
    case protection::kExecuteWriteCopy:
      return "execute, write copy";
    default:
      return "?";
  }
}

zym::intrusive_ptr<IProcessMemory> MemoryOf(Host& host, std::uint32_t pid) {
  const auto require = [pid](zym::result_t result) {
    if (!ZYM_SUCCEEDED(result))
      throw Failure(ExplainProcess("cannot look at the memory of process " + std::to_string(pid), pid, "maps",
                                   std::string(zym::ResultText(result))));
  };
  const auto processes = host.Make<IProcessManager>(qor::class_ids::kProcessManager, "the door to processes");
  zym::intrusive_ptr<IProcessControl> control;
  require(processes->GetControl(pid, control.Ref()));
  const auto factory = host.Make<IProcessMemoryFactory>(qor::class_ids::kProcessMemoryFactory,
                                                        "the factory of memory objects");
  zym::intrusive_ptr<IProcessMemory> memory;
  require(factory->Create(control.get(), memory.Ref()));
  return memory;
}

// --- regions -----------------------------------------------------------------------------------------------

void WriteJson(JsonLine& json, const ProcessMemoryRegionInformation& region,
               const std::optional<std::string>& path) {
  json.Begin();
  json.LongNumber("base", region.baseAddress);
  json.LongNumber("size", region.size);
  json.Number("protection", region.protection);
  json.Number("state", region.state);
  json.Number("type", region.type);
  path ? json.Text("path", std::string_view(*path)) : json.Null("path");
}

std::string Columns(const ProcessMemoryRegionInformation& region, const std::optional<std::string>& path) {
  char columns[96];
  std::snprintf(columns, sizeof(columns), "0x%016lx  %14lu  %-20s  ", region.baseAddress, region.size,
                ProtectionName(region.protection));
  std::string line = columns;
  AppendShown(line, std::string_view(path ? *path : ""));
  return line;
}

void ListRegions(const GlobalOptions& global, Host& host, IProcessMemory& memory, std::uint32_t pid) {
  zym::intrusive_ptr<IProcessMemoryRegionEnumerator> enumerator;
  Require(memory.EnumerateMemoryRegions(enumerator.Ref()),
          "cannot list the regions of process " + std::to_string(pid));
  MappedPaths paths(host.Make<qor::procfs::IParser>(qor::class_ids::kProcParser, "the reader of /proc"), pid);
  LineWriter writer(STDOUT_FILENO);
  JsonLine json;
  if (!global.json) writer.WriteLine("BASE                          SIZE  PROTECTION            PATH");
  ProcessMemoryRegionInformation region;
  zym::result_t next = zym::ZYM_OK;
  bool written = true;
  while (written && (next = enumerator->Next(region)) == zym::ZYM_OK) {
    zym::types::string16_t mapped;
    const zym::result_t pathResult = memory.QueryMappedFilePath(region.baseAddress, mapped);
    const std::optional<std::string> path = paths.Path(pathResult, mapped, region.baseAddress);
    if (global.json) {
      WriteJson(json, region, path);
      written = writer.WriteLine(json.End());
    } else {
      std::string line = Columns(region, path);
      CutToWidth(line, writer.Width());
      written = writer.WriteLine(line);
    }
  }
  Require(next, "cannot go on with the regions of process " + std::to_string(pid));
  writer.Finish();
}

// --- bytes -------------------------------------------------------------------------------------------------

// Told on standard error when a person looks there and not at the bytes.
class Progress {
 public:
  explicit Progress(std::uint64_t total)
      : m_total(total),
        m_shown(total > kStep && ::isatty(STDERR_FILENO) == 1 && ::isatty(STDOUT_FILENO) != 1) {}
  ~Progress() {
    if (m_shown) std::fputc('\n', stderr);
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Show(std::uint64_t done) {
    if (!m_shown || (done < m_next && done != m_total)) return;
    std::fprintf(stderr, "\rpmhost: %lu of %lu MiB", done >> 20, m_total >> 20);
    m_next = done + kStep;
  }

 private:
  static constexpr std::uint64_t kStep = 16 << 20;

  const std::uint64_t m_total;
  const bool m_shown;
  std::uint64_t m_next = 0;
};

// How much of the range, from its beginning, could be read.
std::size_t ReadPiece(IProcessMemory& memory, std::uint64_t address, std::uint8_t* buffer,
                      std::size_t length) {
  if (memory.ReadMemory(address, {buffer, buffer + length}) == zym::ZYM_OK) return length;
  // The module tells that a range can't be read in full, and not where it ends: that is at the end of a page.
  std::size_t done = 0;
  while (done < length) {
    const std::size_t part = std::min<std::size_t>(length - done, kPage - (address + done) % kPage);
    if (memory.ReadMemory(address + done, {buffer + done, buffer + done + part}) != zym::ZYM_OK) break;
    done += part;
  }
  return done;
}

std::string NothingThere(std::uint32_t pid) {
  return "nothing that can be read is there; pmhost memory " + std::to_string(pid) + " tells what is mapped";
}

void ReadBytes(const GlobalOptions& global, const MemoryOptions& options, IProcessMemory& memory) {
  const MemoryRange& range = *options.read;
  const RunLimits limits(std::nullopt);
  const std::unique_ptr<BytePrinter> printer = options.raw   ? MakeRawPrinter()
                                               : global.json ? MakeJsonBytes()
                                                             : MakeHexDump();
  std::vector<std::uint8_t> buffer(std::min(range.length, kPiece));
  std::uint64_t done = 0;
  std::string failure;
  {
    Progress progress(range.length);
    while (done < range.length && failure.empty()) {
      const std::size_t wanted = std::min(range.length - done, kPiece);
      const std::size_t count = ReadPiece(memory, range.address + done, buffer.data(), wanted);
      const bool written = printer->Write(range.address + done, {buffer.data(), count});
      done += count;
      progress.Show(done);
      if (!written) break;
      if (count < wanted)
        failure = ExplainProcess(
            "cannot read process " + std::to_string(options.pid) + " at " + Hexadecimal(range.address + done),
            options.pid, "mem", NothingThere(options.pid));
      else if (done < range.length && limits.AreReached())
        failure =
            "interrupted after " + std::to_string(done) + " of " + std::to_string(range.length) + " bytes";
    }
  }
  printer->Finish();
  if (!failure.empty()) throw Failure(failure);
}

}  // namespace

std::optional<std::uint64_t> ParseMemoryNumber(const std::string& text) {
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  const char* const begin = text.data() + (hexadecimal ? 2 : 0);
  const char* const end = text.data() + text.size();
  std::uint64_t number = 0;
  const auto [parsed, error] = std::from_chars(begin, end, number, hexadecimal ? 16 : 10);
  return error == std::errc() && parsed == end ? std::optional(number) : std::nullopt;
}

void ShowMemory(const GlobalOptions& global, const MemoryOptions& options) {
  if (options.read) RunLimits::BlockSignals();
  Host host(global);
  const zym::intrusive_ptr<IProcessMemory> memory = MemoryOf(host, options.pid);
  if (options.read)
    ReadBytes(global, options, *memory);
  else
    ListRegions(global, host, *memory, options.pid);
}

}  // namespace pmhost
