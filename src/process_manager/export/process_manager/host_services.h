// What the module takes from the host's locator, beside zym's own ITracer, IAllocator and
// ITracerCategoryFilter. Each service may be called from any thread.
#pragma once

#include <cstdint>
#include <string_view>

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// What the host knew when it started.
struct StartupData {
  std::uint32_t size = sizeof(StartupData);
  std::uint32_t reserved = 0;
  std::uint32_t environCapturing = 1;  // the value that turns environment capturing on in the exec listener
  std::uint8_t fanotifyAvailable = 0;  // the kernel lets this process watch with fanotify
  std::uint8_t startedByWatchdog = 0;  // the parent of this process is the product's watchdog
  // The language of the product, as ProcessUserLocalizationProvider names one: "en", "zh-hans".
  zym::types::string16_t localization;
};

struct IStartupDataProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0xa26c8413;

  // Never null; valid and unchanged while the provider lives.
  virtual const StartupData* GetStartupData() = 0;

 protected:
  ~IStartupDataProvider() = default;
};

// Counts which images run, for the statistics of scans.
struct IScanStatisticsCollector : zym::IObject {
  static constexpr zym::iid_t kIid = 0x97074f39;

  virtual zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&& path) = 0;

 protected:
  ~IScanStatisticsCollector() = default;
};

// Named switches. Optional.
struct IFeatureLookup : zym::IObject {
  static constexpr zym::iid_t kIid = 0x9caa2097;

  // ZYM_E_NOT_FOUND: there is no such switch; `value` is left alone.
  virtual zym::result_t GetBoolean(const char* name, bool* value) = 0;

 protected:
  ~IFeatureLookup() = default;
};

// The switch that lets images be opened through the root of a process in another mount namespace.
inline constexpr const char* kOpenIOFromForeignMountNamespace =
    "qor.process_manager.OpenIOFromForeignMountNamespace";

// --- What sees programs start, beside the kernel's proc connector. Optional. -------------------------------

// Watches executions as they happen. QueryInterface may give IExecListenerControl and IExecInformationSource.
struct IExecListener : zym::IObject {
  // Not called by the module.
  virtual zym::result_t GetStatistics(std::uint64_t* executions) = 0;
  // Waits at most `timeout` milliseconds for the end of the execve call that `pid` is in. `fd` is the image,
  // or -1. `error` is 0 or the errno with which the call failed.
  virtual zym::result_t WaitExecResult(unsigned int timeout, PidType pid, int fd, int& error) = 0;

 protected:
  ~IExecListener() = default;
};

struct IExecListenerControl : zym::IObject {
  static constexpr zym::iid_t kIid = 0x70501d1b;

  // Not called by the module.
  virtual zym::result_t GetEnvironCapturing(std::uint32_t* value) = 0;
  // 0 turns the capturing of environments off.
  virtual zym::result_t SetEnvironCapturing(std::uint32_t value) = 0;

 protected:
  ~IExecListenerControl() = default;
};

// Has captured executions to tell of; QueryInterface gives IExecStringsProvider.
struct IExecInformationSource : zym::IObject {
  static constexpr zym::iid_t kIid = 0x093b54f2;

 protected:
  ~IExecInformationSource() = default;
};

struct IExecStringsProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0xd9cda451;

  // The strings of the last execution of `pid`, in UTF-8: the path of the image, then the arguments. Waits at
  // most `timeout` milliseconds. `fd` is the image, or all ones.
  virtual zym::result_t GetExecStrings(std::uint32_t timeout, PidType pid, std::uint32_t fd,
                                       zym::types::vector_t<zym::types::string_t>& strings) = 0;

 protected:
  ~IExecStringsProvider() = default;
};

struct IExecListenerFactory : zym::IObject {
  static constexpr zym::iid_t kIid = 0x797d4ce7;

  virtual zym::result_t GetExecListener(IExecListener** listener) = 0;

 protected:
  ~IExecListenerFactory() = default;
};

// --- Mount namespaces. ------------------------------------------------------------------------------------

// An open descriptor that closes with its last reference.
struct IDescriptor : zym::IObject {
  virtual int Get() const = 0;

 protected:
  ~IDescriptor() = default;
};

struct IRootFdProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0x6380f86d;

  // A descriptor of the mount namespace with this inode, for setns(2).
  virtual zym::result_t GetNamespaceFd(std::uint64_t namespaceId, IDescriptor** descriptor) = 0;

 protected:
  ~IRootFdProvider() = default;
};

