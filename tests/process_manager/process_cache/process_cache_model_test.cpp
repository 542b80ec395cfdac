// The cache beside a model of its rules, written for the eye and not for speed: random operations go to both,
// and everything that can be seen of them must agree.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <list>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "process_manager/process_cache/process_cache.h"
#include "tests/process_manager/process_cache/process_cache_fixture.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

// --- the model ---

struct ModelVersion {
  std::uint64_t startSequence = 0;
  std::uint64_t endSequence = 0;
  Info info;
};

struct ModelEntry {
  PidType pid = 0;
  bool ready = false;
  bool exitPending = false;
  std::vector<ModelVersion> versions;
  std::deque<std::size_t> creation;
  std::deque<std::size_t> termination;
};

struct ModelDead {
  PidType pid = 0;
  Info info;
};

// A bounded list in the order of use, the hottest first.
template <class T>
class ModelTable {
 public:
  explicit ModelTable(std::size_t capacity) : m_capacity(capacity) {}
  T* Find(PidType pid) {
    const auto found = std::ranges::find(m_items, pid, &T::pid);
    if (found == m_items.end()) return nullptr;
    m_items.splice(m_items.begin(), m_items, found);
    return &m_items.front();
  }
  T& Insert(T item) {
    Erase(item.pid);
    if (m_items.size() >= m_capacity) {
      m_items.pop_back();
      ++evictions;
    }
    return m_items.emplace_front(std::move(item));
  }
  void Erase(PidType pid) {
    m_items.remove_if([pid](const T& item) { return item.pid == pid; });
  }
  std::size_t Size() const { return m_items.size(); }

  std::uint64_t evictions = 0;

 private:
  std::size_t m_capacity;
  std::list<T> m_items;
};

struct NothingToEnd {};

class Model {
 public:
  Model(std::size_t capacity, std::uint16_t counter, std::time_t seconds)
      : m_live(capacity), m_dead(512), m_counter(counter), m_seconds(seconds) {
    m_live.Insert(NewEntry(0, 0));
  }

  zym::datetime_t now = 0;
  std::uint64_t hits = 0;
  std::uint64_t misses = 0;
  std::size_t Size() const { return m_live.Size(); }
  std::uint64_t Evictions() const { return m_live.evictions; }

  // How often the rarer rules were in use: a draw that never reaches them proves nothing.
  std::uint64_t secondExecReports = 0;
  std::uint64_t goneExecs = 0;
  std::uint64_t awaitedExits = 0;
  std::uint64_t denials = 0;
  std::uint64_t denialsOfTheDead = 0;
  std::uint64_t deadAnswers = 0;
  std::uint64_t expired = 0;
  std::uint64_t earlierImages = 0;

  void OnFork(Info in, EventInfo& create) {
    ModelEntry& entry = LinkParent(in.pid, in.parentPid, true);
    ModelVersion& first = entry.versions.front();
    if (first.startSequence == 0) first.startSequence = ++m_sequence;
    Merge(in, first.info, true, in.state == 3);
    PopFront(entry.creation);
    create.isFork = true;
    create.sequence = first.startSequence;
    create.info = first.info;
  }

  void OnExecPerm(Info in, EventInfo& exit, EventInfo& create) {
    ModelEntry& entry = LinkParent(in.pid, in.parentPid, false);
    ModelVersion& last = entry.versions.back();
    if (last.startSequence == 0) last.startSequence = ++m_sequence;
    End(last, in.startTime);
    exit.isExec = true;
    exit.sequence = last.endSequence;
    exit.info = last.info;
    ModelVersion& version = Append(entry, in.startTime);
    Merge(in, version.info, false, false);
    create.sequence = version.startSequence;
    create.info = version.info;
  }

