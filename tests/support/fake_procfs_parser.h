// A reader of /proc that answers from memory.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/forwarding_parser.h"

namespace test_support {

// Filled before the threads that ask it begin. An answer that a test sets takes the place of its own; what it
// has none for is not supported.
class FakeProcfsParser : public ForwardingParser {
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
  std::int64_t userTicks = 0;           // of every process, as the two below
  std::int64_t kernelTicks = 0;
  qor::procfs::IOCounters io;
  std::map<qor::PidType, qor::procfs::Maps> maps;  // those of another process can't be read
  std::vector<unsigned int> listed;
  zym::result_t listResult = zym::ZYM_OK;
  std::atomic<std::uint64_t> reads{0};  // of a stat file, which each read of a process begins with

  FakeProcfsParser() {
    onGetWorkingDir = Field(&Process::workingDirectory);
    onGetImagePath = Field(&Process::imagePath);
    onGetCreds = Field(&Process::creds);
    onGetStat = [this](qor::PidType pid, qor::procfs::Stat& stat) {
      ++reads;
      const Process* const process = Find(pid);
      if (process == nullptr) return zym::ZYM_E_NOT_FOUND;
      stat.pid = pid;
      stat.ppid = process->parentPid;
      stat.session = 1;
      stat.directoryChangeTime = 1'700'000'000;
      stat.uid = process->creds.uid[0];
      stat.utime = userTicks;
      stat.stime = kernelTicks;
      return zym::ZYM_OK;
    };
    onGetCmdline = [this](qor::PidType pid, zym::types::string16_t& cmdline) {
      const Process* const process = Find(pid);
      if (process == nullptr) return zym::ZYM_E_NOT_FOUND;
      cmdline.assign(process->commandLine.begin(), process->commandLine.end());
      return zym::ZYM_OK;
    };
    onGetMountNamespaceId = [](qor::PidType, std::uint64_t& id) {
      id = 4026531841;
      return zym::ZYM_OK;
    };
    onGetEnvironmentVariables = [this](qor::PidType pid, auto& variables) {
      const Process* const process = Find(pid);
      if (process == nullptr || process->environmentIsHidden) return zym::ZYM_E_NOT_FOUND;
      variables.assign(process->environment.begin(), process->environment.end());
      return zym::ZYM_OK;
    };
    onGetIOCounters = [this](qor::PidType pid, qor::procfs::IOCounters& counters) {
      if (Find(pid) == nullptr) return zym::ZYM_E_UNSPECIFIED;
      counters = io;
      return zym::ZYM_OK;
    };
    onGetMaps = [this](qor::PidType pid, qor::procfs::Maps& out) {
      const auto found = maps.find(pid);
      if (found == maps.end()) return zym::ZYM_E_UNSPECIFIED;
      out = found->second;
      return zym::ZYM_OK;
    };
    onGetProcessList = [this](std::vector<unsigned int>& pids) {
      if (ZYM_SUCCEEDED(listResult)) pids.insert(pids.end(), listed.begin(), listed.end());
      return listResult;
    };
  }

 private:
  [[nodiscard]] const Process* Find(qor::PidType pid) const {
    if (const auto found = processes.find(pid); found != processes.end()) return &found->second;
    return everyProcess ? &*everyProcess : nullptr;
  }

  // The answer that is this field of the process.
  template <class T>
  std::function<zym::result_t(qor::PidType, T&)> Field(T Process::*field) {
    return [this, field](qor::PidType pid, T& out) {
      const Process* const process = Find(pid);
      errno = ENOENT;
      if (process == nullptr) return zym::ZYM_E_NOT_FOUND;
      out = process->*field;
      return zym::ZYM_OK;
    };
  }
};

}  // namespace test_support
