// Real processes through the real kernel, the loaded module and a handler.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "module/event_fixture.h"
#include "support/temp_directory.h"

namespace {

using namespace test_support;
using namespace system_interceptors;
using qor::kCreated;
using qor::kTerminated;
using qor::process_manager::process_cache::ProcessInformation;

std::u16string Widen(const std::string& ascii) {
  return {ascii.begin(), ascii.end()};
}

class ModuleEvents : public EventFixture {
 protected:
  void SetUp() override {
    EventFixture::SetUp();
    if (IsSkipped()) return;
    Enable();
  }

  // A program, in which another thread than the first executes another program.
  static void ExpectExecByThread(const std::vector<SeenEvent>& life) {
    ASSERT_EQ(Types(life), (std::vector{kCreate, kExit, kCreate, kExit, kExit, kCreate, kExit}));
    EXPECT_EQ(life[3].uniquePid, life[2].uniquePid);
    EXPECT_NE(life[5].uniquePid, life[2].uniquePid);
    EXPECT_EQ(life[5].fromExec, 1U);
    EXPECT_EQ(life[5].creatorPid, life[5].pid);
    EXPECT_EQ(life[6].uniquePid, life[5].uniquePid);
  }
};

TEST_F(ModuleEvents, AForkedProcessIsCreatedAndEnds) {
  Actor actor({"fork", "say"});
  const pid_t child = actor.HearPid();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_EQ(life.size(), 2U);
  EXPECT_EQ(life[0].type, event_type::kCreateProcess);
  EXPECT_EQ(life[0].fromExec, 0U);
  EXPECT_EQ(life[0].parentPid, static_cast<std::uint32_t>(actor.Pid()));
  EXPECT_EQ(life[1].type, event_type::kExitProcess);
  EXPECT_EQ(life[0].uniquePid, life[1].uniquePid);
  EXPECT_LT(life[0].sequence, life[1].sequence);
}

TEST_F(ModuleEvents, AnExecEndsTheOldImageBeforeItCreatesTheNewOne) {
  Actor actor({"wait"});
  const pid_t pid = actor.Pid();
  WaitForImage(pid, Actor::Path());  // it can't be gone before it is read
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(pid);
  ASSERT_EQ(Types(life), kForkAndExec);
  EXPECT_EQ(life[1].uniquePid, life[0].uniquePid);
  EXPECT_EQ(life[2].fromExec, 1U);
  EXPECT_NE(life[2].uniquePid, life[0].uniquePid);
  EXPECT_EQ(life[2].creatorPid, static_cast<std::uint32_t>(pid))
      << "the creator of an exec's image is the process";
  EXPECT_EQ(life[2].commandLine, u"actor wait");
  EXPECT_EQ(life[3].uniquePid, life[2].uniquePid);
}

TEST_F(ModuleEvents, ThreadsMakeNoEvents) {
  Actor actor({"thread"});
  ASSERT_EQ(actor.Wait(), 0);
  EXPECT_EQ(Types(LifeOf(actor.Pid())), kForkAndExec);
}

// The kernel tells the end of the leading thread as the end of the process (its pid is the tgid), although
// another thread goes on and takes its place with an exec. What is executed then is the image of a process
// that wasn't known: an end of what nobody saw, and the new image.
TEST_F(ModuleEvents, AnExecByAThreadThatOutlivesTheFirstOneIsReportedUnderItsProcess) {
  Actor actor({"wait", "leave-thread", "wait", "exec", Actor::Path(), "by-thread", "wait"});
  const pid_t pid = actor.Pid();
  const std::uint64_t image = WaitForImage(pid, Actor::Path());
  actor.GoOn();
  WaitForEnd(image);
  actor.GoOn();
  WaitForCommand(pid, u"by-thread wait");
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  ExpectExecByThread(LifeOf(pid));
}

// Here the exec itself ends the leading thread: the kernel tells the end and the exec in one go. When the
// exec is read before the end has been through the dispatcher, the cache has no image to end, says so, and
// the exec isn't told; the process is known again from its next exec on.
TEST_F(ModuleEvents, AnExecByAThreadBesideTheFirstOneIsReportedUnderItsProcessOrTraced) {
  Actor actor({"on-thread", "wait", "exec", Actor::Path(), "by-thread", "say", "wait"});
  const pid_t pid = actor.Pid();
  WaitForImage(pid, Actor::Path());
  actor.GoOn();
  ASSERT_EQ(actor.HearPid(), pid) << "a thread that executes takes the pid of its process";
  LifeOf(pid);  // what is told until here has come
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(pid);
  const std::string missed = "No image of the process awaits its end, pid: " + std::to_string(pid);
  if (m_host.host.tracer->Has(missed)) {
    EXPECT_EQ(Types(life), (std::vector{kCreate, kExit, kCreate, kExit}));
  } else {
    ExpectExecByThread(life);
  }
}

TEST_F(ModuleEvents, ACredentialChangeMakesNoEventAndReachesTheNextOne) {
  Actor actor({"wait", "user", "12345"});
  WaitForImage(actor.Pid(), Actor::Path());
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(actor.Pid());
  ASSERT_EQ(Types(life), kForkAndExec);
  EXPECT_EQ(life[2].realUserId, 0U);
  EXPECT_EQ(life[3].realUserId, 12345U);
}

TEST_F(ModuleEvents, ACredentialChangeIsKnownBeforeTheNextEvent) {
  Actor actor({"wait", "group", "54321", "user", "12345", "say", "wait"});
  WaitForImage(actor.Pid(), Actor::Path());
  actor.GoOn();
  actor.HearPid();
  Drain();
  ProcessInformation info;
  ASSERT_TRUE(m_host.cache->Get(actor.Pid(), info));
  EXPECT_EQ(info.realUserId, 12345U);
  EXPECT_EQ(info.effectiveUserId, 12345U);
  EXPECT_EQ(info.realGroupId, 54321U);
  EXPECT_EQ(info.effectiveGroupId, 54321U);
}

// An exec keeps the real ids (it may change the effective ones).
TEST_F(ModuleEvents, ACredentialChangeStaysWithTheNextImage) {
  Actor actor({"wait", "user", "12345", "exec", "/bin/true", "true"});
  WaitForImage(actor.Pid(), Actor::Path());
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(actor.Pid());
  ASSERT_EQ(Types(life), (std::vector{kCreate, kExit, kCreate, kExit, kCreate, kExit}));
  EXPECT_EQ(life[2].realUserId, 0U);
  EXPECT_EQ(life[4].realUserId, 12345U);
  EXPECT_EQ(life[5].realUserId, 12345U);
}

TEST_F(ModuleEvents, AProcessThatTakesThePidOfAnotherIsToldApart) {
  // A pid that was just in use is the last that the kernel gives out again by itself.
  const pid_t pid = RunTrue();
  Drain();  // the end of a process has to be through the dispatcher before its pid is seen again
  const std::string number = std::to_string(pid);
  Actor first({"fork-as", number, "exec", Actor::Path(), "first", "wait"});
  const std::uint64_t firstImage = WaitForCommand(pid, u"first wait");
  first.GoOn();
  ASSERT_EQ(first.Wait(), 0);
  WaitForEnd(firstImage);
  Actor second({"fork-as", number, "exec", Actor::Path(), "second", "wait"});
  const std::uint64_t secondImage = WaitForCommand(pid, u"second wait");

  ProcessInformation info;
  ASSERT_TRUE(m_host.cache->Get(pid, info));
  EXPECT_EQ(info.uniquePid, secondImage);
  ASSERT_TRUE(m_host.cache->GetByUniquePid(secondImage, info));
  EXPECT_EQ(info.parentPid, static_cast<std::uint32_t>(second.Pid()));
  EXPECT_FALSE(m_host.cache->GetByUniquePid(firstImage, info)) << "the first process is gone";
  second.GoOn();
  ASSERT_EQ(second.Wait(), 0);

  const std::vector<SeenEvent> life = LifeOf(pid);
  std::vector<std::uint32_t> three = kForkAndExec;  // of the pid's first owner, and of both others
  three.insert(three.end(), kForkAndExec.begin(), kForkAndExec.end());
  three.insert(three.end(), kForkAndExec.begin(), kForkAndExec.end());
  ASSERT_EQ(Types(life), three);
  std::set<std::uint64_t> images;
  for (std::size_t i = 0; i < life.size(); i += 2) {
    EXPECT_TRUE(images.insert(life[i].uniquePid).second) << i << ": each image has its own";
    EXPECT_EQ(life[i + 1].uniquePid, life[i].uniquePid) << i;
  }
  EXPECT_EQ(life[4].parentPid, static_cast<std::uint32_t>(first.Pid()));
  EXPECT_EQ(life[7].commandLine, u"first wait");
  EXPECT_EQ(life[8].parentPid, static_cast<std::uint32_t>(second.Pid()));
  EXPECT_EQ(life[11].commandLine, u"second wait");
}

// A program under a name of the test's choice.
class NamedProgram {
 public:
  explicit NamedProgram(const std::string& name) : m_path(m_directory.Path() + "/" + name) {
    std::filesystem::copy_file(Actor::Path(), m_path);
  }
  const std::string& Path() const { return m_path; }

