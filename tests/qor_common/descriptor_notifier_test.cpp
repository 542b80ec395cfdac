#include "qor_common/descriptor_notifier.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/exception/diagnostic_information.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "support/child_process.h"

namespace qor {
namespace {

using detail::EventFdDescriptorNotifier;
using detail::PipeDescriptorNotifier;
using test_support::RunInChild;

bool IsReadable(int fd) {
  pollfd entry{.fd = fd, .events = POLLIN, .revents = 0};
  return ::poll(&entry, 1, 0) == 1 && entry.revents == POLLIN;
}

// How many descriptors a program has that this process executes.
int DescriptorsAfterExec() {
  const std::unique_ptr<FILE, int (*)(FILE*)> shell(::popen("set -- /proc/self/fd/*; echo $#", "r"),
                                                    ::pclose);
  int count = -1;
  if (!shell || std::fscanf(shell.get(), "%d", &count) != 1) return -1;
  return count;
}

template <class T>
class AnyNotifier : public testing::Test {};
using Kinds = testing::Types<EventFdDescriptorNotifier, PipeDescriptorNotifier>;
TYPED_TEST_SUITE(AnyNotifier, Kinds);

TYPED_TEST(AnyNotifier, NotifyBeforeTheFirstPollMakesItReturnAtOnce) {
  TypeParam notifier(false);
  EXPECT_FALSE(IsReadable(notifier.GetDescriptor()));
  ASSERT_EQ(notifier.Notify(), zym::ZYM_OK);
  EXPECT_TRUE(IsReadable(notifier.GetDescriptor()));
  ASSERT_EQ(notifier.Reset(), zym::ZYM_OK);
  EXPECT_FALSE(IsReadable(notifier.GetDescriptor()));
}

TYPED_TEST(AnyNotifier, WakesAThreadThatPolls) {
  TypeParam notifier(false);
  std::thread other([&] { EXPECT_EQ(notifier.Notify(), zym::ZYM_OK); });
  pollfd entry{.fd = notifier.GetDescriptor(), .events = POLLIN, .revents = 0};
  EXPECT_EQ(::poll(&entry, 1, 30'000), 1);
  other.join();
}

TYPED_TEST(AnyNotifier, IsNotOpenAfterExecUnlessInheritable) {
  const int before = DescriptorsAfterExec();
  ASSERT_GT(before, 0);
  const TypeParam closed(false);
  EXPECT_EQ(DescriptorsAfterExec(), before);
  const TypeParam inherited(true);
  EXPECT_GT(DescriptorsAfterExec(), before);
}

TYPED_TEST(AnyNotifier, ResetWithNothingToTakeBackWaitsForIt) {
  TypeParam notifier(false);
  std::thread other([&] { EXPECT_EQ(notifier.Notify(), zym::ZYM_OK); });
  EXPECT_EQ(notifier.Reset(), zym::ZYM_OK);
  other.join();
  EXPECT_FALSE(IsReadable(notifier.GetDescriptor()));
}

TYPED_TEST(AnyNotifier, ClosesWhatItOpened) {
  const auto before = test_support::OpenDescriptors();
  { const TypeParam notifier(false); }
  EXPECT_EQ(test_support::OpenDescriptors(), before);
}

TYPED_TEST(AnyNotifier, ReportsAnotherErrorThanEagain) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              TypeParam notifier(false);
              ::close(notifier.GetDescriptor());
              if (notifier.Reset() != zym::ZYM_E_INVALID_HANDLE) return "Reset";
              return {};
            }),
            "");
}

TEST(EventFdDescriptorNotifier, OneResetTakesBackTwoNotifications) {
  EventFdDescriptorNotifier notifier(false);
  ASSERT_EQ(notifier.Notify(), zym::ZYM_OK);
  ASSERT_EQ(notifier.Notify(), zym::ZYM_OK);
  ASSERT_EQ(notifier.Reset(), zym::ZYM_OK);
  EXPECT_FALSE(IsReadable(notifier.GetDescriptor()));
}

