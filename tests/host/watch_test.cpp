// What `pmhost watch` tells of real processes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "host/watching.h"
#include "support/actor.h"
#include "support/temp_directory.h"

namespace {

using host_tests::Pmhost;
using host_tests::TextOf;
using host_tests::Watching;
using rapidjson::Document;
using test_support::Actor;
using test_support::RunTrue;
using test_support::TempDirectory;

// The actor under a name of the test's choice.
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

TEST(PmhostWatch, TellsARealProcess) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  Actor actor({"wait"});
  const Document begun = pmhost.ReadExecOf(actor.Pid(), "actor wait");
  EXPECT_EQ(begun["image_path"].GetString(), Actor::Path());
  EXPECT_EQ(begun["parent_pid"].GetInt(), ::getpid());
  EXPECT_EQ(begun["creator_pid"].GetInt(), actor.Pid());
  EXPECT_EQ(begun["user_id"].GetInt(), 0);
  EXPECT_TRUE(begun["unique_pid"].IsString());
  EXPECT_TRUE(begun["exit_time"].IsNull());
  EXPECT_STREQ(begun["state"].GetString(), "created");
  EXPECT_EQ(begun.MemberCount(), 20U);
  actor.GoOn();
  const Document ended = pmhost.ReadEventOf(actor.Pid(), "exit_process");
  EXPECT_EQ(TextOf(ended, "unique_pid"), TextOf(begun, "unique_pid"));
  EXPECT_TRUE(ended["exit_time"].IsString());
  EXPECT_STREQ(ended["state"].GetString(), "terminated");
  pmhost.Kill(SIGTERM);
  EXPECT_EQ(pmhost.Wait(), 0);
  EXPECT_EQ(pmhost.Errors(), "");
}

TEST(PmhostWatch, TellsAFork) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  Actor actor({"wait", "fork", "wait"});
  const Document parent = pmhost.ReadExecOf(actor.Pid(), "actor wait fork wait");
  actor.GoOn();
  EXPECT_TRUE(pmhost.ReadUntil([&](const Document& event) {
    if (event["parent_pid"].GetInt() != actor.Pid()) return false;
    EXPECT_STREQ(event["event"].GetString(), "create_process");
    EXPECT_FALSE(event["from_exec"].GetBool());
    EXPECT_EQ(event["creator_pid"].GetInt(), actor.Pid());
    EXPECT_EQ(TextOf(event, "unique_parent_pid"), TextOf(parent, "unique_pid"));
    EXPECT_EQ(TextOf(event, "image_path"), TextOf(parent, "image_path")) << "a child is what its parent is";
    EXPECT_EQ(TextOf(event, "command_line"), TextOf(parent, "command_line"));
    return true;
  }));
}

TEST(PmhostWatch, TellsAnImageUnderTheUserThatItRunsAs) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  Actor actor({"wait", "user", "12345", "exec", "/bin/true", "true"});
  pmhost.ReadExecOf(actor.Pid(), "actor wait user 12345 exec /bin/true true");
  actor.GoOn();
  const Document image = pmhost.ReadEventOf(actor.Pid(), "create_process");
  EXPECT_TRUE(image["from_exec"].GetBool());
  EXPECT_EQ(image["user_id"].GetInt(), 12345);
}

TEST(PmhostWatch, TellsTwoProcessesOfOnePidApart) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  const pid_t pid = RunTrue();
  const std::string number = std::to_string(pid);
  Document images[2];
  for (const std::string name : {"first", "second"}) {
    // The end of a process has been told before its pid is seen again.
    const pid_t marker = RunTrue();
    pmhost.ReadEventOf(marker, "create_process");
    pmhost.ReadEventOf(marker, "exit_process");
    Actor actor({"fork-as", number, "exec", Actor::Path(), name, "wait"});
    Document& image = images[name == "first" ? 0 : 1];
    image = pmhost.ReadExecOf(pid, name + " wait");
    EXPECT_EQ(image["parent_pid"].GetInt(), actor.Pid());
    actor.GoOn();
    EXPECT_EQ(actor.Wait(), 0);
    EXPECT_EQ(TextOf(pmhost.ReadEventOf(pid, "exit_process"), "unique_pid"), TextOf(image, "unique_pid"));
  }
  EXPECT_NE(TextOf(images[0], "unique_pid"), TextOf(images[1], "unique_pid"));
}

TEST(PmhostWatch, TellsAnImageWhoseFileWasRemoved) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  const NamedProgram program("removed");
  Actor actor({"open", program.Path(), "unlink", program.Path(), "exec-opened", "removed", "wait"});
  const Document image = pmhost.ReadExecOf(actor.Pid(), "removed wait");
  EXPECT_EQ(image["image_path"].GetString(), program.Path()) << "without the kernel's suffix";
  ASSERT_EQ(image["flags"].Size(), 1U);
  EXPECT_STREQ(image["flags"][0].GetString(), "no_backing_image");
}

