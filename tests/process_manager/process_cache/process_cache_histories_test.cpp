// The cache under random histories: whatever happens in whichever order, what it reports fits together.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "process_manager/process_cache/process_cache.h"
#include "tests/process_manager/process_cache/process_cache_fixture.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

// Random operations from a seed. What a Mersenne Twister draws is the same everywhere; what a distribution
// makes of it isn't, so none is used.
class RandomHistory : public ProcessCacheTest, public testing::WithParamInterface<std::uint32_t> {
 protected:
  static constexpr std::size_t kCapacity = ProcessCache::kWorkstationCapacity;

  void SetUp() override {
    ProcessCacheSurroundings surroundings = Surroundings();
    surroundings.isWorkstation = [](zym::ITracer*) { return true; };
    // A clock that goes on, so that the images of one pid differ however many there were.
    surroundings.seconds = [this] { return ++m_seconds; };
    m_cache = MakeCache(std::move(surroundings));
    m_host->tracer->SetCeiling(0);
  }

  std::uint32_t Below(std::uint32_t limit) { return m_engine() % limit; }
  template <class Container>
  auto& OneOf(Container& items) {
    return *std::next(items.begin(), Below(static_cast<std::uint32_t>(items.size())));
  }

 private:
  std::mt19937 m_engine{GetParam()};
  std::time_t m_seconds = kSeconds;
};

// What was reported of each image, by whichever source. Two reports of one transition must agree.
class Ledger {
 public:
  void Create(const EventInfo& event) {
    Row& row = m_images[event.info.uniquePid];
    Note(event, row.create);
    if (event.sequence >= m_current[event.info.pid].sequence)
      m_current[event.info.pid] = {event.sequence, event.info.uniquePid};
  }
  void Exit(const EventInfo& event) { Note(event, m_images[event.info.uniquePid].exit); }
  // An exit that ends the image once more, with a number of its own.
  void ExitAnew(const EventInfo& event) {
    const std::uint64_t before = std::exchange(m_images[event.info.uniquePid].exit, 0);
    Exit(event);
    EXPECT_GT(event.sequence, before);
  }
  // An image of a process that ran before anybody listened: its creation is never reported.
  void Read(const Info& info) {
    m_images[info.uniquePid].wasRead = true;
    m_current[info.pid] = {0, info.uniquePid};
  }

  // Of the latest image that is known of the process.
  [[nodiscard]] UniquePidType Current(pid_t pid) const {
    return m_current.at(static_cast<PidType>(pid)).uniquePid;
  }
  [[nodiscard]] bool Has(pid_t pid) const { return m_current.contains(static_cast<PidType>(pid)); }
  void Forget(pid_t pid) { m_current.erase(static_cast<PidType>(pid)); }

  [[nodiscard]] std::uint64_t Highest() const { return m_numbers.empty() ? 0 : *m_numbers.rbegin(); }

  // Every image but the current ones has one create before one exit.
  void ExpectEachImageBeganBeforeItEnded() const {
    std::set<UniquePidType> running;
    for (const auto& [pid, current] : m_current) running.insert(current.uniquePid);
    for (const auto& [uniquePid, row] : m_images) {
      SCOPED_TRACE(uniquePid);
      EXPECT_EQ(row.create == 0, row.wasRead);
      EXPECT_EQ(row.exit == 0, running.contains(uniquePid));
      if (row.exit != 0) {
        EXPECT_LT(row.create, row.exit);
      }
    }
  }

 private:
  struct Row {
    std::uint64_t create = 0, exit = 0;
    bool wasRead = false;
  };
  struct Latest {
    std::uint64_t sequence = 0;
    UniquePidType uniquePid = 0;
  };

  void Note(const EventInfo& event, std::uint64_t& noted) {
    EXPECT_FALSE(event.skip);
    EXPECT_NE(event.sequence, 0U);
    EXPECT_EQ(PidOf(event.info.uniquePid), event.info.pid);
    if (noted != 0) {
      EXPECT_EQ(event.sequence, noted) << "two reports of one transition, pid " << event.info.pid;
      return;
    }
    noted = event.sequence;
    EXPECT_TRUE(m_numbers.insert(noted).second) << noted << " is the number of another transition";
  }

  std::map<UniquePidType, Row> m_images;
  std::map<PidType, Latest> m_current;
  std::set<std::uint64_t> m_numbers;
};

// Processes that fork, exec and exit. The connector reports each of these later, in order; of some processes
// the permission path reports each exec at once. A pid is given again when its exit was handled.
class ProcessHistory : public RandomHistory {
 protected:
  static constexpr pid_t kInit = 1;
  static constexpr pid_t kPids = 60;

