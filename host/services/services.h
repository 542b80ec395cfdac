// The small services of the host.
#pragma once

#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "process_manager/services/app_settings.h"
#include "process_manager/services/feature_lookup.h"
#include "process_manager/services/product_values.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "process_manager/services/task_manager.h"
#include "zym/object.h"
#include "zym/tracer.h"

namespace pmhost {

// Memory for the module's objects.
class Allocator : public zym::object::Ifaces<zym::IAllocator> {
 public:
  void* Alloc(std::uint64_t size) override { return std::malloc(size); }
  void* Reallocate(void* p, std::uint64_t size) override { return std::realloc(p, size); }
  void Free(void* p) override { std::free(p); }
};

// Lets sensitive text into the trace if the user asked for it (--show-private).
class CategoryFilter : public zym::object::Ifaces<zym::ITracerCategoryFilter> {
 public:
  explicit CategoryFilter(bool showPrivate) : m_showPrivate(showPrivate) {}
  zym::result_t Check(std::uint32_t category) override {
    return category != kSensitive || m_showPrivate ? zym::ZYM_OK : zym::ZYM_FALSE;
  }

 private:
  const bool m_showPrivate;
};

// What was found out about the machine at start, and the language of who started the host: English if its
// LANG names none.
class StartupDataProvider : public zym::object::Ifaces<qor::IStartupDataProvider> {
 public:
  StartupDataProvider();
  const qor::StartupData* GetStartupData() override { return &m_data; }

 private:
  qor::StartupData m_data;
};

// What the command line and the configuration file set.
class AppSettingsProvider : public zym::object::Ifaces<qor::IAppSettingsProvider> {
 public:
  explicit AppSettingsProvider(qor::AppSettings settings) : m_settings(std::move(settings)) {}
  zym::result_t GetDefaultSettings(qor::AppSettings& settings) override;
  zym::result_t GetSettings(qor::AppSettings& settings) override;

 private:
  const qor::AppSettings m_settings;
};

// Keeps the distinct images that ran.
class ScanStatistics : public zym::object::Ifaces<qor::IScanStatisticsCollector> {
 public:
  zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&& path) override;

 private:
  std::mutex m_mutex;  // guards m_paths
  std::set<zym::types::string16_t> m_paths;
};

// Named switches of the configuration file.
class FeatureLookup : public zym::object::Ifaces<qor::IFeatureLookup> {
 public:
  explicit FeatureLookup(std::map<std::string, bool> switches) : m_switches(std::move(switches)) {}
  zym::result_t GetBoolean(const char* name, bool* value) override;

 private:
  const std::map<std::string, bool> m_switches;
};

// This host prevents no exploits and runs no scans: it says so.
class ProductValues : public zym::object::Ifaces<qor::IProductValues> {
 public:
  zym::result_t GetValue(std::uint32_t key, std::uint32_t* value) override;
};

class TaskManager : public zym::object::Ifaces<qor::IQorTaskManager> {
 public:
  zym::result_t GetTaskList(zym::types::vector_t<qor::core::TaskInfo>& tasks, const qor::UserCred&) override {
    tasks.clear();
    return zym::ZYM_OK;
  }
};

}  // namespace pmhost
