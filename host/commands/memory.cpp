#include "host/commands/memory.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/commands/arguments.h"
#include "host/failure.h"
#include "host/host.h"
#include "host/output/byte_printer.h"
#include "host/output/mapped_path.h"
#include "host/output/table.h"
#include "host/process_reach.h"
#include "host/run_limits.h"
#include "process_manager/process_control.h"
#include "process_manager/process_memory.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_memory_manager;
using system_interceptors::process_manager::IProcessControl;

struct MemoryRange {
  std::uint64_t address = 0;
  std::uint64_t length = 0;  // bytes
};

constexpr std::uint64_t kPiece = 1 << 20;
constexpr std::uint64_t kPage = 4096;

std::string Hexadecimal(std::uint64_t number) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%lx", number);
  return text;
}

std::string_view ProtectionName(std::uint32_t value) {
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

// --- regions -----------------------------------------------------------------------------------------------

struct Row {
  ProcessMemoryRegionInformation region;
  std::optional<std::string> path;
};

std::vector<Column<Row>> Columns() {
  return {
      {{"base", Kind::kAddress, "BASE", 18}, [](const Row& row) { return Value(row.region.baseAddress); }},
      {{"size", Kind::kLongNumber, "SIZE", 14}, [](const Row& row) { return Value(row.region.size); }},
      {{"protection", Kind::kNumber, "", 0, Audience::kJson},
       [](const Row& row) { return Value(row.region.protection); }},
      {{"protection_name", Kind::kText, "PROTECTION", 20, Audience::kPerson},
       [](const Row& row) { return Value(ProtectionName(row.region.protection)); }},
      {{"state", Kind::kNumber, "", 0, Audience::kJson},
       [](const Row& row) { return Value(row.region.state); }},
      {{"type", Kind::kNumber, "", 0, Audience::kJson},
       [](const Row& row) { return Value(row.region.type); }},
      {{"path", Kind::kText, "PATH"}, [](const Row& row) { return MappedPath(row.path); }},
  };
}

void ListRegions(const GlobalOptions& global, const Host& host, IProcessMemory& memory, std::uint32_t pid) {
  zym::intrusive_ptr<IProcessMemoryRegionEnumerator> enumerator;
  Require(memory.EnumerateMemoryRegions(enumerator.Ref()),
          "cannot list the regions of process " + std::to_string(pid));
  LineWriter writer(STDOUT_FILENO);
  Table<Row> table(global.json ? Layout::kJson : Layout::kTable, Columns(), writer);
  table.PrintHeading();
  MappedPaths paths(host.GetParser(), pid);
  Row row;
  zym::result_t next = zym::ZYM_OK;
  while ((next = enumerator->Next(row.region)) == zym::ZYM_OK) {
    zym::types::string16_t path;
    const zym::result_t result = memory.QueryMappedFilePath(row.region.baseAddress, path);
    row.path = paths.Path(result, path, row.region.baseAddress);
    if (!table.Print(row)) break;
  }
  Require(next, "cannot read the regions of process " + std::to_string(pid) + " to their end");
  writer.Finish();
}

// --- bytes -------------------------------------------------------------------------------------------------

// Printed on standard error when a person looks there and not at the bytes.
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
  // The module reports that a range can't be read in full, and not where it ends: that is at the end of a
  // page.
  std::size_t done = 0;
  while (done < length) {
    const std::size_t part = std::min<std::size_t>(length - done, kPage - (address + done) % kPage);
    if (memory.ReadMemory(address + done, {buffer + done, buffer + done + part}) != zym::ZYM_OK) break;
    done += part;
  }
  return done;
}

std::string NothingThere(std::uint32_t pid) {
  return "nothing that can be read is there; pmhost memory " + std::to_string(pid) + " lists what is mapped";
}