  void OnExec(Info in, EventInfo& exit, EventInfo& create) {
    const bool gone = in.state == 3;
    ModelEntry& entry = gone ? FindOrCreate(in.pid) : LinkParent(in.pid, in.parentPid, false);
    ModelVersion& old = ToEnd(entry);
    if (old.endSequence == 0) End(old, in.startTime);
    if (old.startSequence == 0) PopFront(entry.creation);
    PopFront(entry.termination);
    exit.isExec = true;
    exit.sequence = old.endSequence;
    exit.info = old.info;
    goneExecs += gone && entry.ready ? 1 : 0;
    const auto realUser = old.info.realUserId;
    const auto realGroup = old.info.realGroupId;
    const bool awaited = !entry.creation.empty() && entry.creation.front() < entry.versions.size();
    secondExecReports += awaited ? 1 : 0;
    ModelVersion& version = awaited ? entry.versions[entry.creation.front()] : Append(entry, in.startTime);
    Merge(in, version.info, false, gone && entry.ready);
    version.info.realUserId = realUser;
    version.info.realGroupId = realGroup;
    PopFront(entry.creation);
    create.sequence = version.startSequence;
    create.info = version.info;
  }

  void OnExit(PidType pid, EventInfo& exit) {
    ModelEntry* const entry = Find(pid);
    if (entry == nullptr) {
      exit.skip = true;
      return;
    }
    ModelVersion& version = ToEnd(*entry);
    End(version, now);
    PopFront(entry->termination);
    exit.sequence = version.endSequence;
    exit.info = version.info;
  }

  void OnExitProcess(EventInfo& exit) {
    ModelEntry* const entry = Find(exit.info.pid);
    if (entry == nullptr) {
      exit.skip = true;
      return;
    }
    if (exit.isExec) return;
    if (!entry->creation.empty() && entry->creation.front() != 0) {
      entry->exitPending = true;
      ++awaitedExits;
      return;
    }
    entry->versions.back().info.state = 3;
    m_dead.Insert({entry->pid, entry->versions.back().info});
    m_live.Erase(entry->pid);
  }

  void OnExecDeny(Info in, EventInfo& exit, EventInfo& create, EventInfo& forkExit, EventInfo& forkCreate) {
    ModelEntry* const entry = Find(in.pid);
    if (entry == nullptr) throw NothingToEnd();
    if (!entry->exitPending && entry->versions.size() < 2) throw NothingToEnd();
    ModelVersion& last = entry->versions.back();
    End(last, in.startTime);
    PopBack(entry->creation);
    PopBack(entry->termination);
    forkExit.isExec = !entry->exitPending;
    forkExit.sequence = last.endSequence;
    forkExit.info = last.info;
    if (entry->exitPending) {
      ++denialsOfTheDead;
      exit.skip = create.skip = forkCreate.skip = true;
      m_dead.Insert({entry->pid, last.info});
      m_live.Erase(entry->pid);
      return;
    }
    ++denials;
    PopBack(entry->termination);
    const ModelVersion previous = entry->versions[entry->versions.size() - 2];
    exit.isExec = true;
    exit.sequence = previous.endSequence;
    exit.info = previous.info;
    ModelVersion& version = Append(*entry, in.startTime);
    Merge(in, version.info, false, false);
    version.info.creatorPid = previous.info.creatorPid;
    version.info.creatorUniquePid = previous.info.creatorUniquePid;
    PopBack(entry->creation);
    for (EventInfo* const event : {&forkCreate, &create}) {
      event->sequence = version.startSequence;
      event->info = version.info;
    }
  }

  zym::result_t OnCreateProcess(bool shouldUpdate, EventInfo& create) {
    ModelEntry* const entry = Find(create.info.pid);
    if (entry == nullptr) {
      create.skip = true;
      return zym::ZYM_E_NOT_FOUND;
    }
    if (!shouldUpdate) return zym::ZYM_OK;
    for (ModelVersion& version : entry->versions) {
      if (version.info.uniquePid != create.info.uniquePid) continue;
      version.info.imagePath = create.info.imagePath;
      version.info.commandLine = create.info.commandLine;
      version.info.environment = create.info.environment;
      version.info.flags = create.info.flags;
      return zym::ZYM_OK;
    }
    return zym::ZYM_E_NOT_FOUND;
  }