  struct Process {
    pid_t parent = 0;
    bool isAsked = false;  // the permission path holds its execs
    bool isGone = false;
  };
  struct Report {
    enum { kFork, kExec, kExit } kind;
    pid_t pid = 0;
    std::u16string path = {};
    std::optional<Exec> early = {};
  };

  void SetUp() override {
    RandomHistory::SetUp();
    m_processes[kInit] = {};
    m_ledger.Read(Learn(ReadOf(kInit, 0, u"/sbin/init")));
    for (pid_t pid = kPids; pid > kInit; --pid) m_free.push_back(pid);
  }

  void Step() {
    const std::uint32_t kind = Below(100);
    if (kind < 20) {
      ForkOne();
    } else if (kind < 45) {
      ExecOne();
    } else if (kind < 60) {
      EndOne(OneOfTheLiving());
    } else if (kind < 62) {
      BeKilledWhileAsked();
    } else if (kind < 80) {
      Deliver();
    } else if (kind < 90) {
      Handle();
    } else {
      AskOne(OneOfTheLiving());
    }
  }
  void Drain() {
    while (!m_reports.empty()) Deliver();
    while (!m_exits.empty()) Handle();
  }

  pid_t OneOfTheLiving() {
    auto living = m_processes;
    std::erase_if(living, [](const auto& process) { return process.second.isGone; });
    return OneOf(living).first;
  }
  void EndOne(pid_t pid) {
    if (pid == kInit) return;
    m_processes[pid].isGone = true;
    for (auto& [child, process] : m_processes)
      if (process.parent == pid) process.parent = kInit;
    m_reports.push_back({.kind = Report::kExit, .pid = pid});
  }
  [[nodiscard]] std::vector<pid_t> Living() const {
    std::vector<pid_t> pids;
    for (const auto& [pid, process] : m_processes) pids.push_back(pid);
    return pids;
  }

  Ledger m_ledger;

 private:
  // What a source reads of the process at this moment.
  Info Read(pid_t pid, const std::u16string& path) {
    const Process& process = m_processes.at(pid);
    Info info = process.isGone ? GoneOf(pid, process.parent) : ReadOf(pid, process.parent, path.c_str());
    info.startTime = m_now;
    return info;
  }
  static std::u16string PathOf(std::uint32_t number) {
    return u"/bin/" + std::u16string(number % 7 + 1, u'x');
  }

  void ForkOne() {
    if (m_free.empty()) return;
    const pid_t pid = m_free.back();
    m_free.pop_back();
    m_processes[pid] = {.parent = OneOfTheLiving(), .isAsked = Below(2) == 0};
    m_reports.push_back({.kind = Report::kFork, .pid = pid});
  }

  void ExecOne() {
    const pid_t pid = OneOfTheLiving();
    Report report{.kind = Report::kExec, .pid = pid, .path = PathOf(Below(7))};
    if (m_processes[pid].isAsked) {
      report.early = ReportExecPerm(Read(pid, report.path));
      Note(*report.early);
      if (Below(4) == 0) {
        Deny(pid, *report.early);
        return;
      }
    }
    m_reports.push_back(std::move(report));
  }

  void Deny(pid_t pid, const Exec& early) {
    const Denial denial = ReportExecDeny(Read(pid, u"/bin/as-before"));
    EXPECT_EQ(denial.exit.info.uniquePid, early.exit.info.uniquePid);
    EXPECT_EQ(denial.forkExit.info.uniquePid, early.create.info.uniquePid);
    EXPECT_EQ(denial.create.info.creatorUniquePid, early.exit.info.creatorUniquePid);
    EXPECT_LT(denial.exit.sequence, denial.forkExit.sequence);
    EXPECT_LT(denial.forkExit.sequence, denial.create.sequence);
    for (const EventInfo* const exit : {&denial.exit, &denial.forkExit}) {
      EXPECT_TRUE(exit->isExec);
      m_ledger.Exit(*exit);
    }
    for (const EventInfo* const create : {&denial.create, &denial.forkCreate}) m_ledger.Create(*create);
  }

