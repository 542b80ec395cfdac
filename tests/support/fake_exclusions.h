// The application's settings, and matchers of paths, as a test wants them.
#pragma once

#include <algorithm>
#include <utility>

#include "process_manager/services/app_settings.h"
#include "process_manager/services/path_matching.h"
#include "zym/object.h"

namespace test_support {

class FakeAppSettingsProvider : public zym::object::Ifaces<qor::IAppSettingsProvider> {
 public:
  zym::result_t GetDefaultSettings(qor::AppSettings&) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t GetSettings(qor::AppSettings& out) override {
    if (ZYM_SUCCEEDED(result)) out = settings;
    return result;
  }

  qor::AppSettings settings;
  zym::result_t result = zym::ZYM_OK;
};

// Matches the patterns as they are: none has a meaning of its own.
class FakePathMatcher : public zym::object::Ifaces<qor::IPathMatcher> {
 public:
  explicit FakePathMatcher(qor::PathList paths) : m_paths(std::move(paths)) {}

  zym::result_t Match(const qor::NativePath& path) override {
    return std::ranges::find(m_paths, path) != m_paths.end() ? zym::ZYM_OK : zym::ZYM_FALSE;
  }
  zym::result_t MatchName(const qor::NativePath&) override { return zym::ZYM_E_NOT_IMPLEMENTED; }

 private:
  const qor::PathList m_paths;
};

// Makes path matchers, and nothing else.
class FakePathMatcherFactory : public zym::object::Ifaces<qor::IPathMatcherFactory> {
 public:
  zym::result_t CheckPattern(const qor::NativePath&) override { return Refuse(); }
  zym::result_t CreateExactMatcher(const qor::PathList&, qor::IPathMatcher**) override { return Refuse(); }
  zym::result_t CreateTreeMatcher(const qor::PathList&, qor::IPathMatcher**) override { return Refuse(); }
  zym::result_t CreateExceptingMatcher(const qor::PathList&, const qor::PathList&,
                                       qor::IPathMatcher**) override {
    return Refuse();
  }
  zym::result_t CreateMountMatcher(const qor::PathList&, const qor::PathList&, qor::IPathMatcher**) override {
    return Refuse();
  }
  zym::result_t CreateNameMatcher(const qor::PathList&, qor::IPathMatcher**) override { return Refuse(); }
  zym::result_t CreatePatternMatcher(const qor::NativePath&, qor::IPathMatcher**) override {
    return Refuse();
  }
  zym::result_t CreatePathMatcher(const qor::PathList& patterns, qor::IPathMatcher** matcher) override {
    if (ZYM_SUCCEEDED(result) && !givesNone) *matcher = zym::CreateObject<FakePathMatcher>(patterns).Detach();
    return result;
  }

  zym::result_t result = zym::ZYM_OK;
  bool givesNone = false;  // and says that it did

 private:
  static zym::result_t Refuse() { return zym::ZYM_E_NOT_IMPLEMENTED; }
};

}  // namespace test_support