  void OnUidChange(PidType pid, std::uint32_t real, std::uint32_t effective) {
    ModelEntry* const entry = Find(pid);
    if (entry == nullptr) return;
    entry->versions.back().info.realUserId = real;
    entry->versions.back().info.effectiveUserId = effective;
  }

  void OnGidChange(PidType pid, std::uint32_t real, std::uint32_t effective) {
    ModelEntry* const entry = Find(pid);
    if (entry == nullptr) return;
    entry->versions.back().info.realGroupId = real;
    entry->versions.back().info.effectiveGroupId = effective;
  }

  bool Get(PidType pid, Info& info) {
    if (const ModelEntry* const entry = m_live.Find(pid); entry != nullptr) {
      if (entry->ready) info = entry->versions.back().info;
      return Count(entry->ready);
    }
    const ModelDead* const dead = m_dead.Find(pid);
    if (dead == nullptr) return Count(false);
    if (now - dead->info.exitTime > kModelRetention) {
      m_dead.Erase(pid);
      ++expired;
      return Count(false);
    }
    ++deadAnswers;
    info = dead->info;
    return Count(true);
  }

  bool GetByUniquePid(UniquePidType uniquePid, Info& info) {
    const ModelVersion* const version = FindVersion(uniquePid);
    if (version != nullptr) {
      info = version->info;
      earlierImages += info.state == 3 ? 1 : 0;
    }
    return Count(version != nullptr);
  }

  void Update(Info& info) {
    FindOrCreate(info.pid);
    const Info parent = FindOrCreate(info.parentPid).versions.back().info;
    ModelEntry& entry = *m_live.Find(info.pid);  // no longer the hottest in the rules' order:
    m_live.Find(info.parentPid);                 // put the parent back before it
    Info& last = entry.versions.back().info;
    last.parentPid = parent.pid;
    last.parentUniquePid = parent.uniquePid;
    if (!entry.ready) {
      last.creatorPid = parent.pid;
      last.creatorUniquePid = parent.uniquePid;
      last.sessionId = info.sessionId;
      last.startTime = info.startTime;
      last.exitTime = info.exitTime;
      last.state = info.state;
      last.workingDirectory = info.workingDirectory;
      last.commandLine = info.commandLine;
      last.imagePath = info.imagePath;
      last.flags = info.flags;
      CopyKnownIds(info, last);
      last.environment = info.environment;
      last.mountNamespaceId = info.mountNamespaceId;
      entry.ready = true;
    }
    info.uniquePid = last.uniquePid;
    info.parentUniquePid = last.parentUniquePid;
    info.creatorPid = last.creatorPid;
    info.creatorUniquePid = last.creatorUniquePid;
  }

  bool UpdateAdditionalInfo(const Info& info) {
    ModelVersion* const version = FindVersion(info.uniquePid);
    if (version != nullptr) {
      version->info.effectiveUserId = info.effectiveUserId;
      version->info.realGroupId = info.realGroupId;
      version->info.effectiveGroupId = info.effectiveGroupId;
      version->info.environment = info.environment;
    }
    return Count(version != nullptr);
  }

 private:
  static constexpr std::int64_t kModelRetention = 10'000'000;