  // The exit ends the image that was there before the question; the answer ends the one that was asked for.
  void BeKilledWhileAsked() {
    const pid_t pid = OneOfTheLiving();
    if (pid == kInit || !m_processes[pid].isAsked) return;
    Drain();
    const Exec early = ReportExecPerm(Read(pid, PathOf(1)));
    Note(early);
    EndOne(pid);
    m_reports.clear();
    const EventInfo exit = Finish(pid);
    EXPECT_EQ(exit.info.uniquePid, early.exit.info.uniquePid);
    m_ledger.ExitAnew(exit);
    const Denial denial = ReportExecDeny(Read(pid, {}));
    EXPECT_TRUE(denial.exit.skip && denial.create.skip && denial.forkCreate.skip);
    EXPECT_FALSE(denial.forkExit.isExec);
    EXPECT_EQ(denial.forkExit.info.uniquePid, early.create.info.uniquePid);
    m_ledger.Exit(denial.forkExit);
    Forget(pid);
  }

  void Deliver() {
    if (m_reports.empty()) return;
    const Report report = m_reports.front();
    m_reports.pop_front();
    SCOPED_TRACE("pid " + std::to_string(report.pid));
    const bool isAsked = m_processes[report.pid].isAsked;
    if (report.kind == Report::kFork) {
      const EventInfo create = ReportFork(Read(report.pid, u"/bin/forked"));
      EXPECT_TRUE(create.isFork);
      EXPECT_TRUE(isAsked || create.sequence > m_ledger.Highest());
      m_ledger.Create(create);
    } else if (report.kind == Report::kExec) {
      const auto late = ReportExec(Read(report.pid, report.path));
      EXPECT_TRUE(!report.early || late.exit.info.uniquePid == report.early->exit.info.uniquePid);
      EXPECT_TRUE(!report.early || late.create.info.uniquePid == report.early->create.info.uniquePid);
      EXPECT_TRUE(isAsked || late.exit.sequence > m_ledger.Highest());
      EXPECT_EQ(std::u16string_view(late.create.info.imagePath),
                std::u16string_view(m_processes[report.pid].isGone ? u"" : report.path.c_str()));
      Note(late);
    } else {
      const EventInfo exit = Exit(report.pid);
      EXPECT_FALSE(exit.isExec);
      EXPECT_GT(exit.sequence, m_ledger.Highest());
      EXPECT_EQ(exit.info.uniquePid, m_ledger.Current(report.pid));
      m_ledger.Exit(exit);
      m_exits.push_back(exit);
    }
  }
  // The old image's exit, then the new one's create.
  void Note(const Exec& exec) {
    EXPECT_TRUE(exec.exit.isExec);
    EXPECT_LT(exec.exit.sequence, exec.create.sequence);
    EXPECT_NE(exec.create.info.uniquePid, exec.exit.info.uniquePid);
    EXPECT_EQ(exec.create.info.creatorUniquePid, exec.exit.info.uniquePid);
    m_ledger.Exit(exec.exit);
    m_ledger.Create(exec.create);
  }

  void Handle() {
    if (m_exits.empty()) return;
    m_cache->OnExitProcess(m_exits.front());
    EXPECT_FALSE(m_exits.front().skip);
    const Info info = Ask(static_cast<pid_t>(m_exits.front().info.pid));
    EXPECT_EQ(info.state, kTerminated);
    EXPECT_EQ(info.uniquePid, m_exits.front().info.uniquePid);
    Forget(static_cast<pid_t>(m_exits.front().info.pid));
    m_exits.pop_front();
  }
  void Forget(pid_t pid) {
    m_ledger.Forget(pid);
    m_processes.erase(pid);
    m_free.push_back(pid);
  }

  void AskOne(pid_t pid) {
    if (!m_ledger.Has(pid)) return;  // nobody has reported it yet
    Learn(Read(pid, u"/bin/read"));
    EXPECT_EQ(Ask(pid).uniquePid, m_ledger.Current(pid));
    Info image;
    EXPECT_TRUE(m_cache->GetByUniquePid(m_ledger.Current(pid), image));
    EXPECT_EQ(image.uniquePid, m_ledger.Current(pid));
    EXPECT_NE(image.state, kTerminated);
  }

  std::map<pid_t, Process> m_processes;
  std::vector<pid_t> m_free;
  std::deque<Report> m_reports;   // that the connector has not delivered
  std::deque<EventInfo> m_exits;  // that wait to be handled
};

TEST_P(ProcessHistory, EachImageIsReportedOnceFromItsCreateToItsExit) {
  for (int step = 0; step < 10'000 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    Step();
  }
  Drain();
  m_ledger.ExpectEachImageBeganBeforeItEnded();
  for (const pid_t pid : Living()) EndOne(pid);
  Drain();
  m_ledger.ExpectEachImageBeganBeforeItEnded();
  EXPECT_EQ(LiveSize(), 2) << "the kernel and init: nothing of the others is left";
}

INSTANTIATE_TEST_SUITE_P(Seeds, ProcessHistory, testing::Range(1U, 5U));

