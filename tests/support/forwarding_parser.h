// A reader of /proc that stands before another one: for hosts that change what an operation gives.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "process_manager/proc_parser.h"
#include "zym/object.h"

namespace test_support {

class ForwardingParser : public zym::object::Ifaces<qor::procfs::IParser> {
 public:
  explicit ForwardingParser(zym::intrusive_ptr<qor::procfs::IParser> inner) : m_inner(std::move(inner)) {}

  zym::result_t GetStat(qor::PidType pid, qor::procfs::Stat& stat) override {
    return m_inner->GetStat(pid, stat);
  }
  zym::result_t GetIOCounters(qor::PidType pid, qor::procfs::IOCounters& counters) override {
    return m_inner->GetIOCounters(pid, counters);
  }
  zym::result_t GetProcLink(qor::PidType pid, const qor::NativePath& name, qor::NativePath& target) override {
    return m_inner->GetProcLink(pid, name, target);
  }
  zym::result_t GetMaps(qor::PidType pid, qor::procfs::Maps& maps) override {
    return m_inner->GetMaps(pid, maps);
  }
  zym::result_t GetCmdline(qor::PidType pid, zym::types::string16_t& cmdline) override {
    return m_inner->GetCmdline(pid, cmdline);
  }
  zym::result_t GetProcessList(std::vector<unsigned int>& pids) override {
    return m_inner->GetProcessList(pids);
  }
  zym::result_t GetProcessListByRelevance(std::vector<unsigned int>& pids) override {
    return m_inner->GetProcessListByRelevance(pids);
  }
  zym::result_t GetIOMemMap(qor::procfs::IOMemMap& map) override { return m_inner->GetIOMemMap(map); }
  zym::result_t GetImagePath(qor::PidType pid, qor::NativePath& path) override {
    return m_inner->GetImagePath(pid, path);
  }
  zym::result_t GetDescriptors(qor::PidType pid, std::vector<unsigned int>& fds) override {
    return m_inner->GetDescriptors(pid, fds);
  }
  zym::result_t GetDescriptorInfo(qor::PidType pid, unsigned int fd,
                                  qor::procfs::DescriptorInfo& info) override {
    return m_inner->GetDescriptorInfo(pid, fd, info);
  }
  zym::result_t GetModules(qor::procfs::ModulesList& modules) override {
    return m_inner->GetModules(modules);
  }
  zym::result_t GetModulesSections(const qor::procfs::ModulesList& modules,
                                   qor::procfs::ModulesSections& modulesSections,
                                   std::uint64_t kernelModulesSectionEndVaddr) override {
    return m_inner->GetModulesSections(modules, modulesSections, kernelModulesSectionEndVaddr);
  }
  zym::result_t GetCreds(qor::PidType pid, qor::procfs::Creds& creds) override {
    return m_inner->GetCreds(pid, creds);
  }
  zym::result_t GetEnvironmentVariable(qor::PidType pid, const char* name, std::string& value) override {
    return m_inner->GetEnvironmentVariable(pid, name, value);
  }
  zym::result_t GetWorkingDir(qor::PidType pid, qor::NativePath& cwd) override {
    return m_inner->GetWorkingDir(pid, cwd);
  }
  zym::result_t GetComm(qor::PidType pid, std::string& comm) override { return m_inner->GetComm(pid, comm); }
  zym::result_t GetEnvironmentVariables(qor::PidType pid,
                                        zym::types::vector_t<zym::types::string_t>& variables) override {
    return m_inner->GetEnvironmentVariables(pid, variables);
  }
  zym::result_t GetMountNamespaceId(qor::PidType pid, std::uint64_t& id) override {
    return m_inner->GetMountNamespaceId(pid, id);
  }

 private:
  const zym::intrusive_ptr<qor::procfs::IParser> m_inner;
};

}  // namespace test_support
