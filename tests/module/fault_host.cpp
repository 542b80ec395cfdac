#include "module/fault_host.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "support/forwarding_parser.h"

namespace test_support {
namespace {

using qor::PidType;
using qor::process_manager::process_cache::EventInfo;
using qor::process_manager::process_cache::ProcessInformation;

// The parent of a process, read with nothing but a buffer on the stack; 0 when it is gone.
pid_t ParentOf(pid_t pid) {
  char text[512];
  std::snprintf(text, sizeof(text), "/proc/%d/stat", pid);
  const int file = ::open(text, O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  const ssize_t length = ::read(file, text, sizeof(text) - 1);
  ::close(file);
  text[length > 0 ? length : 0] = '\0';
  const char* const behindName = std::strrchr(text, ')');  // ") S <ppid>"
  return behindName != nullptr && std::strlen(behindName) > 4 ? std::atoi(behindName + 4) : 0;
}

// The module's reader of /proc, which knows no processes but the children of this one.
class ChildrensParser : public ForwardingParser {
 public:
  ChildrensParser(zym::intrusive_ptr<qor::procfs::IParser> inner, std::shared_ptr<ChildrenWatch> children)
      : ForwardingParser(std::move(inner)), m_children(std::move(children)) {}

  zym::result_t GetStat(PidType pid, qor::procfs::Stat& stat) override {
    return m_children->Admit(static_cast<pid_t>(pid)) ? ForwardingParser::GetStat(pid, stat)
                                                      : zym::ZYM_E_NOT_FOUND;
  }

 private:
  const std::shared_ptr<ChildrenWatch> m_children;
};

// The module's cache, which is told of no processes but the children of this one.
class ChildrensCache : public zym::object::Ifaces<qor::process_manager::IEventInfoProvider> {
 public:
  ChildrensCache(zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> inner,
                 std::shared_ptr<ChildrenWatch> children)
      : m_inner(std::move(inner)), m_children(std::move(children)) {}

  void OnFork(ProcessInformation&& info, EventInfo& create) override {
    const auto pid = static_cast<pid_t>(info.pid);
    create.skip = !Has(info.pid);
    if (!create.skip) m_inner->OnFork(std::move(info), create);
    m_children->NoteFork(pid);
  }
  void OnExec(ProcessInformation&& info, EventInfo& exit, EventInfo& create) override {
    const auto pid = static_cast<pid_t>(info.pid);
    exit.skip = create.skip = !Has(info.pid);
    if (!exit.skip) m_inner->OnExec(std::move(info), exit, create);
    m_children->NoteExec(pid);
  }
  void OnExit(pid_t pid, EventInfo& exit) override {
    exit.skip = !m_children->Has(pid);
    if (!exit.skip) m_inner->OnExit(pid, exit);
  }
  void OnExecPerm(ProcessInformation&& info, EventInfo& exit, EventInfo& create) override {
    m_inner->OnExecPerm(std::move(info), exit, create);
  }
  void OnExecDeny(ProcessInformation&& info, EventInfo& exit, EventInfo& create, EventInfo& forkExit,
                  EventInfo& forkCreate) override {
    m_inner->OnExecDeny(std::move(info), exit, create, forkExit, forkCreate);
  }
  zym::result_t OnCreateProcess(bool shouldUpdateExecInfo, EventInfo& create) override {
    return m_inner->OnCreateProcess(shouldUpdateExecInfo, create);
  }
  void OnExitProcess(EventInfo& exit) override { m_inner->OnExitProcess(exit); }
  void OnUidChange(pid_t pid, uid_t realUserId, uid_t effectiveUserId) override {
    if (m_children->Has(pid)) m_inner->OnUidChange(pid, realUserId, effectiveUserId);
  }
  void OnGidChange(pid_t pid, gid_t realGroupId, gid_t effectiveGroupId) override {
    if (m_children->Has(pid)) m_inner->OnGidChange(pid, realGroupId, effectiveGroupId);
  }

 private:
  bool Has(PidType pid) const { return m_children->Has(static_cast<pid_t>(pid)); }

  const zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> m_inner;
  const std::shared_ptr<ChildrenWatch> m_children;
};

}  // namespace

const ChildrenWatch::Row* ChildrenWatch::Find(pid_t pid) const {
  for (std::size_t i = m_count; i > 0; --i)
    if (m_rows[i - 1].pid == pid) return &m_rows[i - 1];
  return nullptr;
}

bool ChildrenWatch::Admit(pid_t pid) {
  if (Has(pid)) return true;
  if (ParentOf(pid) != ::getpid() || m_count == m_rows.size()) return false;
  m_rows[m_count].pid = pid;
  ++m_count;
  return true;
}

void ChildrenWatch::Note(pid_t pid, Flag flag) {
  if (const Row* const row = Find(pid); row != nullptr) const_cast<Row*>(row)->*flag = true;
}

bool ChildrenWatch::Was(pid_t pid, Flag flag) const {
  const Row* const row = Find(pid);
  return row != nullptr && row->*flag;
}

FaultHost::FaultHost() {
  host.locator = zym::CreateObject<ShieldedLocator>();
  host.tracer = zym::CreateObject<ShieldedTracer>();
  host.scanStatistics = zym::CreateObject<ShieldedScanStatistics>();
  host.metricsRegistry = zym::CreateObject<ShieldedMetricsRegistry>();
  host.locator->Add(host.tracer, zym::ITracer::kIid);
  host.locator->Add(host.allocator, zym::IAllocator::kIid);
  host.locator->Add(host.categoryFilter, zym::ITracerCategoryFilter::kIid);
  host.locator->Add(host.startupData, qor::IStartupDataProvider::kIid);
  host.locator->Add(host.scanStatistics, qor::IScanStatisticsCollector::kIid);
  host.locator->Add(host.metricSource, zym::telemetry::IMetricSource::kIid);
  host.locator->Add(host.metricsRegistry, zym::telemetry::IMetricsRegistry::kIid);
  host.locator->Add(zym::CreateObject<ShieldedAggregator>(Locator()), qor::IFeatureTechsAggregator::kIid);

  EXPECT_EQ(module.Make(qor::class_ids::kProcParser, Locator(), parser), zym::ZYM_OK);
  host.locator->Add(zym::CreateObject<ChildrensParser>(parser, children), qor::procfs::IParser::kIid);

  zym::intrusive_ptr<zym::IObject> object;
  EXPECT_EQ(CreateObject(qor::class_ids::kInterceptorSettingsSubscription, object), zym::ZYM_OK);
  EXPECT_EQ(zym::QueryInterface(object, settings.Ref()), zym::ZYM_OK);
  host.locator->Add(settings);

  EXPECT_EQ(module.Create(qor::class_ids::kProcessCache, Locator(), cache), zym::ZYM_OK);
  host.locator->Add(cache);
  zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> events;
  EXPECT_EQ(zym::QueryInterface(cache, events.Ref()), zym::ZYM_OK);
  host.locator->Add(zym::CreateObject<ChildrensCache>(events, children),
                    qor::process_manager::IEventInfoProvider::kIid);
}

FaultHost::~FaultHost() {
  EXPECT_EQ(host.tracer->OpenRecords(), 0U) << "a record was opened and not committed";
}

zym::result_t FaultHost::CreateObject(std::uint32_t classId, zym::intrusive_ptr<zym::IObject>& object) const {
  const SettingsCreationRecord record{.base = {.locator = Locator()}, .tracer = nullptr, .settings = nullptr};
  return module.createObject(classId, &record.base, object.Ref());
}

}  // namespace test_support
