// A reader of /proc in a fake host, on the real /proc or on a tree of the test's.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "process_manager/procfs/proc_parser.h"
#include "support/fake_services.h"
#include "support/fresh_process.h"
#include "support/temp_directory.h"
#include "zym/module_counter.h"

namespace qor::procfs {

// A host with a parser. Ends by looking whether every object is gone.
struct Setting {
  Setting() = default;
  ~Setting() {
    parser.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), objects);
  }

  template <class P, class... Args>
  zym::intrusive_ptr<P> Make(Args&&... args) {
    return zym::CreateObject<P>(host.locator.get(), std::forward<Args>(args)...);
  }
  test_support::RecordingTracer& Trace() const { return *host.tracer; }

  test_support::FakeHost host;
  std::int32_t objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<ProcParser> parser = Make<ProcParser>();
};

class ProcParserTest : public ::testing::Test, protected Setting {};

// A fresh process whose procfs root is a tree of the test's.
struct FakeRoot : Setting {
  FakeRoot() { ::setenv("VORN_HOST_PROCFS", tree.Path().c_str(), 1); }

  // The trees have ordinary files, so their root isn't "/proc/".
  std::string Path(const std::string& name) const { return tree.Path() + "/" + name; }

  test_support::TempDirectory tree;
};

inline void WithFakeRoot(const std::function<void(FakeRoot&)>& body) {
  test_support::InFreshProcess([&body] {
    FakeRoot root;
    body(root);
  });
}

inline constexpr PidType kNobody = 4'194'305;  // above the largest pid of Linux, 2^22

}  // namespace qor::procfs
