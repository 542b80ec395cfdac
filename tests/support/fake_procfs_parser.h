// A reader of /proc that answers from memory.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "process_manager/proc_parser.h"
#include "zym/object.h"

namespace test_support {

// Filled before the threads that ask it begin.
class FakeProcfsParser : public zym::object::Ifaces<qor::procfs::IParser> {
 public:
  struct Process {
    std::uint32_t parentPid = 1;
    std::string imagePath = "/usr/bin/program";
    std::string workingDirectory = "/";
    std::u16string commandLine = u"program --option";
    qor::procfs::Creds creds;
    std::vector<std::string> environment;
    bool environmentIsHidden = false;
  };

  std::map<qor::PidType, Process> processes;
  std::optional<Process> everyProcess;  // stands for every pid that `processes` doesn't have
  std::atomic<std::uint64_t> reads{0};  // of a stat file, which each read of a process begins with

  zym::result_t GetStat(qor::PidType pid, qor::procfs::Stat& stat) override {
    ++reads;
    const Process* const process = Find(pid);
    if (process == nullptr) return zym::ZYM_E_NOT_FOUND;
    stat.pid = pid;
    stat.ppid = process->parentPid;
    stat.session = 1;
    stat.directoryChangeTime = 1'700'000'000;
    stat.uid = process->creds.uid[0];
    return zym::ZYM_OK;
  }
  zym::result_t GetWorkingDir(qor::PidType pid, qor::NativePath& cwd) override {
    return Give(pid, &Process::workingDirectory, cwd);
  }
  zym::result_t GetImagePath(qor::PidType pid, qor::NativePath& path) override {
    return Give(pid, &Process::imagePath, path);
  }
  zym::result_t GetCmdline(qor::PidType pid, zym::types::string16_t& cmdline) override {
    const Process* const process = Find(pid);
    if (process == nullptr) return zym::ZYM_E_NOT_FOUND;
    cmdline.assign(process->commandLine.begin(), process->commandLine.end());
    return zym::ZYM_OK;
  }
  zym::result_t GetMountNamespaceId(qor::PidType, std::uint64_t& id) override {
    id = 4026531841;
    return zym::ZYM_OK;
  }
  zym::result_t GetCreds(qor::PidType pid, qor::procfs::Creds& creds) override {
    return Give(pid, &Process::creds, creds);
  }
  zym::result_t GetEnvironmentVariables(qor::PidType pid,
                                        zym::types::vector_t<zym::types::string_t>& variables) override {
    const Process* const process = Find(pid);
    if (process == nullptr || process->environmentIsHidden) return zym::ZYM_E_NOT_FOUND;
    variables.assign(process->environment.begin(), process->environment.end());
    return zym::ZYM_OK;
  }

  zym::result_t GetIOCounters(qor::PidType, qor::procfs::IOCounters&) override { return Refuse(); }
  zym::result_t GetProcLink(qor::PidType, const qor::NativePath&, qor::NativePath&) override {
    return Refuse();
  }
  zym::result_t GetMaps(qor::PidType, qor::procfs::Maps&) override { return Refuse(); }
  zym::result_t GetProcessList(std::vector<unsigned int>&) override { return Refuse(); }
  zym::result_t GetProcessListByRelevance(std::vector<unsigned int>&) override { return Refuse(); }
  zym::result_t GetIOMemMap(qor::procfs::IOMemMap&) override { return Refuse(); }
  zym::result_t GetDescriptors(qor::PidType, std::vector<unsigned int>&) override { return Refuse(); }
  zym::result_t GetDescriptorInfo(qor::PidType, unsigned int, qor::procfs::DescriptorInfo&) override {
    return Refuse();
  }
  zym::result_t GetModules(qor::procfs::ModulesList&) override { return Refuse(); }
  zym::result_t GetModulesSections(const qor::procfs::ModulesList&, qor::procfs::ModulesSections&,
                                   std::uint64_t) override {
    return Refuse();
  }
  zym::result_t GetEnvironmentVariable(qor::PidType, const char*, std::string&) override { return Refuse(); }
  zym::result_t GetComm(qor::PidType, std::string&) override { return Refuse(); }

 private:
  static zym::result_t Refuse() { return zym::ZYM_E_NOT_SUPPORTED; }

  [[nodiscard]] const Process* Find(qor::PidType pid) const {
    if (const auto found = processes.find(pid); found != processes.end()) return &found->second;
    return everyProcess ? &*everyProcess : nullptr;
  }

  template <class T>
  zym::result_t Give(qor::PidType pid, T Process::*field, T& out) const {
    const Process* const process = Find(pid);
    errno = ENOENT;
    if (process == nullptr) return zym::ZYM_E_NOT_FOUND;
    out = process->*field;
    return zym::ZYM_OK;
  }
};

}  // namespace test_support