TEST(EventFdDescriptorNotifier, HasTheFlagsOfItsKind) {
  const EventFdDescriptorNotifier closed(false);
  EXPECT_EQ(::fcntl(closed.GetDescriptor(), F_GETFD), FD_CLOEXEC);
  EXPECT_NE(::fcntl(closed.GetDescriptor(), F_GETFL) & O_NONBLOCK, 0);
  const EventFdDescriptorNotifier inherited(true);
  EXPECT_EQ(::fcntl(inherited.GetDescriptor(), F_GETFD), 0);
  EXPECT_EQ(::fcntl(inherited.GetDescriptor(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(EventFdDescriptorNotifier, NotifyOfAFullCounterIsRepeatedUntilThereIsRoom) {
  EventFdDescriptorNotifier notifier(false);
  const std::uint64_t full = 0xfffffffffffffffe;
  ASSERT_EQ(::write(notifier.GetDescriptor(), &full, sizeof(full)), 8);
  std::thread other([&] { EXPECT_EQ(notifier.Notify(), zym::ZYM_OK); });
  EXPECT_EQ(notifier.Reset(), zym::ZYM_OK);
  other.join();
  EXPECT_TRUE(IsReadable(notifier.GetDescriptor())) << "the notification that had to wait";
}

TEST(PipeDescriptorNotifier, OneResetOfTwoNotificationsLeavesOneByte) {
  PipeDescriptorNotifier notifier(false);
  ASSERT_EQ(notifier.Notify(), zym::ZYM_OK);
  ASSERT_EQ(notifier.Notify(), zym::ZYM_OK);
  ASSERT_EQ(notifier.Reset(), zym::ZYM_OK);
  EXPECT_TRUE(IsReadable(notifier.GetDescriptor()));
  ASSERT_EQ(notifier.Reset(), zym::ZYM_OK);
  EXPECT_FALSE(IsReadable(notifier.GetDescriptor()));
}

// What a construction throws, as "errno text", and where.
template <class T>
std::string Thrown(std::string* function = nullptr) {
  try {
    T notifier(false);
    return "nothing";
  } catch (const std::system_error& e) {
    const auto* const where =
        boost::get_error_info<boost::throw_function>(dynamic_cast<const boost::exception&>(e));
    if (function != nullptr && where != nullptr) *function = *where;
    return std::to_string(e.code().value()) + " " + e.what();
  }
}

TEST(DescriptorNotifier, AFailedCreationThrows) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (const auto missing = test_support::FailSystemCall(SYS_eventfd2, ENFILE); !missing.empty())
                return missing;
              std::string thrown = Thrown<EventFdDescriptorNotifier>() + "; ";
              // Only now: a sanitizer looks at the first exception of a type with a pipe of its own.
              if (const auto missing = test_support::FailSystemCall(SYS_pipe2, ENFILE); !missing.empty())
                return missing;
              return thrown + Thrown<PipeDescriptorNotifier>();
            }),
            "23 Creation of eventfd failed: Too many open files in system; "
            "23 Creation of pipe failed: Too many open files in system");
}

TEST(DescriptorNotifier, ThereIsNoFallingBackToAPipeAtRunTime) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (const auto missing = test_support::FailSystemCall(SYS_eventfd2, ENFILE); !missing.empty())
                return missing;
              try {
                const DescriptorNotifier notifier;
                return "a notifier was made";
              } catch (const std::system_error& e) {
                return e.code().value() == ENFILE ? "" : e.what();
              }
            }),
            "");
}

constexpr const char* kSetFlags =
    "void qor::detail::PipeDescriptorNotifier::SetFlags(qor::detail::PipeDescriptorNotifier::Pipe, int)";

TEST(PipeDescriptorNotifier, FlagsThatCantBeFetchedThrowWithThePlace) {
  EXPECT_EQ(
      RunInChild([]() -> std::string {
        const auto missing = test_support::FailSystemCall(SYS_fcntl, EPERM, {{1, F_GETFL}});
        if (!missing.empty()) return missing;
        std::string function;
        const std::string thrown = Thrown<PipeDescriptorNotifier>(&function);
        return thrown + " in " + function;
      }),
      std::string("1 Failed to fetch flags of pipe descriptor: Operation not permitted in ") + kSetFlags);
}

TEST(PipeDescriptorNotifier, FlagsThatCantBeSetThrowAndLeaveNothingOpen) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              const auto before = test_support::OpenDescriptors();
              const auto missing = test_support::FailSystemCall(SYS_fcntl, EPERM, {{1, F_SETFL}});
              if (!missing.empty()) return missing;
              std::string function;
              const std::string thrown = Thrown<PipeDescriptorNotifier>(&function);
              if (test_support::OpenDescriptors() != before) return "a descriptor is left";
              return thrown + " in " + function;
            }),
            std::string("1 Failed to set pipe descriptor flags: Operation not permitted in ") + kSetFlags);
}

}  // namespace
}  // namespace qor
