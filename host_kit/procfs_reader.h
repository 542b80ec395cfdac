// Reader of /proc in front of the module's own: it reads what a process has made hard to read, within limits.
#pragma once

#include <cstddef>

#include "process_manager/proc_parser.h"
#include "zym/object.h"

namespace host_kit {

// In bytes of the file.
struct ReadLimits {
  std::size_t commandLine = std::size_t{64} * 1024;
  std::size_t environment = std::size_t{64} * 1024;
};

// Stands in the locator in place of the module's reader, to which it passes on all but this:
//
//   * GetStat of a process whose name holds a line end is read all the same;
//   * GetCmdline: a byte that is not UTF-8 is a U+FFFD. What is longer than the limit is cut before a whole
//     character and ends with kCut. No other text is as long, so a program can't write that itself;
//   * GetEnvironmentVariables: the variables that are whole within the limit, and behind them kCut where
//     there are more. GetEnvironmentVariable, which keeps nothing, looks through all of them;
//   * GetWorkingDir and GetImagePath of a path that the kernel can't write, which is one of more than 4,095
//     bytes, succeed with kTooDeep. To climb up to where it can would go through file systems whose servers
//     may never answer.
//
// Any thread.
class ProcfsReader : public zym::object::Ifaces<qor::procfs::IParser> {
 public:
  static constexpr const char* kCut = "… (cut)";
  static constexpr const char* kTooDeep = "(too deep)";  // no path: these begin with "/", or "(unreachable)"

  explicit ProcfsReader(zym::intrusive_ptr<qor::procfs::IParser> inner, const ReadLimits& limits = {});

  zym::result_t GetStat(qor::PidType pid, qor::procfs::Stat& stat) override;
  zym::result_t GetIOCounters(qor::PidType pid, qor::procfs::IOCounters& counters) override;
  zym::result_t GetProcLink(qor::PidType pid, const qor::NativePath& name, qor::NativePath& target) override;
  zym::result_t GetMaps(qor::PidType pid, qor::procfs::Maps& maps) override;
  zym::result_t GetCmdline(qor::PidType pid, zym::types::string16_t& cmdline) override;
  zym::result_t GetProcessList(std::vector<unsigned int>& pids) override;
  zym::result_t GetProcessListByRelevance(std::vector<unsigned int>& pids) override;
  zym::result_t GetIOMemMap(qor::procfs::IOMemMap& map) override;
  zym::result_t GetImagePath(qor::PidType pid, qor::NativePath& path) override;
  zym::result_t GetDescriptors(qor::PidType pid, std::vector<unsigned int>& fds) override;
  zym::result_t GetDescriptorInfo(qor::PidType pid, unsigned int fd,
                                  qor::procfs::DescriptorInfo& info) override;
  zym::result_t GetModules(qor::procfs::ModulesList& modules) override;
  zym::result_t GetModulesSections(const qor::procfs::ModulesList& modules,
                                   qor::procfs::ModulesSections& modulesSections,
                                   std::uint64_t kernelModulesSectionEndVaddr) override;
  zym::result_t GetCreds(qor::PidType pid, qor::procfs::Creds& creds) override;
  zym::result_t GetEnvironmentVariable(qor::PidType pid, const char* name, std::string& value) override;
  zym::result_t GetWorkingDir(qor::PidType pid, qor::NativePath& cwd) override;
  zym::result_t GetComm(qor::PidType pid, std::string& comm) override;
  zym::result_t GetEnvironmentVariables(qor::PidType pid,
                                        zym::types::vector_t<zym::types::string_t>& variables) override;
  zym::result_t GetMountNamespaceId(qor::PidType pid, std::uint64_t& id) override;

 private:
  const zym::intrusive_ptr<qor::procfs::IParser> m_inner;
  const ReadLimits m_limits;
};

}  // namespace host_kit