  static ModelEntry NewEntry(PidType pid, UniquePidType uniquePid) {
    ModelEntry entry{
        .pid = pid, .versions = std::vector<ModelVersion>(1), .creation = {0}, .termination = {0}};
    entry.versions[0].info.pid = pid;
    entry.versions[0].info.uniquePid = uniquePid;
    return entry;
  }
  bool Count(bool hit) {
    ++(hit ? hits : misses);
    return hit;
  }
  ModelEntry* Find(PidType pid) {
    ModelEntry* const entry = m_live.Find(pid);
    Count(entry != nullptr);
    return entry;
  }
  ModelEntry& FindOrCreate(PidType pid) {
    if (ModelEntry* const entry = Find(pid); entry != nullptr) return *entry;
    return m_live.Insert(NewEntry(pid, NewUniquePid(pid)));
  }
  UniquePidType NewUniquePid(PidType pid) {
    ++m_counter;
    if (pid == 0xffffffff) return 0xffffffffffffffff;
    return static_cast<std::uint64_t>(m_seconds) * 0x1'0000'0000 + m_counter % 512 * 0x800000ULL + pid;
  }
  ModelEntry& LinkParent(PidType pid, PidType parentPid, bool force) {
    ModelEntry& entry = FindOrCreate(pid);
    const Info parent = FindOrCreate(parentPid).versions.back().info;
    Info& first = entry.versions.front().info;
    first.parentPid = parent.pid;
    first.parentUniquePid = parent.uniquePid;
    if (!force && entry.ready) return entry;
    first.creatorPid = parent.pid;
    first.creatorUniquePid = parent.uniquePid;
    first.imagePath = parent.imagePath;
    first.commandLine = parent.commandLine;
    first.realUserId = parent.realUserId;
    first.effectiveUserId = parent.effectiveUserId;
    first.realGroupId = parent.realGroupId;
    first.effectiveGroupId = parent.effectiveGroupId;
    first.flags = parent.flags;
    entry.ready = true;
    return entry;
  }
  ModelVersion& Append(ModelEntry& entry, zym::datetime_t time) {
    const Info& previous = entry.versions.back().info;
    ModelVersion version;
    version.info.pid = previous.pid;
    version.info.parentPid = previous.parentPid;
    version.info.parentUniquePid = previous.parentUniquePid;
    version.info.creatorPid = previous.pid;
    version.info.creatorUniquePid = previous.uniquePid;
    version.info.uniquePid = NewUniquePid(previous.pid);
    version.info.startTime = time;
    version.startSequence = ++m_sequence;
    entry.creation.push_back(entry.versions.size());
    entry.termination.push_back(entry.versions.size());
    return entry.versions.emplace_back(std::move(version));
  }
  static ModelVersion& ToEnd(ModelEntry& entry) {
    if (entry.termination.empty() || entry.termination.front() >= entry.versions.size()) throw NothingToEnd();
    return entry.versions[entry.termination.front()];
  }
  void End(ModelVersion& version, zym::datetime_t time) {
    version.endSequence = ++m_sequence;
    version.info.state = 3;
    version.info.exitTime = time;
  }
  ModelVersion* FindVersion(UniquePidType uniquePid) {
    ModelEntry* const entry = m_live.Find(static_cast<PidType>(uniquePid % 0x800000));
    if (entry == nullptr || !entry->ready) return nullptr;
    const auto found = std::ranges::find(entry->versions, uniquePid,
                                         [](const ModelVersion& version) { return version.info.uniquePid; });
    return found != entry->versions.end() ? &*found : nullptr;
  }
  static void CopyKnownIds(const Info& in, Info& stored) {
    for (const auto id :
         {&Info::realUserId, &Info::effectiveUserId, &Info::realGroupId, &Info::effectiveGroupId})
      if (in.*id) stored.*id = in.*id;
  }
  static void Merge(const Info& in, Info& stored, bool keep, bool gone) {
    if (!keep || !stored.commandLine || stored.commandLine->empty()) stored.commandLine = in.commandLine;
    if (!keep || stored.imagePath.empty()) stored.imagePath = in.imagePath;
    if (!keep) stored.flags = in.flags;
    stored.state = in.state;
    stored.environment = in.environment;
    if (gone) return;
    stored.sessionId = in.sessionId;
    stored.startTime = in.startTime;
    stored.exitTime = in.exitTime;
    stored.workingDirectory = in.workingDirectory;
    stored.mountNamespaceId = in.mountNamespaceId;
    CopyKnownIds(in, stored);
  }
  static void PopFront(std::deque<std::size_t>& queue) {
    if (!queue.empty()) queue.pop_front();
  }
  static void PopBack(std::deque<std::size_t>& queue) {
    if (!queue.empty()) queue.pop_back();
  }