 private:
  TempDirectory m_directory;
  std::string m_path;
};

// Such a name stands in the middle of the line of numbers from which a process is read.
TEST_F(ModuleEvents, AProcessIsReadUnderANameWithBlanksAndParentheses) {
  const NamedProgram program(") S 1 (x) 2");
  Actor actor({"exec", program.Path(), "odd", "fork", "say", "wait"});
  const pid_t child = actor.HearPid();
  Drain();
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_EQ(Types(life), (std::vector{kCreate, kExit}));
  EXPECT_EQ(life[0].parentPid, static_cast<std::uint32_t>(actor.Pid()));
  EXPECT_EQ(life[0].imagePath, Widen(program.Path()));
  EXPECT_EQ(life[0].commandLine, u"odd fork say wait");
  EXPECT_EQ(life[0].state, kCreated);
}

// What a reader of lines can't read: the line ends in the middle of the name. The process is told with what
// the event knows of it, as one that was gone.
TEST_F(ModuleEvents, AProcessWithALineEndInItsNameIsToldWithoutWhatCantBeRead) {
  const NamedProgram program("line\nend");
  Actor actor({"wait", "exec", program.Path(), "odd", "say", "wait"});
  const std::uint64_t before = WaitForImage(actor.Pid(), Actor::Path());
  actor.GoOn();
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  Drain();
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(actor.Pid());
  ASSERT_EQ(Types(life), (std::vector{kCreate, kExit, kCreate, kExit, kCreate, kExit}));
  EXPECT_EQ(life[3].uniquePid, before);
  EXPECT_EQ(life[4].fromExec, 1U);
  EXPECT_EQ(life[4].state, kTerminated);
  EXPECT_EQ(life[4].imagePath, u"");
  EXPECT_EQ(life[5].uniquePid, life[4].uniquePid);
}

// Arguments are just bytes to the kernel; some that aren't UTF-8 make the process one that can't be read.
TEST_F(ModuleEvents, AProcessWithACommandLineThatIsntUtf8IsToldWithoutWhatCantBeRead) {
  Actor actor({"say", "wait", "name", "\xff\xc3"});
  actor.HearPid();
  Drain();
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(actor.Pid());
  ASSERT_EQ(Types(life), kForkAndExec);
  EXPECT_EQ(life[2].state, kTerminated);
  EXPECT_EQ(life[2].commandLine, std::nullopt);
  EXPECT_EQ(life[2].imagePath, u"");
  EXPECT_EQ(life[3].uniquePid, life[2].uniquePid);
  EXPECT_TRUE(m_host.host.tracer->Has("Cannot get process cmdline from procfs for pid: " +
                                      std::to_string(actor.Pid())));
}

TEST_F(ModuleEvents, AnImageWhoseFileWasRemovedIsToldByItsFormerName) {
  const NamedProgram program("removed");
  Actor actor({"open", program.Path(), "unlink", program.Path(), "exec-opened", "removed", "wait"});
  WaitForImage(actor.Pid(), program.Path());
  ProcessInformation info;
  ASSERT_TRUE(m_host.cache->Get(actor.Pid(), info));
  EXPECT_EQ(info.flags, static_cast<std::uint32_t>(qor::kNoBackingImage));
}

TEST_F(ModuleEvents, AFileWhoseNameEndsLikeThatOfARemovedOneKeepsIt) {
  const NamedProgram program("kept (deleted)");
  Actor actor({"exec", program.Path(), "kept", "wait"});
  WaitForImage(actor.Pid(), program.Path());
  ProcessInformation info;
  ASSERT_TRUE(m_host.cache->Get(actor.Pid(), info));
  EXPECT_EQ(info.flags, 0U);
}

TEST_F(ModuleEvents, ACommandLineOf128KiBArrivesWhole) {
  // The longest that the kernel takes as one string, with its end. What stands behind an exec isn't run.
  const std::string argument(128 * 1024 - 1, 'x');
  Actor actor({"exec", Actor::Path(), "long", "wait", argument});
  const pid_t pid = actor.Pid();
  const std::u16string expected = u"long wait " + std::u16string(argument.begin(), argument.end());
  EXPECT_TRUE(m_handler->WaitFor(
      [&](const SeenEvent& event) { return IsExecOf(pid, event) && event.commandLine == expected; }));
}

TEST_F(ModuleEvents, ACommandLineLongerThanAnyBufferArrivesWhole) {
  const std::string argument(128 * 1024 - 1, 'y');
  Actor actor(
      {"exec", Actor::Path(), "long", "wait", argument, argument, argument, argument, argument, argument});
  std::u16string expected = u"long wait";
  for (int i = 0; i < 6; ++i) expected += u' ' + Widen(argument);
  EXPECT_NE(WaitForCommand(actor.Pid(), expected), 0U);
}

// The kernel starts a thread of its own for each processor of such a map. Its parent is the kernel's own,
// which the cache has never seen.
TEST_F(ModuleEvents, AThreadOfTheKernelIsToldByItsName) {
  Actor actor({"kernel-thread", "wait"});
  const pid_t thread = actor.TryHearPid();
  if (thread == 0) GTEST_SKIP() << "this kernel has no BPF_MAP_TYPE_CPUMAP";
  const auto created = m_handler->WaitFor(
      [&](const SeenEvent& event) { return event.pid == static_cast<std::uint32_t>(thread); });
  ASSERT_TRUE(created);
  EXPECT_EQ(created->type, kCreate);
  EXPECT_EQ(created->fromExec, 0U);
  EXPECT_EQ(created->parentPid, 2U);
  // It begins as a copy of its parent and gets its name a moment later.
  EXPECT_TRUE(created->imagePath == u"[kthreadd]" || created->imagePath.starts_with(u"[cpumap/0/map:"));
  EXPECT_EQ(created->commandLine, u"");
  EXPECT_EQ(created->state, kCreated);
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  WaitForEnd(created->uniquePid);
}

// With the parent known, as the host's reads make it, it is marked as what it is.
TEST_F(ModuleEvents, AThreadOfTheKernelIsOfTheSystemLikeItsParent) {
  ProcessInformation kernel;
  kernel.pid = 2;
  kernel.parentPid = 0;
  kernel.imagePath = u"[kthreadd]";
  kernel.flags = qor::kSystemProcess | qor::kNoBackingImage;
  kernel.state = kCreated;
  m_host.cache->Update(kernel);
  Actor actor({"kernel-thread", "wait"});
  const pid_t thread = actor.TryHearPid();
  if (thread == 0) GTEST_SKIP() << "this kernel has no BPF_MAP_TYPE_CPUMAP";
  EXPECT_TRUE(m_handler->WaitFor(
      [&](const SeenEvent& event) { return event.pid == static_cast<std::uint32_t>(thread); }));
  ProcessInformation info;
  ASSERT_TRUE(m_host.cache->Get(thread, info));
  EXPECT_EQ(info.flags, kernel.flags);
  EXPECT_EQ(info.parentUniquePid, kernel.uniquePid);
}

// A program that lies where nobody else sees it.
TEST_F(ModuleEvents, AProcessInAnotherMountNamespaceCarriesItsImage) {
  const auto features = zym::CreateObject<FakeFeatureLookup>();
  features->values[qor::kOpenIOFromForeignMountNamespace] = true;
  m_host.host.locator->Add(features);
  const TempDirectory directory;
  const std::string program = directory.Path() + "/program";
  Actor actor({"mounts", "tmpfs", directory.Path(), "make", program, "bind", Actor::Path(), program, "exec",
               program, "inside", "wait"});
  WaitForImage(actor.Pid(), program);
  struct stat own {};
  struct stat foreign {};
  ASSERT_EQ(::stat("/proc/self/ns/mnt", &own), 0);
  ASSERT_EQ(::stat(("/proc/" + std::to_string(actor.Pid()) + "/ns/mnt").c_str(), &foreign), 0);
  ASSERT_NE(own.st_ino, foreign.st_ino);
  EXPECT_FALSE(std::filesystem::exists(program));
  const auto event = m_handler->WaitFor(
      [&](const SeenEvent& seen) { return IsExecOf(actor.Pid(), seen) && seen.imagePath == Widen(program); });
  ASSERT_TRUE(event);
  EXPECT_EQ(event->mountNamespace, foreign.st_ino);
  EXPECT_EQ(event->image,
            "\x7f"
            "ELF");
}

TEST_F(ModuleEvents, NothingComesAfterTheSourceIsDisabled) {
  ASSERT_EQ(Disable(), zym::ZYM_OK);
  const pid_t child = RunTrue();
  Enable();
  EXPECT_TRUE(LifeOf(child).empty());
}

TEST_F(ModuleEvents, TheSourceRestsWithoutAnActiveFilterAndComesBackWithTheNext) {
  ASSERT_EQ(m_interceptor->DisableFilters(Filters()), zym::ZYM_OK);
  EXPECT_TRUE(PollThreadIsGone());
  const pid_t unseen = RunTrue();
  ASSERT_EQ(m_interceptor->EnableFilters(Filters()), zym::ZYM_OK);
  const pid_t seen = RunTrue();
  EXPECT_EQ(Types(LifeOf(seen)), kForkAndExec);
  EXPECT_TRUE(LifeOf(unseen).empty());
}

TEST_F(ModuleEvents, ASourceThatTheHostDisabledIsNotStartedByAFilter) {
  ASSERT_EQ(Disable(), zym::ZYM_OK);
  ASSERT_EQ(m_interceptor->DisableFilters(Filters()), zym::ZYM_OK);
  ASSERT_EQ(m_interceptor->EnableFilters(Filters()), zym::ZYM_OK);
  EXPECT_TRUE(PollThreadIsGone());
}

TEST_F(ModuleEvents, AFilterGetsTheEventsOfItsTypeAlone) {
  ASSERT_EQ(m_interceptor->DisableFilters({&m_filters[0], &m_filters[0] + 1}), zym::ZYM_OK);
  const pid_t child = RunTrue();
  EXPECT_EQ(Types(LifeOf(child)), (std::vector{kExit, kExit})) << "of the fork's image and of the program's";
}

TEST_F(ModuleEvents, SequenceNumbersAndUniquePidsAreUnique) {
  for (int i = 0; i < 50; ++i) RunTrue();
  LifeOf(::getpid());
  std::set<std::uint64_t> sequences;
  std::set<std::uint64_t> created;
  for (const SeenEvent& event : m_handler->Events()) {
    EXPECT_TRUE(sequences.insert(event.sequence).second) << event.sequence;
    if (event.type == event_type::kCreateProcess) {
      EXPECT_TRUE(created.insert(event.uniquePid).second);
    }
  }
}

}  // namespace