TEST(PmhostWatch, TellsAThreadOfTheKernel) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  Actor actor({"kernel-thread", "wait"});
  const pid_t thread = actor.TryHearPid();
  if (thread == 0) GTEST_SKIP() << "this kernel has no BPF_MAP_TYPE_CPUMAP";
  const Document created = pmhost.ReadEventOf(thread, "create_process");
  EXPECT_EQ(created["parent_pid"].GetInt(), 2);
  EXPECT_EQ(created["image_path"].GetString()[0], '[');
  EXPECT_TRUE(created["command_line"].IsNull()) << "it has none";
  actor.GoOn();
  EXPECT_EQ(TextOf(pmhost.ReadEventOf(thread, "exit_process"), "unique_pid"), TextOf(created, "unique_pid"));
}

TEST(PmhostWatch, TellsNamesWithBlanksQuotesAndOtherAlphabetsWhole) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  for (const std::string name :
       {"two words (and) \"quotes\"", "back\\slash\ttab", "\u00fc\u20ac\U0001f600"}) {
    const NamedProgram program(name);
    Actor actor({"exec", program.Path(), name, "wait"});
    const Document image = pmhost.ReadExecOf(actor.Pid(), name + " wait");
    EXPECT_EQ(image["image_path"].GetString(), program.Path());
  }
}

TEST(PmhostWatch, CutsALongCommandLineAndSaysSo) {
  PMHOST_NEEDS_ROOT();
  const std::string argument(128 * 1024 - 1, 'x');  // the longest that the kernel takes as one string
  const std::string cut = ("long wait " + argument).substr(0, 64 * 1024) + "\u2026 (cut)";
  Watching pmhost;
  Actor inJson({"exec", Actor::Path(), "long", "wait", argument, argument});
  pmhost.ReadExecOf(inJson.Pid(), cut);

  // In columns too, when nobody's screen ends them.
  Watching columns({"watch"});
  Actor actor({"exec", Actor::Path(), "long", "wait", argument, argument});
  std::string line;
  do {
    line = columns.ReadLine();
  } while (!line.empty() && !line.ends_with(Actor::Path() + ": " + cut));
  EXPECT_NE(line, "");
}

// The module can't read such a process: its events come all the same, and as lines of JSON.
TEST(PmhostWatch, KeepsOneObjectALineForALineEndOrOtherBytesThanText) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  for (const std::string name : {"line\nend", "bytes\xff\xc3"}) {
    const NamedProgram program(name);
    Actor actor({"exec", program.Path(), name, "say", "wait"});
    ASSERT_EQ(actor.HearPid(), actor.Pid());
    std::size_t images = 0;
    EXPECT_TRUE(pmhost.ReadUntil([&](const Document& event) {
      if (event["pid"].GetInt() != actor.Pid() || TextOf(event, "event") != "create_process") return false;
      EXPECT_EQ(event.MemberCount(), 20U);
      return ++images == 3;  // the fork, the actor, the actor under this name
    })) << name;
  }
}