  ModelTable<ModelEntry> m_live;
  ModelTable<ModelDead> m_dead;
  std::uint16_t m_counter;
  std::time_t m_seconds;
  std::uint64_t m_sequence = 0;
};

// --- the comparison ---

auto Tie(const Info& info) {
  return std::tie(info.pid, info.creatorPid, info.parentPid, info.uniquePid, info.creatorUniquePid,
                  info.parentUniquePid, info.sessionId, info.startTime, info.exitTime, info.imagePath,
                  info.workingDirectory, info.commandLine, info.flags, info.state, info.realUserId,
                  info.effectiveUserId, info.realGroupId, info.effectiveGroupId, info.environment,
                  info.mountNamespaceId);
}

bool Same(const EventInfo& a, const EventInfo& b) {
  return std::tie(a.skip, a.isFork, a.isExec, a.isFake, a.sequence, a.timestamp) ==
             std::tie(b.skip, b.isFork, b.isExec, b.isFake, b.sequence, b.timestamp) &&
         Tie(a.info) == Tie(b.info);
}

std::string Text(const EventInfo& event) {
  return "skip " + std::to_string(event.skip) + " isFork " + std::to_string(event.isFork) + " isExec " +
         std::to_string(event.isExec) + " sequence " + std::to_string(event.sequence) + " pid " +
         std::to_string(event.info.pid) + " upid " + std::to_string(event.info.uniquePid);
}

// Random operations from a seed. What a Mersenne Twister draws is the same everywhere; what a distribution
// makes of it isn't, so none is used.
class ProcessCacheModelTest : public ProcessCacheTest, public testing::WithParamInterface<std::uint32_t> {
 protected:
  static constexpr std::size_t kCapacity = ProcessCache::kWorkstationCapacity;

  void SetUp() override {
    ProcessCacheSurroundings surroundings = Surroundings();
    surroundings.isWorkstation = [](zym::ITracer*) { return true; };
    m_cache = MakeCache(std::move(surroundings));
    m_host->tracer->SetCeiling(0);
    m_model.now = m_now;
  }

  std::uint32_t Below(std::uint32_t limit) { return m_engine() % limit; }

  // Few pids with long lives and many that make the table overflow; the kernel, its parent.
  PidType SomePid() {
    const std::uint32_t kind = Below(100);
    if (kind == 0) return 0;
    if (kind == 1) return kNoPid;
    return kind < 55 ? 1 + Below(30) : 100 + Below(3500);
  }

  Info SomeRead() {
    static const std::vector<zym::types::string16_t> kPaths = {u"", u"/bin/a", u"/usr/bin/a-longer-path/b"};
    Info info;
    info.pid = SomePid();
    info.parentPid = SomePid();
    info.sessionId = Below(5);
    info.startTime = m_now + Below(100);
    info.exitTime = Below(4) == 0 ? m_now : 0;
    info.imagePath = kPaths[Below(3)];
    info.workingDirectory = kPaths[Below(3)];
    if (Below(3) != 0) info.commandLine = std::make_shared<const zym::types::string16_t>(kPaths[Below(3)]);
    info.flags = Below(2) * 16 + Below(2);
    info.state = std::array{kStarting, kCreated, kCreated, kTerminated}[Below(4)];
    for (const auto id :
         {&Info::realUserId, &Info::effectiveUserId, &Info::realGroupId, &Info::effectiveGroupId})
      if (Below(2) == 0) info.*id = Below(9);
    for (std::uint32_t i = Below(3); i > 0; --i) info.environment.emplace_back("V=" + std::to_string(i));
    info.mountNamespaceId = Below(3);
    // What a reader that knows nothing of unique pids must not bring into the cache.
    info.uniquePid = info.parentUniquePid = info.creatorUniquePid = 0xdead;
    return info;
  }