// Reports in any order, of any pid, whether they make sense or not, and more processes than there is room
// for.
class SenselessHistory : public RandomHistory {
 protected:
  // Few pids with long lives and many that make the table overflow; the kernel, its parent.
  pid_t SomePid() {
    const std::uint32_t kind = Below(100);
    if (kind < 2) return kind == 0 ? 0 : -1;
    return static_cast<pid_t>(kind < 55 ? 1 + Below(30) : 100 + Below(3500));
  }
  Info SomeRead() {
    Info info = Below(4) == 0 ? GoneOf(SomePid(), SomePid()) : ReadOf(SomePid(), SomePid(), u"/bin/x");
    // What a reader that knows nothing of unique pids must not bring into the cache.
    info.uniquePid = info.parentUniquePid = info.creatorUniquePid = kForeign;
    info.startTime = m_now;
    return info;
  }

  // A number is new, or told again of the image that had it.
  void Note(const EventInfo& event) {
    if (event.skip) return;
    EXPECT_NE(event.sequence, 0U);
    EXPECT_EQ(m_owners.try_emplace(event.sequence, event.info.uniquePid).first->second, event.info.uniquePid);
    for (const UniquePidType uniquePid :
         {event.info.uniquePid, event.info.parentUniquePid, event.info.creatorUniquePid})
      EXPECT_NE(uniquePid, kForeign);
    m_events.push_back(event);
    if (m_events.size() > 500) m_events.pop_front();
  }
  EventInfo SomeEvent() { return m_events.empty() ? EventInfo{} : OneOf(m_events); }

  void Step() {
    switch (Below(8)) {
      case 0:
        Note(ReportFork(SomeRead()));
        break;
      case 1:
        for (const auto& [exit, create] :
             {Below(2) == 0 ? ReportExec(SomeRead()) : ReportExecPerm(SomeRead())}) {
          EXPECT_TRUE(exit.isExec);
          EXPECT_EQ(exit.info.pid, create.info.pid);
          Note(exit);
          Note(create);
        }
        break;
      case 2: {
        const Denial denial = ReportExecDeny(SomeRead());
        for (const EventInfo* const event : {&denial.forkExit, &denial.create, &denial.forkCreate})
          Note(*event);
        // The image before the refused one: nobody need have ended it here.
        if (denial.exit.sequence != 0) Note(denial.exit);
        break;
      }
      case 3:
        Note(Exit(SomePid()));
        break;
      case 4: {
        EventInfo exit = SomeEvent();
        m_cache->OnExitProcess(exit);
        break;
      }
      case 5: {
        EventInfo create = SomeEvent();
        create.skip = false;
        const zym::result_t result = m_cache->OnCreateProcess(false, create);
        EXPECT_EQ(result, create.skip ? zym::ZYM_E_NOT_FOUND : zym::ZYM_OK);
        m_cache->OnUidChange(SomePid(), 1, 2);
        m_cache->OnGidChange(SomePid(), 3, 4);
        break;
      }
      case 6: {
        const Info told = Learn(SomeRead());
        EXPECT_NE(told.uniquePid, kForeign);
        EXPECT_EQ(Ask(static_cast<pid_t>(told.pid)).pid, told.pid);
        break;
      }
      default: {
        const pid_t pid = SomePid();
        Info info;
        if (m_cache->Get(pid, info)) {
          EXPECT_EQ(info.pid, static_cast<PidType>(pid));
        }
        const UniquePidType uniquePid = SomeEvent().info.uniquePid;
        if (m_cache->GetByUniquePid(uniquePid, info)) {
          EXPECT_EQ(info.uniquePid, uniquePid);
        }
        m_now += Below(3'000'000);
      }
    }
  }

  std::uint64_t m_refusals = 0;

 private:
  static constexpr UniquePidType kForeign = 0xdead;

  std::map<std::uint64_t, UniquePidType> m_owners;
  std::deque<EventInfo> m_events;
};

TEST_P(SenselessHistory, NumbersStayApartAndSizesWithinCapacity) {
  std::int64_t largest = 0;
  for (int step = 0; step < 20'000 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    try {
      Step();
    } catch (const zym::CheckFailedException&) {
      ++m_refusals;  // nothing awaited the end that was reported
    }
    largest = std::max(largest, LiveSize());
  }
  EXPECT_EQ(largest, static_cast<std::int64_t>(kCapacity)) << "full, and never fuller";
  EXPECT_GT(m_refusals, 0U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SenselessHistory, testing::Range(1U, 5U));

}  // namespace
}  // namespace qor::process_manager