TEST(PmhostWatch, ShowsControlCharactersEscapedInColumns) {
  PMHOST_NEEDS_ROOT();
  const NamedProgram program("a\x1b[2Jb");
  Pmhost pmhost({"watch", "--for", "25"});
  EXPECT_EQ(pmhost.ReadLine().substr(0, 4), "TIME");
  std::string line;
  {
    // Started again and again until the watch, which says nothing of its beginning, has seen one.
    const std::jthread children([&](const std::stop_token& seen) {
      while (!seen.stop_requested()) {
        const Actor actor({"exec", program.Path(), "name", "wait"});
        ::usleep(20'000);
      }
    });
    do {
      line = pmhost.ReadLine();
    } while (!line.empty() && line.find("a\\x1b[2Jb") == std::string::npos);
  }
  EXPECT_NE(line, "");
  EXPECT_EQ(line.find('\x1b'), std::string::npos);
}

TEST(PmhostWatch, IsEndedCleanlyByACountAndByATime) {
  PMHOST_NEEDS_ROOT();
  Pmhost timed({"watch", "--json", "--for", "0.3"});
  EXPECT_EQ(timed.Wait(), 0);
  Watching counted({"watch", "--json", "--count", "2"});
  RunTrue();
  EXPECT_EQ(counted.Wait(), 0);
}

TEST(PmhostWatch, IsEndedCleanlyByAReaderThatGoesAway) {
  PMHOST_NEEDS_ROOT();
  Watching pmhost;
  pmhost.CloseOutput();
  // Events to be written into the pipe that nobody reads, until pmhost has noticed.
  const std::jthread children([](const std::stop_token& ended) {
    while (!ended.stop_requested()) RunTrue();
  });
  EXPECT_EQ(pmhost.Wait(), 0);
}

// Stopped, pmhost reads nothing until the kernel has no room for more events.
TEST(PmhostWatch, GoesOnAfterAStormThatTheKernelHadNoRoomFor) {
  PMHOST_NEEDS_ROOT();
  const TempDirectory directory;
  const std::string trace = directory.Path() + "/trace";
  Watching pmhost({"--trace", "300", "--trace-file", trace, "watch", "--json"});
  pmhost.Kill(SIGSTOP);
  Actor storm({"storm", "10000"});
  EXPECT_EQ(storm.Wait(), 0);
  pmhost.Kill(SIGCONT);
  {
    // A process is told again once what the kernel has kept was read.
    std::mutex mutex;
    std::set<pid_t> markers;  // guarded by the mutex
    const std::jthread children([&](const std::stop_token& told) {
      while (!told.stop_requested()) {
        const Actor actor({"wait"});
        {
          const std::scoped_lock lock(mutex);
          markers.insert(actor.Pid());
        }
        ::usleep(20'000);
      }
    });
    EXPECT_TRUE(pmhost.ReadUntil([&](const Document& event) {
      const std::scoped_lock lock(mutex);
      return markers.contains(event["pid"].GetInt()) && TextOf(event, "event") == "create_process";
    }));
  }
  pmhost.Kill(SIGTERM);
  EXPECT_EQ(pmhost.Wait(), 0);
  std::ifstream file(trace);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_NE(text.find("Error on recv() from netlink socket: No buffer space available (105)"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("corrupted"), std::string::npos) << text;
}

// Two workers spawn short processes as fast as they can. A sanitized pmhost is several times slower than they
// are: there the storm is no larger than what the socket's buffer holds.
TEST(PmhostWatch, AStormOf20000ProcessesLosesNoExecAndKeepsTheOrder) {
  PMHOST_NEEDS_ROOT();
  constexpr int kWorkers = 2;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr int kProcesses = 1'000;
#else
  constexpr int kProcesses = 20'000;
#endif
  Watching pmhost;
  std::set<pid_t> spawned[kWorkers];
  std::vector<std::thread> workers;
  // A program of its own spawns, so that its image is known when its children come.
  for (std::set<pid_t>& pids : spawned)
    workers.emplace_back([&pids] {
      for (int i = 0; i < kProcesses / kWorkers; ++i) pids.insert(test_support::RunTrue());
    });

  // The life of a process: fork, the end of the forked image, the new image, its end.
  struct Life {
    std::vector<std::string> events;
    std::string forked;
  };
  std::map<pid_t, std::vector<Life>> lives;
  std::set<std::string> sequences;
  std::size_t repeated = 0;
  std::size_t wrongPaths = 0;
  std::thread reader([&] {
    pmhost.ReadAll([&](const Document& event) {
      if (!sequences.insert(event["sequence"].GetString()).second) ++repeated;
      std::vector<Life>& ofPid = lives[event["pid"].GetInt()];
      const bool create = TextOf(event, "event") == "create_process";
      const bool exec = create && event["from_exec"].GetBool();
      if (create && !exec) ofPid.emplace_back();
      if (ofPid.empty()) ofPid.emplace_back();
      ofPid.back().events.emplace_back(exec ? "exec" : create ? "fork" : "exit");
      if (exec && event["parent_pid"].GetInt() == ::getpid() && event["image_path"].IsString() &&
          std::string(event["image_path"].GetString()) != "/usr/bin/true")
        ++wrongPaths;
    });
  });
  for (std::thread& worker : workers) worker.join();
  pmhost.Kill(SIGTERM);  // what is in flight is delivered
  reader.join();
  EXPECT_EQ(pmhost.Wait(), 0);

  EXPECT_EQ(repeated, 0U) << "sequence numbers are unique";
  EXPECT_EQ(wrongPaths, 0U) << "no image is told under the path of another";
  const std::vector<std::string> expected = {"fork", "exit", "exec", "exit"};
  std::size_t whole = 0;
  for (const std::set<pid_t>& pids : spawned)
    for (const pid_t pid : pids)
      for (const Life& life : lives[pid]) whole += life.events == expected;
  EXPECT_GE(whole, spawned[0].size() + spawned[1].size())
      << "each execution is told, the end of the old image first";
}

}  // namespace