  UniquePidType SomeUniquePid() {
    if (m_uniquePids.empty() || Below(20) == 0) return Below(2) == 0 ? kNoUniquePid : Below(100);
    return m_uniquePids[Below(static_cast<std::uint32_t>(m_uniquePids.size()))];
  }

  void Remember(const EventInfo& event) {
    constexpr std::size_t kRemembered = 500;
    if (m_events.size() == kRemembered) m_events.pop_front();
    m_events.push_back(event);
    if (m_uniquePids.size() == kRemembered) m_uniquePids.pop_front();
    m_uniquePids.push_back(event.info.uniquePid);
  }

  EventInfo SomeEvent() {
    if (!m_events.empty() && Below(20) != 0)
      return m_events[Below(static_cast<std::uint32_t>(m_events.size()))];
    EventInfo event;
    event.info = SomeRead();
    return event;
  }

  // Runs one operation with `count` event records on both sides.
  template <class OnCache, class OnModel>
  void Compare(std::size_t count, OnCache onCache, OnModel onModel) {
    std::vector<EventInfo> actual(count);
    for (EventInfo& event : actual) {
      event.timestamp = m_engine();
      event.skip = Below(10) == 0;
    }
    std::vector<EventInfo> expected = actual;
    bool actualThrew = false;
    bool expectedThrew = false;
    try {
      onCache(actual);
    } catch (const zym::CheckFailedException&) {
      actualThrew = true;
    }
    try {
      onModel(expected);
    } catch (const NothingToEnd&) {
      expectedThrew = true;
    }
    ASSERT_EQ(actualThrew, expectedThrew);
    m_throws += actualThrew ? 1 : 0;
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(Same(actual[i], expected[i]))
          << "record " << i << ": " << Text(actual[i]) << "; the rules say: " << Text(expected[i]);
      if (!actual[i].skip && !actualThrew) Remember(actual[i]);
    }
  }

  void Step() {
    const std::uint32_t operation = Below(100);
    if (operation < 14) {
      const Info in = SomeRead();
      Compare(
          1, [&](auto& events) { m_cache->OnFork(Info(in), events[0]); },
          [&](auto& events) { m_model.OnFork(in, events[0]); });
    } else if (operation < 26) {
      const Info in = SomeRead();
      Compare(
          2, [&](auto& events) { m_cache->OnExec(Info(in), events[0], events[1]); },
          [&](auto& events) { m_model.OnExec(in, events[0], events[1]); });
    } else if (operation < 36) {
      const Info in = SomeRead();
      Compare(
          2, [&](auto& events) { m_cache->OnExecPerm(Info(in), events[0], events[1]); },
          [&](auto& events) { m_model.OnExecPerm(in, events[0], events[1]); });
    } else if (operation < 42) {
      const Info in = SomeRead();
      Compare(
          4, [&](auto& events) { m_cache->OnExecDeny(Info(in), events[0], events[1], events[2], events[3]); },
          [&](auto& events) { m_model.OnExecDeny(in, events[0], events[1], events[2], events[3]); });
    } else if (operation < 52) {
      const PidType pid = SomePid();
      Compare(
          1, [&](auto& events) { m_cache->OnExit(static_cast<pid_t>(pid), events[0]); },
          [&](auto& events) { m_model.OnExit(pid, events[0]); });
    } else if (operation < 62) {
      const EventInfo event = SomeEvent();
      Compare(
          1, [&](auto& events) { m_cache->OnExitProcess(events[0] = event); },
          [&](auto& events) { m_model.OnExitProcess(events[0] = event); });
    } else if (operation < 66) {
      const EventInfo event = SomeEvent();
      const bool update = Below(2) == 0;
      zym::result_t actual = 0;
      zym::result_t expected = 0;
      Compare(
          1, [&](auto& events) { actual = m_cache->OnCreateProcess(update, events[0] = event); },
          [&](auto& events) { expected = m_model.OnCreateProcess(update, events[0] = event); });
      ASSERT_EQ(actual, expected);
    } else if (operation < 70) {
      const PidType pid = SomePid();
      const std::uint32_t real = Below(9);
      m_cache->OnUidChange(static_cast<pid_t>(pid), real, real + 1);
      m_model.OnUidChange(pid, real, real + 1);
      m_cache->OnGidChange(static_cast<pid_t>(pid), real + 2, real + 3);
      m_model.OnGidChange(pid, real + 2, real + 3);
    } else if (operation < 80) {
      const PidType pid = SomePid();
      Info actual;
      Info expected;
      ASSERT_EQ(m_cache->Get(static_cast<pid_t>(pid), actual), m_model.Get(pid, expected)) << pid;
      ASSERT_EQ(Tie(actual), Tie(expected)) << pid;
    } else if (operation < 86) {
      const UniquePidType uniquePid = SomeUniquePid();
      Info actual;
      Info expected;
      ASSERT_EQ(m_cache->GetByUniquePid(uniquePid, actual), m_model.GetByUniquePid(uniquePid, expected));
      ASSERT_EQ(Tie(actual), Tie(expected)) << uniquePid;
    } else if (operation < 94) {
      Info actual = SomeRead();
      Info expected = actual;
      m_cache->Update(actual);
      m_model.Update(expected);
      ASSERT_EQ(Tie(actual), Tie(expected));
    } else if (operation < 97) {
      Info info = SomeRead();
      info.uniquePid = SomeUniquePid();
      ASSERT_EQ(m_cache->UpdateAdditionalInfo(info), m_model.UpdateAdditionalInfo(info));
    } else {
      m_now += Below(3'000'000);
      m_model.now = m_now;
    }
  }

  Model m_model{kCapacity, kCounterStart, kSeconds};
  std::mt19937 m_engine{GetParam()};
  std::deque<EventInfo> m_events;
  std::deque<UniquePidType> m_uniquePids;
  std::uint64_t m_throws = 0;
};

