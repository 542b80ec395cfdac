// The module's only reader of /proc and /sys/module.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "process_manager/proc_parser.h"
#include "qor_common/unique_fd.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::procfs {

class ProcParser : public zym::object::Ifaces<IParser>,
                   public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator, zym::ITracer>,
                   public zym::NonCopyable {
 public:
  // Throws zym::GetInterfaceException without an allocator or a tracer.
  explicit ProcParser(zym::IServiceLocator* locator);

  zym::result_t GetStat(PidType pid, Stat& stat) override;
  zym::result_t GetIOCounters(PidType pid, IOCounters& counters) override;
  zym::result_t GetProcLink(PidType pid, const NativePath& name, NativePath& target) override;
  zym::result_t GetMaps(PidType pid, Maps& maps) override;
  zym::result_t GetCmdline(PidType pid, zym::types::string16_t& cmdline) override;
  zym::result_t GetProcessList(std::vector<unsigned int>& pids) override;
  zym::result_t GetProcessListByRelevance(std::vector<unsigned int>& pids) override;
  zym::result_t GetIOMemMap(IOMemMap& map) override;
  zym::result_t GetImagePath(PidType pid, NativePath& path) override;
  zym::result_t GetDescriptors(PidType pid, std::vector<unsigned int>& fds) override;
  zym::result_t GetDescriptorInfo(PidType pid, unsigned int fd, DescriptorInfo& info) override;
  zym::result_t GetModules(ModulesList& modules) override;
  zym::result_t GetModulesSections(const ModulesList& modules, ModulesSections& modulesSections,
                                   std::uint64_t kernelModulesSectionEndVaddr) override;
  zym::result_t GetCreds(PidType pid, Creds& creds) override;
  zym::result_t GetEnvironmentVariable(PidType pid, const char* name, std::string& value) override;
  zym::result_t GetWorkingDir(PidType pid, NativePath& cwd) override;
  zym::result_t GetComm(PidType pid, std::string& comm) override;
  zym::result_t GetEnvironmentVariables(PidType pid,
                                        zym::types::vector_t<zym::types::string_t>& variables) override;
  zym::result_t GetMountNamespaceId(PidType pid, std::uint64_t& id) override;

  // The root of what doesn't belong to one process: the procfs root.
  virtual const NativePath& GetProcRoot() const;

 private:
  zym::result_t GetModules(ModulesList& modules, bool allowZeroModuleOffset);

  // The mount namespace of this process, kept open and never read: the kernel makes the inode of a namespace
  // when one is looked at and drops it with the last user (fs/nsfs.c), and most processes are in this one. To
  // look at theirs costs half as much with it. -1 on a kernel without such files.
  const UniqueFd m_ownMountNamespace;
};

// Reads what doesn't belong to one process from "/proc", whatever the procfs root is. Files of processes
// still come from the procfs root.
class LocalProcParser : public ProcParser {
 public:
  using ProcParser::ProcParser;

  const NativePath& GetProcRoot() const override;
};

}  // namespace qor::procfs
