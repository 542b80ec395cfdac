// The list of all processes of this machine.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "module/process_objects.h"
#include "support/actor.h"
#include "support/forwarding_parser.h"
#include "support/rights.h"
#include "support/threads.h"

namespace {

using namespace test_support;
using qor::PidType;

// Notes the list of processes, and lets a test act in the middle of the walk.
class WatchedParser : public ForwardingParser {
 public:
  using ForwardingParser::ForwardingParser;

  zym::result_t GetProcessList(std::vector<unsigned int>& pids) override {
    const zym::result_t result = ForwardingParser::GetProcessList(pids);
    if (only) pids = *only;
    const std::scoped_lock lock(m_mutex);
    listed = pids;
    return result;
  }
  zym::result_t GetStat(PidType pid, qor::procfs::Stat& stat) override {
    Before("GetStat", pid);
    return ForwardingParser::GetStat(pid, stat);
  }
  zym::result_t GetWorkingDir(PidType pid, qor::NativePath& cwd) override {
    Before("GetWorkingDir", pid);
    return ForwardingParser::GetWorkingDir(pid, cwd);
  }
  zym::result_t GetMountNamespaceId(PidType pid, std::uint64_t& id) override {
    Before("GetMountNamespaceId", pid);
    return ForwardingParser::GetMountNamespaceId(pid, id);
  }
  zym::result_t GetImagePath(PidType pid, qor::NativePath& path) override {
    Before("GetImagePath", pid);
    return ForwardingParser::GetImagePath(pid, path);
  }
  zym::result_t GetCmdline(PidType pid, zym::types::string16_t& cmdline) override {
    Before("GetCmdline", pid);
    return ForwardingParser::GetCmdline(pid, cmdline);
  }
  zym::result_t GetCreds(PidType pid, qor::procfs::Creds& creds) override {
    Before("GetCreds", pid);
    return ForwardingParser::GetCreds(pid, creds);
  }
  zym::result_t GetEnvironmentVariables(PidType pid,
                                        zym::types::vector_t<zym::types::string_t>& variables) override {
    Before("GetEnvironmentVariables", pid);
    return ForwardingParser::GetEnvironmentVariables(pid, variables);
  }

  std::vector<unsigned int> listed;
  std::optional<std::vector<unsigned int>> only;  // the list instead of the kernel's
  std::string when;                               // the operation
  PidType whom = qor::kNoPid;
  std::function<void()> act;

 private:
  void Before(const char* operation, PidType pid) {
    if (pid == whom && when == operation) act();
  }

  std::mutex m_mutex;  // guards listed while there are threads
};

class ModuleProcessSnapshot : public testing::Test {
 protected:
  ModuleProcessSnapshot() { m_host.host.locator->Add(m_parser, qor::procfs::IParser::kIid); }

  static std::vector<PidType> PidsOf(process::IProcessInformationEnumerator& enumerator) {
    std::vector<PidType> pids;
    for (const auto& information : Processes::Walk(enumerator))
      pids.push_back(Processes::RecordOf(*information).pid);
    return pids;
  }
  std::size_t LeftOut() const {
    const auto records = m_host.host.tracer->Records();
    return static_cast<std::size_t>(std::ranges::count_if(records, [](const TraceRecord& record) {
      return record.level == 500 && record.text.starts_with("ProcessSnapshot: Failed to read info for task ");
    }));
  }