TEST_P(ProcessCacheModelTest, DoesWhatTheRulesSay) {
  constexpr int kSteps = 20'000;
  for (int step = 0; step < kSteps; ++step) {
    ASSERT_NO_FATAL_FAILURE(Step()) << "step " << step;
    ASSERT_EQ(Hits(), m_model.hits) << "step " << step;
    ASSERT_EQ(Misses(), m_model.misses) << "step " << step;
  }
  EXPECT_EQ(LiveSize(), static_cast<std::int64_t>(m_model.Size()));
  EXPECT_GT(m_throws, 0U);
  EXPECT_GT(m_model.Evictions(), 0U);
  EXPECT_GT(m_model.secondExecReports, 0U);
  EXPECT_GT(m_model.goneExecs, 0U);
  EXPECT_GT(m_model.awaitedExits, 0U);
  EXPECT_GT(m_model.denials, 0U);
  EXPECT_GT(m_model.denialsOfTheDead, 0U);
  EXPECT_GT(m_model.deadAnswers, 0U);
  EXPECT_GT(m_model.expired, 0U);
  EXPECT_GT(m_model.earlierImages, 0U);

  // The whole of both tables at the end.
  std::size_t known = 0;
  for (PidType pid = 0; pid < 3600; ++pid) {
    Info actual;
    Info expected;
    const bool found = m_model.Get(pid, expected);
    known += found ? 1 : 0;
    ASSERT_EQ(m_cache->Get(static_cast<pid_t>(pid), actual), found) << pid;
    ASSERT_EQ(Tie(actual), Tie(expected)) << pid;
  }
  EXPECT_GT(known, 100U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ProcessCacheModelTest, testing::Range(1U, 5U));

}  // namespace
}  // namespace qor::process_manager