// --- Processes held still. --------------------------------------------------------------------------------

// Stops a process so that its memory can be read. Asked for by a ProcessMemoryFactory on kernels below 3.3
// only, whose /proc/<pid>/mem tells a stopped process alone.
struct IQorProcessSuspender : zym::IObject {
  static constexpr zym::iid_t kIid = 0xdd65aa6a;

  // Returns when the process is stopped, and keeps it so until ReleaseProcess, or Stop, undoes it. Suspended
  // twice, it is released by the second release. `timeout` in milliseconds; after that, ZYM_E_TIMEOUT, and on
  // any other failure, the process is as it was.
  virtual zym::result_t SuspendProcess(std::uint32_t pid, std::uint32_t timeout) = 0;
  virtual zym::result_t ReleaseProcess(std::uint32_t pid) = 0;
  // Reads a suspended process. ZYM_OK: all of `range` is filled; ZYM_FALSE: a part of it, from its beginning.
  virtual zym::result_t ReadMemory(std::uint32_t pid, std::uint64_t address,
                                   const zym::types::blob_range_t& range) = 0;
  // Each factory starts the service for its life, and stops it. The last stop releases every process.
  virtual zym::result_t Start() = 0;
  virtual zym::result_t Stop() = 0;

 protected:
  ~IQorProcessSuspender() = default;
};

// --- Tasks of the product. --------------------------------------------------------------------------------

// Whose tasks.
struct UserCred {
  zym::types::string_t userName;

  static UserCred GetProductUserCred() { return {zym::types::string_t("root")}; }
};

namespace core {

inline constexpr std::uint32_t kMemoryScanSettingsId = 0xe81b1607;

struct MemoryScanSettings {
  bool scanMemory = false;
  bool useAEP = false;
};

// A serialised value under its type id; `value` points at the structure of that id, which the host keeps.
struct TaskSettings {
  std::uint32_t typeId = 0;
  const void* value = nullptr;
};

struct TaskInfo {
  std::uint32_t state = 0;  // 6 and 7: the task doesn't run any more
  zym::types::string_t name;
  zym::types::string_t id;
  TaskSettings settings;
};

}  // namespace core

struct IQorTaskManager : zym::IObject {
  static constexpr zym::iid_t kIid = 0x887632c7;

  virtual zym::result_t GetTaskList(zym::types::vector_t<core::TaskInfo>& tasks, const UserCred& user) = 0;

 protected:
  ~IQorTaskManager() = default;
};

// The product's state by number.
struct IProductValues : zym::IObject {
  static constexpr zym::iid_t kIid = 0xb70e30bb;
  static constexpr std::uint32_t kExploitPreventionActive = 5;

  virtual zym::result_t GetValue(std::uint32_t key, std::uint32_t* value) = 0;

 protected:
  ~IProductValues() = default;
};

}  // namespace qor

namespace zym::telemetry {

struct IGauge : IObject {
  virtual void Set(std::int64_t value) = 0;

 protected:
  ~IGauge() = default;
};

struct ICounter : IObject {
  virtual void Increment() = 0;
  virtual void Reset() = 0;

 protected:
  ~ICounter() = default;
};

// What a bounded table tells of itself.
struct TableMetrics {
  objptr_t<IGauge> size;
  objptr_t<ICounter> hits;
  objptr_t<ICounter> misses;
};

// Gives the metric objects of a component, which live in the host's registry.
struct IMetricSource : IObject {
  static constexpr iid_t kIid = 0x34e76fa8;

  // `component`: "process_cache" or "pending_interpreters". All three objects are given, or the call fails.
  virtual result_t GetTableMetrics(const char* component, TableMetrics& metrics) = 0;

 protected:
  ~IMetricSource() = default;
};

// Called by the registry when somebody wants to read, on any thread.
struct ICollector : IObject {
  virtual void Collect() = 0;

 protected:
  ~ICollector() = default;
};

struct IMetricsRegistry : IObject {
  static constexpr iid_t kIid = 0x1d40f599;

  // Not called by the module: all metrics as text.
  virtual result_t GetText(types::string_t& text) = 0;
  // Gives a token for the opposite operation. The registry keeps a reference.
  virtual result_t RegisterCollector(ICollector* collector, std::uint64_t* token) = 0;
  // When it returns, the collector isn't running and won't be called again.
  virtual result_t UnregisterCollector(std::uint64_t token) = 0;

 protected:
  ~IMetricsRegistry() = default;
};

}  // namespace zym::telemetry
