// Settings of the kernel that are changed for a moment.
#include "process_manager/procfs/kernel_setting.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "qor_common/unique_fd.h"
#include "support/temp_directory.h"
#include "zym/exception.h"

namespace qor::procfs {
namespace {

using test_support::TempDirectory;

using Names = std::vector<std::string>;

// The names of the files that were written since the last call.
Names TakeNames(int watch) {
  alignas(inotify_event) char buffer[4096];
  const ssize_t size = ::read(watch, buffer, sizeof(buffer));
  Names names;
  for (ssize_t at = 0; at < size;) {
    const auto* const event = reinterpret_cast<const inotify_event*>(buffer + at);
    names.emplace_back(event->name);
    at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
  }
  return names;
}

TEST(ScopedKernelSetting, HoldsTheNewValueAndPutsTheWholeOldTextBack) {
  const TempDirectory tree;
  const std::string path = tree.Write("setting", "2 and more\nlines\n");
  {
    const ScopedKernelSetting setting(path, "0");
    EXPECT_EQ(test_support::ReadTextFile(path), "0") << "what was longer is cut";
  }
  EXPECT_EQ(test_support::ReadTextFile(path), "2 and more\nlines\n");
}

TEST(ScopedKernelSetting, AMissingFileThrows) {
  const TempDirectory tree;
  EXPECT_THROW(ScopedKernelSetting(tree.Place("setting"), "0"), zym::CheckFailedException);
  EXPECT_FALSE(std::filesystem::exists(tree.Place("setting"))) << "none is made";
}

TEST(ScopedKernelSetting, AFileThatCannotBeReadThrowsAndIsNotWritten) {
  const TempDirectory tree;
  tree.Place("setting/directory");
  EXPECT_THROW(ScopedKernelSetting(tree.Path() + "/setting", "0"), zym::CheckFailedException);
}

TEST(ScopedKernelSetting, AFileThatCannotBeOpenedForWritingThrows) {
  // Readable by everybody and writable by nobody, root included, proc(5).
  EXPECT_THROW(ScopedKernelSetting("/proc/sys/kernel/ostype", "x"), zym::CheckFailedException);
}

TEST(ScopedKernelSetting, AFileThatIsGoneAtTheEndIsIgnored) {
  const TempDirectory tree;
  const std::string path = tree.Write("setting", "2\n");
  {
    const ScopedKernelSetting setting(path, "0");
    std::filesystem::remove(path);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ScopedKernelAddresses, SetsBothAndRestoresThemInReverseOrder) {
  const TempDirectory tree;
  const std::string restrict = tree.Write("sys/kernel/kptr_restrict", "2\n");
  const std::string paranoid = tree.Write("sys/kernel/perf_event_paranoid", "3\n");
  const qor::UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_TRUE(watch);
  const std::string directory = restrict.substr(0, restrict.rfind('/'));
  ASSERT_GE(::inotify_add_watch(watch.Get(), directory.c_str(), IN_CLOSE_WRITE), 0);
  {
    const ScopedKernelAddresses addresses(tree.Path());
    EXPECT_EQ(test_support::ReadTextFile(restrict), "0");
    EXPECT_EQ(test_support::ReadTextFile(paranoid), "1");
    EXPECT_EQ(TakeNames(watch.Get()), (Names{"kptr_restrict", "perf_event_paranoid"}));
  }
  EXPECT_EQ(test_support::ReadTextFile(restrict), "2\n");
  EXPECT_EQ(test_support::ReadTextFile(paranoid), "3\n");
  EXPECT_EQ(TakeNames(watch.Get()), (Names{"perf_event_paranoid", "kptr_restrict"}));
}

TEST(ScopedKernelAddresses, TheFirstIsRestoredWhenTheSecondFails) {
  const TempDirectory tree;
  const std::string restrict = tree.Write("sys/kernel/kptr_restrict", "2\n");
  EXPECT_THROW(ScopedKernelAddresses(tree.Path()), zym::CheckFailedException);
  EXPECT_EQ(test_support::ReadTextFile(restrict), "2\n");
}

}  // namespace
}  // namespace qor::procfs