  ModuleHost m_host;
  zym::intrusive_ptr<WatchedParser> m_parser = zym::CreateObject<WatchedParser>(m_host.parser);
  Processes m_processes{m_host};
  const PidType m_self = static_cast<PidType>(::getpid());
};

TEST_F(ModuleProcessSnapshot, HoldsOneObjectForEachDirectoryAndTheKernelLastMinusThoseThatEnded) {
  Actor actor({"say", "wait"});
  const auto child = static_cast<PidType>(actor.HearPid());
  const auto snapshot = m_processes.Enumerate();
  const std::vector<PidType> pids = PidsOf(*snapshot);
  EXPECT_EQ(pids.size(), m_parser->listed.size() + 1 - LeftOut());
  EXPECT_EQ(pids.back(), 0U);
  EXPECT_EQ(std::set<PidType>(pids.begin(), pids.end()).size(), pids.size()) << "each once";
  for (const PidType pid : {m_self, child}) EXPECT_EQ(std::ranges::count(pids, pid), 1) << pid;
  // In the directory's order.
  auto place = m_parser->listed.begin();
  for (const PidType pid : pids) {
    if (pid == 0) continue;
    place = std::find(place, m_parser->listed.end(), pid);
    ASSERT_NE(place, m_parser->listed.end()) << pid;
  }
}

TEST_F(ModuleProcessSnapshot, FillsTheCacheSoThatEachListedProcessAnswersByItsUniquePid) {
  const auto snapshot = m_processes.Enumerate();
  for (const auto& information : Processes::Walk(*snapshot)) {
    const process::ProcessInformation record = Processes::RecordOf(*information);
    qor::process_manager::process_cache::ProcessInformation known;
    EXPECT_TRUE(m_host.cache->GetByUniquePid(record.uniquePid, known)) << record.pid;
    EXPECT_EQ(known.pid, record.pid);
    const process::ProcessInformation found =
        Processes::RecordOf(*m_processes.InformationByUniqueId(record.uniquePid));
    EXPECT_EQ(found.uniquePid, record.uniquePid);
    EXPECT_EQ(found.imagePath, record.imagePath);
  }
}

TEST_F(ModuleProcessSnapshot, TellsEverythingOfAProcess) {
  Actor actor({"say", "wait"});
  m_parser->only = {static_cast<unsigned int>(actor.HearPid())};
  const auto snapshot = m_processes.Enumerate();
  zym::intrusive_ptr<process::IProcessInformation> information;
  ASSERT_EQ(snapshot->Next(information.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<process::IPosixProcessInformation2> posix;
  ASSERT_EQ(zym::QueryInterface(information, posix.Ref()), zym::ZYM_OK);
  std::uint32_t ids[4] = {};
  EXPECT_EQ(posix->GetRealUserId(ids[0]), zym::ZYM_OK);
  EXPECT_EQ(posix->GetEffectiveUserId(ids[1]), zym::ZYM_OK);
  EXPECT_EQ(posix->GetRealGroupId(ids[2]), zym::ZYM_OK);
  EXPECT_EQ(posix->GetEffectiveGroupId(ids[3]), zym::ZYM_OK);
  EXPECT_EQ(ids[0], ::geteuid());
  EXPECT_EQ(ids[1], ::geteuid());
  EXPECT_EQ(ids[2], ::getgid());
  EXPECT_EQ(ids[3], ::getegid());
  zym::types::vector_t<zym::types::string_t> variables;
  EXPECT_EQ(posix->GetEnvironmentVariables(variables), zym::ZYM_OK);
  std::vector<std::string> expected;
  for (char** variable = environ; *variable != nullptr; ++variable) expected.emplace_back(*variable);
  EXPECT_EQ(std::vector<std::string>(variables.begin(), variables.end()), expected) << "it has ours";
  EXPECT_EQ(posix->IsHostMountNamespace(), zym::ZYM_OK);
}

TEST_F(ModuleProcessSnapshot, AProcessOfAnotherMountNamespaceSaysSo) {
  SKIP_IF(MissingMountRights());
  Actor actor({"mounts", "say", "wait"});
  const auto information = m_processes.InformationOf(static_cast<PidType>(actor.HearPid()));
  zym::intrusive_ptr<process::IPosixProcessInformation2> posix;
  ASSERT_EQ(zym::QueryInterface(information, posix.Ref()), zym::ZYM_OK);
  EXPECT_EQ(posix->IsHostMountNamespace(), zym::ZYM_FALSE);
}

// The process ends just before each of the reads that make an object of it.
TEST_F(ModuleProcessSnapshot, AProcessThatVanishesInTheWalkIsNotInIt) {
  for (const char* const operation : {"GetStat", "GetWorkingDir", "GetMountNamespaceId", "GetImagePath",
                                      "GetCmdline", "GetCreds", "GetEnvironmentVariables"}) {
    SCOPED_TRACE(operation);
    Actor victim({"say", "wait"});
    const auto pid = static_cast<PidType>(victim.HearPid());
    m_parser->only = {m_self, pid};
    m_parser->when = operation;
    m_parser->whom = pid;
    m_parser->act = [&] {
      victim.GoOn();
      EXPECT_EQ(victim.Wait(), 0);
    };
    m_host.host.tracer->Clear();
    const auto snapshot = m_processes.Enumerate();
    EXPECT_EQ(PidsOf(*snapshot), (std::vector<PidType>{m_self, 0}));
    EXPECT_TRUE(m_host.host.tracer->Has(
        500, "ProcessSnapshot: Failed to read info for task " + std::to_string(pid) + ", error: "));
    qor::process_manager::process_cache::ProcessInformation known;
    EXPECT_FALSE(m_host.cache->Get(static_cast<pid_t>(pid), known)) << "the cache is taught nothing";
  }
}

TEST_F(ModuleProcessSnapshot, ListsWhileProcessesComeAndGo) {
  const Actor storm({"storm", "0"});
  for (int i = 0; i < 20; ++i) {
    m_host.host.tracer->Clear();
    const std::vector<PidType> pids = PidsOf(*m_processes.Enumerate());
    EXPECT_EQ(pids.size(), m_parser->listed.size() + 1 - LeftOut());
    EXPECT_EQ(pids.back(), 0U);
    EXPECT_EQ(std::ranges::count(pids, static_cast<PidType>(storm.Pid())), 1);
  }
}

TEST_F(ModuleProcessSnapshot, AnEnumeratorAndItsObjectsAreOfUseWhenTheManagerIsReleased) {
  auto snapshot = m_processes.Enumerate();
  m_processes.manager.Reset();
  m_host.host.locator->Clear();
  const auto first = Processes::Walk(*snapshot);
  int nothing = 0;
  auto* const untouched = reinterpret_cast<process::IProcessInformation*>(&nothing);
  for (int i = 0; i < 2; ++i) {
    process::IProcessInformation* information = untouched;
    EXPECT_EQ(snapshot->Next(&information), 1);
    EXPECT_EQ(information, untouched);
  }
  EXPECT_EQ(snapshot->Reset(), zym::ZYM_OK);
  EXPECT_EQ(Processes::Walk(*snapshot), first) << "the same objects";
  EXPECT_EQ(snapshot.Detach()->Release(), 0U);
  EXPECT_EQ(Processes::RecordOf(*first.back()).imagePath, u"kernel memory");
  EXPECT_EQ(m_host.module.canUnloadModule(), zym::ZYM_FALSE) << "its objects are alive";
}

TEST_F(ModuleProcessSnapshot, ClientsOnSeveralThreadsEachHaveTheirOwn) {
  m_parser->only = {m_self, static_cast<unsigned int>(::getppid())};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([this] {
      for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(PidsOf(*m_processes.Enumerate()).back(), 0U);
        EXPECT_EQ(m_processes.RecordOf(m_self).pid, m_self);
        EXPECT_EQ(Processes::FlagsOf(m_processes.ControlOf(m_self)), 1U);
      }
    });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
