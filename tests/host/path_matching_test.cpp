// The matchers that the module asks for, and the others of the factory.
#include "host/services/path_matching.h"

#include <gtest/gtest.h>
#include <mntent.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/fake_services.h"
#include "zym/module_counter.h"

namespace {

using pmhost::PathMatcherFactory;
using qor::IPathMatcher;
using qor::PathList;
using MatcherPtr = zym::intrusive_ptr<IPathMatcher>;

class PathMatching : public testing::Test {
 protected:
  ~PathMatching() override {
    m_matcher.Reset();
    m_factory.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  bool Path(const std::string& path) const { return Yes(m_matcher->Match(path)); }
  bool Name(const std::string& name) const { return Yes(m_matcher->MatchName(name)); }

  const zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  const std::int32_t m_objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<PathMatcherFactory> m_factory =
      zym::CreateObject<PathMatcherFactory>(zym::intrusive_ptr<zym::ITracer>(m_tracer));
  MatcherPtr m_matcher;

 private:
  // No other answer is given.
  static bool Yes(zym::result_t result) {
    EXPECT_TRUE(result == zym::ZYM_OK || result == zym::ZYM_FALSE) << result;
    return result == zym::ZYM_OK;
  }
};

TEST_F(PathMatching, AnEmptyListMatchesNothing) {
  for (const auto create :
       {&PathMatcherFactory::CreatePathMatcher, &PathMatcherFactory::CreateNameMatcher,
        &PathMatcherFactory::CreateExactMatcher, &PathMatcherFactory::CreateTreeMatcher}) {
    ASSERT_EQ((m_factory.get()->*create)({}, m_matcher.Ref()), zym::ZYM_OK);
    for (const char* text : {"", "/", "/a", "a"}) {
      EXPECT_FALSE(Path(text)) << text;
      EXPECT_FALSE(Name(text)) << text;
    }
    m_matcher.Reset();
  }
}

TEST_F(PathMatching, APathMatcherTestsPathsWholeAndNamesByTheLastComponent) {
  ASSERT_EQ(m_factory->CreatePathMatcher({"/usr/sbin/*", "ssh*"}, m_matcher.Ref()), zym::ZYM_OK);
  EXPECT_TRUE(Path("/usr/sbin/cron"));
  EXPECT_TRUE(Path("/usr/bin/sshd"));
  EXPECT_TRUE(Path("sshd"));
  EXPECT_FALSE(Path("/usr/ssh/cron"));
  EXPECT_FALSE(Path("/usr/bin/cron"));
  EXPECT_FALSE(Path(""));
  EXPECT_TRUE(Name("sshd"));
  EXPECT_FALSE(Name("cron"));
}

TEST_F(PathMatching, AMountMatcherKeepsMountPointsAndTypesApart) {
  ASSERT_EQ(m_factory->CreateMountMatcher({"/mnt/**", "/proc", "nfs*", "tmpfs"}, {}, m_matcher.Ref()),
            zym::ZYM_OK);
  EXPECT_TRUE(Path("/mnt/backup"));
  EXPECT_TRUE(Path("/proc"));
  EXPECT_FALSE(Path("/mnt"));
  EXPECT_FALSE(Path("/srv/tmpfs")) << "a type has no say in a mount point";
  EXPECT_TRUE(Name("nfs4"));
  EXPECT_TRUE(Name("tmpfs"));
  EXPECT_FALSE(Name("proc")) << "nor a mount point in a type";
  EXPECT_FALSE(Name("ext4"));
}

TEST_F(PathMatching, AMountMatcherKnowsExceptions) {
  ASSERT_EQ(
      m_factory->CreateMountMatcher({"/mnt/**", "fuse.*"}, {"/mnt/watched", "fuse.sshfs"}, m_matcher.Ref()),
      zym::ZYM_OK);
  EXPECT_TRUE(Path("/mnt/other"));
  EXPECT_FALSE(Path("/mnt/watched"));
  EXPECT_TRUE(Name("fuse.gvfsd"));
  EXPECT_FALSE(Name("fuse.sshfs"));
}

// As the permission path will ask: first the type, then the mount point.
TEST_F(PathMatching, TheMountsOfThisMachineAreTold) {
  ASSERT_EQ(m_factory->CreateMountMatcher({"proc", "/"}, {}, m_matcher.Ref()), zym::ZYM_OK);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> mounts(::setmntent("/proc/self/mounts", "r"),
                                                               &::endmntent);
  ASSERT_TRUE(mounts);
  int left = 0;
  int total = 0;
  while (const mntent* const mount = ::getmntent(mounts.get())) {
    ++total;
    const bool isLeft = Name(mount->mnt_type) || Path(mount->mnt_dir);
    EXPECT_EQ(isLeft, mount->mnt_type == std::string_view("proc") || mount->mnt_dir == std::string_view("/"))
        << mount->mnt_dir;
    left += isLeft ? 1 : 0;
  }
  EXPECT_GT(total, 0);
  EXPECT_GT(left, 0) << "every machine has a /proc";
}

TEST_F(PathMatching, AnExceptingMatcherLeavesItsExceptions) {
  ASSERT_EQ(m_factory->CreateExceptingMatcher({"/usr/bin/*"}, {"sudo", "/usr/bin/p*"}, m_matcher.Ref()),
            zym::ZYM_OK);
  EXPECT_TRUE(Path("/usr/bin/sh"));
  EXPECT_FALSE(Path("/usr/bin/sudo"));
  EXPECT_FALSE(Path("/usr/bin/ps"));
}

TEST_F(PathMatching, AnExactMatcherReadsNoPattern) {
  ASSERT_EQ(m_factory->CreateExactMatcher({"/tmp/[*]", "a?", "/x/"}, m_matcher.Ref()), zym::ZYM_OK);
  EXPECT_TRUE(Path("/tmp/[*]"));
  EXPECT_FALSE(Path("/tmp/*"));
  EXPECT_TRUE(Name("a?"));
  EXPECT_FALSE(Name("ab"));
  EXPECT_FALSE(Path("/x"));
  EXPECT_TRUE(Path("/x/"));
}

TEST_F(PathMatching, ATreeMatcherIsTheDirectoriesAndAllBelow) {
  ASSERT_EQ(m_factory->CreateTreeMatcher({"/opt/app", "/srv/*/"}, m_matcher.Ref()), zym::ZYM_OK);
  EXPECT_TRUE(Path("/opt/app"));
  EXPECT_TRUE(Path("/opt/app/bin/x"));
  EXPECT_FALSE(Path("/opt/application"));
  EXPECT_FALSE(Path("/opt"));
  EXPECT_TRUE(Path("/srv/*")) << "a slash at the end says nothing more";
  EXPECT_TRUE(Path("/srv/*/a"));
  EXPECT_FALSE(Path("/srv/b/a")) << "no pattern";
  EXPECT_FALSE(Name("app"));
  ASSERT_EQ(m_factory->CreateTreeMatcher({"/"}, m_matcher.Ref()), zym::ZYM_OK);
  EXPECT_TRUE(Path("/"));
  EXPECT_TRUE(Path("/a"));
  EXPECT_FALSE(Path("a"));
  EXPECT_FALSE(Path(""));
}

TEST_F(PathMatching, ANameMatcherTestsTheLastComponent) {
  ASSERT_EQ(m_factory->CreateNameMatcher({"*.so", "*.so.*"}, m_matcher.Ref()), zym::ZYM_OK);
  EXPECT_TRUE(Path("/lib/libc.so.6"));
  EXPECT_TRUE(Name("libc.so"));
  EXPECT_FALSE(Path("/lib.so/readme"));
  EXPECT_EQ(m_factory->CreateNameMatcher({"/lib/*.so"}, m_matcher.Ref()), zym::ZYM_E_INVALID_ARGUMENT);
}

TEST_F(PathMatching, OnePatternMakesAMatcherToo) {
  ASSERT_EQ(m_factory->CreatePatternMatcher("/usr/**", m_matcher.Ref()), zym::ZYM_OK);
  EXPECT_TRUE(Path("/usr/bin/sh"));
  EXPECT_FALSE(Path("/bin/sh"));
}

TEST_F(PathMatching, WhatIsNoPatternMakesNoMatcherAndIsTraced) {
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IPathMatcher*>(&sentinel);
  IPathMatcher* matcher = untouched;
  const PathList good = {"/a"};
  const PathList bad = {"/a", "/[b"};
  EXPECT_EQ(m_factory->CheckPattern("/a"), zym::ZYM_OK);
  EXPECT_EQ(m_factory->CheckPattern("/[b"), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_factory->CreatePathMatcher(bad, &matcher), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(m_tracer->Has(300, "CreatePathMatcher: '/[b': a '[' without its ']'"));
  EXPECT_EQ(m_factory->CreateNameMatcher({"["}, &matcher), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_factory->CreatePatternMatcher("/[b", &matcher), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_factory->CreateTreeMatcher({"opt"}, &matcher), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_factory->CreateMountMatcher(good, bad, &matcher), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_factory->CreateMountMatcher(bad, good, &matcher), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_factory->CreateExceptingMatcher(good, bad, &matcher), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(matcher, untouched);
}

TEST_F(PathMatching, ANameIsNoPath) {
  ASSERT_EQ(m_factory->CreatePathMatcher({"*"}, m_matcher.Ref()), zym::ZYM_OK);
  EXPECT_TRUE(Name("a"));
  EXPECT_FALSE(Name("a/b"));
  EXPECT_FALSE(Name(std::string("a\0b", 3)));
  EXPECT_TRUE(Path("/a/b"));
  EXPECT_FALSE(Path(std::string("/a\0b", 4)));
}

TEST_F(PathMatching, AMatcherOutlivesItsFactoryAndServesManyThreads) {
  ASSERT_EQ(m_factory->CreatePathMatcher({"/usr/**", "ssh*"}, m_matcher.Ref()), zym::ZYM_OK);
  m_factory.Reset();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([this] {
      for (int j = 0; j < 500; ++j) {
        EXPECT_TRUE(Path("/usr/bin/env"));
        EXPECT_FALSE(Path("/bin/env"));
        EXPECT_TRUE(Name("sshd"));
      }
    });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