void PrintBytes(IProcessMemory& memory, std::uint32_t pid, const MemoryRange& range, BytePrinter& printer) {
  const RunLimits limits(std::nullopt);
  std::vector<std::uint8_t> buffer(std::min(range.length, kPiece));
  std::uint64_t done = 0;
  std::string failure;
  {
    Progress progress(range.length);
    while (done < range.length && failure.empty()) {
      const std::size_t wanted = std::min(range.length - done, kPiece);
      const std::size_t count = ReadPiece(memory, range.address + done, buffer.data(), wanted);
      const bool written = printer.Write(range.address + done, {buffer.data(), count});
      done += count;
      progress.Show(done);
      if (!written) break;
      if (count < wanted)
        failure = ExplainProcess(
            "cannot read process " + std::to_string(pid) + " at " + Hexadecimal(range.address + done), pid,
            "mem", NothingThere(pid));
      else if (done < range.length && limits.AreReached())
        failure =
            "interrupted after " + std::to_string(done) + " of " + std::to_string(range.length) + " bytes";
    }
  }
  printer.Finish();
  if (!failure.empty()) throw Failure(failure);
}

// --- the command -------------------------------------------------------------------------------------------

class Memory final : public Command {
 public:
  CLI::App& AddTo(CLI::App& app) override {
    CLI::App& command = *app.add_subcommand("memory", "List a process's memory regions, or dump bytes");
    AddPid(command, m_pid)->required();
    CLI::Option* const read = command.add_option("--read", m_numbers, "Print LENGTH bytes at ADDRESS")
                                  ->type_name("ADDRESS LENGTH")
                                  ->expected(2)
                                  ->check(CLI::Validator(CheckMemoryNumber, ""));
    command.add_flag("--raw", m_raw, "Write the bytes as they are instead of a hex dump")->needs(read);
    return command;
  }

  void Check(const GlobalOptions& global) override {
    if (m_raw && global.json) throw CLI::ValidationError("--raw", "excludes --json");
    if (m_numbers.empty()) return;
    m_range = {.address = ParseMemoryNumber(m_numbers[0]).value(),
               .length = ParseMemoryNumber(m_numbers[1]).value()};
    if (m_range->address + m_range->length < m_range->address)
      throw CLI::ValidationError("--read", "the range must end at or below the last address");
  }

  void Run(const GlobalOptions& global) override {
    if (m_range) RunLimits::BlockSignals();
    Host host(global);
    const zym::intrusive_ptr<IProcessMemory> memory = Open(host);
    if (!m_range) return ListRegions(global, host, *memory, m_pid);
    const std::unique_ptr<BytePrinter> printer = m_raw         ? MakeRawPrinter()
                                                 : global.json ? MakeJsonBytes()
                                                               : MakeHexDump();
    PrintBytes(*memory, m_pid, *m_range, *printer);
  }

 private:
  zym::intrusive_ptr<IProcessMemory> Open(Host& host) const {
    const auto require = [this](zym::result_t result) {
      if (!ZYM_SUCCEEDED(result))
        throw Failure(ExplainProcess("cannot open the memory of process " + std::to_string(m_pid), m_pid,
                                     "maps", std::string(zym::ResultText(result))));
    };
    zym::intrusive_ptr<IProcessControl> control;
    require(host.GetProcessManager()->GetControl(m_pid, control.Ref()));
    const auto factory = host.Make<IProcessMemoryFactory>(qor::class_ids::kProcessMemoryFactory,
                                                          "the factory of memory objects");
    zym::intrusive_ptr<IProcessMemory> memory;
    require(factory->Create(control.get(), memory.Ref()));
    return memory;
  }

  std::uint32_t m_pid = 0;
  std::vector<std::string> m_numbers;  // ADDRESS and LENGTH
  std::optional<MemoryRange> m_range;  // absent: the regions
  bool m_raw = false;
};

}  // namespace

std::unique_ptr<Command> MakeMemory() {
  return std::make_unique<Memory>();
}

}  // namespace pmhost
