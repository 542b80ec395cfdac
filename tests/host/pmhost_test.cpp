// pmhost as a person and a script use it.
#include <grp.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "host/run_pmhost.h"
#include "support/temp_directory.h"

extern char** environ;

namespace {

using host_tests::Pmhost;
using rapidjson::Document;

// Watches, and is known to: a marker's event has come.
class Watching : public Pmhost {
 public:
  explicit Watching(std::vector<std::string> arguments = {"watch", "--json"}) : Pmhost(std::move(arguments)) {
    m_markers = std::thread([this] {
      while (!m_ready) {
        const pid_t marker = ::fork();
        if (marker == 0) ::_exit(0);
        ::waitpid(marker, nullptr, 0);
        ::usleep(20'000);  // a new marker now and then, until one is seen
      }
    });
    ReadUntil([](const Document&) { return true; });
    m_ready = true;
    m_markers.join();
  }

 private:
  std::atomic<bool> m_ready{false};
  std::thread m_markers;
};

template <class F>
pid_t RunChild(F run) {
  const pid_t child = ::fork();
  if (child == 0) {
    run();
    ::_exit(1);
  }
  ::waitpid(child, nullptr, 0);
  return child;
}

bool IsExecOf(const Document& event, pid_t pid) {
  return event["pid"].GetInt() == pid && event["from_exec"].GetBool() && event["event"] == "create_process";
}

#define NEEDS_ROOT() \
  if (::geteuid() != 0) GTEST_SKIP() << "the proc connector needs CAP_NET_ADMIN: run as root"

TEST(Pmhost, BadUsageExitsWithTwo) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--no-such-option"},
                                                    {"no-such-command"},
                                                    {"watch", "--for", "soon"},
                                                    {"--trace", "1"},
                                                    {"watch", "--count", "0"},
                                                    {"--exclude-process", "bin/sh", "os"},
                                                    {"--exclude-process", "", "os"}}) {
    Pmhost pmhost(arguments);
    EXPECT_EQ(pmhost.Wait(), 2) << arguments.front();
    EXPECT_NE(pmhost.Errors(), "");
  }
}

TEST(Pmhost, APatternOfProcessesThatIsNoneIsSaid) {
  Pmhost pmhost({"--exclude-process", "/usr/[ab", "os"});
  EXPECT_EQ(pmhost.Wait(), 2);
  EXPECT_NE(pmhost.Errors().find("'/usr/[ab' is no pattern: a '[' without its ']'"), std::string::npos);
}

TEST(Pmhost, PatternsOfProcessesMayBeGivenTwiceAndInAFile) {
  Pmhost pmhost({"--exclude-process", "/usr/**", "--exclude-process", "ssh*", "os", "--json"});
  EXPECT_EQ(pmhost.Wait(), 0);
  const test_support::TempDirectory directory;
  const std::string file = directory.Write("pmhost.ini", "exclude-process = [\"/usr/**\", \"ssh*\"]\n");
  Pmhost configured({"--config", file, "os", "--json"});
  EXPECT_EQ(configured.Wait(), 0);
  const std::string wrong = directory.Write("wrong.ini", "exclude-process = [\"/usr/**\", \"ssh[\"]\n");
  Pmhost refused({"--config", wrong, "os"});
  EXPECT_EQ(refused.Wait(), 2);
  EXPECT_NE(refused.Errors().find("'ssh[' is no pattern"), std::string::npos);
}

TEST(Pmhost, HelpAndVersionSucceed) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--help"}, {"--version"}, {"watch", "--help"}, {"os", "--help"}}) {
    Pmhost pmhost(arguments);
    EXPECT_EQ(pmhost.Wait(), 0) << arguments.front();
    EXPECT_NE(pmhost.Output(), "");
  }
}

TEST(Pmhost, AModuleThatIsNotThereIsNamed) {
  Pmhost pmhost({"--module", "/no/such/module.so", "watch"});
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_NE(pmhost.Errors().find("cannot load the module /no/such/module.so"), std::string::npos);
}

TEST(Pmhost, OsIsOneJsonObject) {
  Pmhost pmhost({"os", "--json"});
  Document os;
  ASSERT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  for (const char* name : {"name", "version", "description", "kernel", "workstation"})
    EXPECT_TRUE(os.HasMember(name)) << name;
  EXPECT_EQ(pmhost.Wait(), 0);
}

TEST(Pmhost, OsShowsValuesWithoutTheQuotesOfTheReleaseFile) {
  Pmhost pmhost({"os", "--json"});
  Document os;
  ASSERT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  for (const char* name : {"name", "version", "description"}) {
    ASSERT_TRUE(os[name].IsString() || os[name].IsNull()) << name;
    if (os[name].IsString()) {
      EXPECT_NE(os[name].GetString()[0], '"') << name;
    }
  }
}

TEST(Pmhost, OutputThatCannotBeWrittenIsAFailure) {
  Pmhost pmhost({"os"}, [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); });
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_EQ(pmhost.Errors(), "pmhost: cannot write the output: No space left on device\n");
}

TEST(Pmhost, AFileThatIsNoModuleIsNamed) {
  // Any library that is there: the C library of this process.
  Pmhost pmhost({"--module", "libc.so.6", "watch"}, [] {
    if (::chdir("/lib/x86_64-linux-gnu") != 0) ::_exit(126);
  });
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_NE(pmhost.Errors().find("/lib/x86_64-linux-gnu/libc.so.6 is no process manager module"),
            std::string::npos)
      << "a name without a slash is of the current directory";
}

TEST(Pmhost, OptionsComeFromAConfigurationFileToo) {
  const std::string path = testing::TempDir() + "pmhost_test.ini";
  std::ofstream(path) << "json=true\n";
  Pmhost pmhost({"--config", path, "os"});
  Document os;
  EXPECT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  EXPECT_EQ(pmhost.Wait(), 0);
  Pmhost missing({"--config", "/no/such/file.ini", "os"});
  EXPECT_EQ(missing.Wait(), 2);
  ::unlink(path.c_str());
}

TEST(Pmhost, FeaturesTellTheProcConnector) {
  NEEDS_ROOT();
  Pmhost pmhost({"features", "--json"});
  Document feature;
  ASSERT_FALSE(feature.Parse(pmhost.ReadLine().c_str()).HasParseError());
  EXPECT_STREQ(feature["feature"].GetString(), "ProcessMonitoring");
  EXPECT_STREQ(feature["technologies"][0].GetString(), "Netlink");
  EXPECT_EQ(pmhost.Wait(), 0);
}

TEST(Pmhost, AMissingRightIsNamed) {
  NEEDS_ROOT();
  Pmhost pmhost({"watch"}, [] {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
        ::setresuid(65534, 65534, 65534) != 0)
      ::_exit(126);
  });
  const int status = pmhost.Wait();
  if (status == 127) GTEST_SKIP() << "the build tree can't be entered by another user";
  EXPECT_EQ(status, 1);
  EXPECT_NE(pmhost.Errors().find("needs CAP_NET_ADMIN: run as root"), std::string::npos);
}

TEST(Pmhost, WatchTellsARealProcess) {
  NEEDS_ROOT();
  Watching pmhost;
  const pid_t child = RunChild([] { ::execl("/bin/sleep", "sleep", "0.2", nullptr); });
  EXPECT_TRUE(pmhost.ReadUntil([&](const Document& event) {
    if (!IsExecOf(event, child)) return false;
    EXPECT_STREQ(event["image_path"].GetString(), "/usr/bin/sleep");
    EXPECT_STREQ(event["command_line"].GetString(), "sleep 0.2");
    EXPECT_EQ(event["parent_pid"].GetInt(), ::getpid());
    EXPECT_EQ(event["creator_pid"].GetInt(), child);
    EXPECT_EQ(event["user_id"].GetInt(), 0);
    EXPECT_TRUE(event["unique_pid"].IsString());
    EXPECT_TRUE(event["exit_time"].IsNull());
    EXPECT_STREQ(event["state"].GetString(), "created");
    EXPECT_EQ(event.MemberCount(), 20U);
    return true;
  }));
  EXPECT_TRUE(pmhost.ReadUntil([&](const Document& event) {
    return event["pid"].GetInt() == child && event["event"] == "exit_process";
  }));
  pmhost.Kill(SIGTERM);
  EXPECT_EQ(pmhost.Wait(), 0);
  EXPECT_EQ(pmhost.Errors(), "");
}

TEST(Pmhost, WatchTellsADeletedImage) {
  NEEDS_ROOT();
  Watching pmhost;
  char path[] = "/tmp/pmhost_test_XXXXXX";
  const int file = ::mkstemp(path);
  ASSERT_EQ(std::system((std::string("cp /bin/sleep ") + path + " && chmod 755 " + path).c_str()), 0);
  ::close(file);
  const std::string name = path;
  // It removes its own file before it runs it by descriptor: the path has no file when it is read.
  const pid_t child = RunChild([&] {
    const int image = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    ::unlink(name.c_str());
    const char* const arguments[] = {"sleep", "0.2", nullptr};
    ::fexecve(image, const_cast<char* const*>(arguments), environ);
  });
  EXPECT_TRUE(pmhost.ReadUntil([&](const Document& event) {
    if (!IsExecOf(event, child)) return false;
    EXPECT_EQ(event["image_path"].GetString(), name) << "without the kernel's suffix";
    EXPECT_STREQ(event["flags"][0].GetString(), "no_backing_image");
    return true;
  }));
}

// A program under a name of the test's choice, which waits until its input ends.
class NamedProgram {
 public:
  explicit NamedProgram(const std::string& name) {
    char directory[] = "/tmp/pmhost_test_XXXXXX";
    if (::mkdtemp(directory) == nullptr) throw std::runtime_error("mkdtemp");
    m_directory = directory;
    m_path = m_directory / name;
    std::filesystem::copy_file("/bin/cat", m_path);
  }
  ~NamedProgram() { std::filesystem::remove_all(m_directory); }
  NamedProgram(const NamedProgram&) = delete;
  NamedProgram& operator=(const NamedProgram&) = delete;

  [[nodiscard]] std::string Path() const { return m_path.string(); }
  // Lives until `seen` says so of its pid: it can't be gone before it is read.
  pid_t RunUntil(const std::function<void(pid_t)>& seen) const {
    int input[2];
    if (::pipe2(input, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    const pid_t child = ::fork();
    if (child == 0) {
      ::dup2(input[0], STDIN_FILENO);
      ::execl(m_path.c_str(), m_path.filename().c_str(), "-", nullptr);
      ::_exit(1);
    }
    ::close(input[0]);
    seen(child);
    ::close(input[1]);
    ::waitpid(child, nullptr, 0);
    return child;
  }

 private:
  std::filesystem::path m_directory;
  std::filesystem::path m_path;
};

TEST(Pmhost, NamesWithBlanksQuotesAndOtherAlphabetsAreToldWhole) {
  NEEDS_ROOT();
  Watching pmhost;
  for (const std::string name :
       {"two words (and) \"quotes\"", "back\\slash\ttab", "\u00fc\u20ac\U0001f600"}) {
    const NamedProgram program(name);
    program.RunUntil([&](pid_t child) {
      EXPECT_TRUE(pmhost.ReadUntil([&](const Document& event) {
        if (!IsExecOf(event, child)) return false;
        EXPECT_EQ(event["image_path"].GetString(), program.Path());
        EXPECT_EQ(event["command_line"].GetString(), name + " -");
        return true;
      }));
    });
  }
}

// The module can't read such a process: its events come all the same, and as lines of JSON.
TEST(Pmhost, ANameWithALineEndOrOtherBytesThanTextKeepsOneObjectALine) {
  NEEDS_ROOT();
  Watching pmhost;
  for (const std::string name : {"line\nend", "bytes\xff\xc3"}) {
    const NamedProgram program(name);
    program.RunUntil([&](pid_t child) {
      EXPECT_TRUE(pmhost.ReadUntil([&](const Document& event) {
        if (!IsExecOf(event, child)) return false;
        EXPECT_EQ(event.MemberCount(), 20U);
        EXPECT_EQ(event["creator_pid"].GetInt(), child);
        return true;
      })) << name;
    });
  }
}

TEST(Pmhost, ColumnsShowControlCharactersEscaped) {
  NEEDS_ROOT();
  const NamedProgram program("a\x1b[2Jb");
  Pmhost pmhost({"watch", "--for", "60"});
  EXPECT_EQ(pmhost.ReadLine().substr(0, 4), "TIME");
  // Started again and again until the watch, which says nothing of its beginning, has seen one.
  std::atomic<bool> seen{false};
  std::thread children([&] {
    while (!seen) program.RunUntil([](pid_t) { ::usleep(20'000); });
  });
  std::string line;
  do {
    line = pmhost.ReadLine();
  } while (!line.empty() && line.find("a\\x1b[2Jb") == std::string::npos);
  seen = true;
  children.join();
  EXPECT_NE(line, "");
  EXPECT_EQ(line.find('\x1b'), std::string::npos);
}

TEST(Pmhost, CountAndTimeEndAWatchCleanly) {
  NEEDS_ROOT();
  Pmhost timed({"watch", "--json", "--for", "0.3"});
  EXPECT_EQ(timed.Wait(), 0);
  Watching counted({"watch", "--json", "--count", "2"});
  RunChild([] { ::_exit(0); });
  RunChild([] { ::_exit(0); });
  EXPECT_EQ(counted.Wait(), 0);
}

TEST(Pmhost, AReaderThatGoesAwayEndsAWatchCleanly) {
  NEEDS_ROOT();
  Watching pmhost;
  pmhost.CloseOutput();
  // Events to be written into the pipe that nobody reads, until pmhost has noticed.
  std::atomic<bool> ended{false};
  std::thread children([&] {
    while (!ended) RunChild([] { ::_exit(0); });
  });
  EXPECT_EQ(pmhost.Wait(), 0);
  ended = true;
  children.join();
}

// Two workers spawn short processes as fast as they can. A sanitized pmhost is several times slower than they
// are: there the storm is no larger than what the socket's buffer holds.
TEST(Pmhost, AStormOf20000ProcessesLosesNoExecAndKeepsTheOrder) {
  NEEDS_ROOT();
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
      char name[] = "/bin/true";
      char* const arguments[] = {name, nullptr};
      for (int i = 0; i < kProcesses / kWorkers; ++i) {
        pid_t child = 0;
        ASSERT_EQ(::posix_spawn(&child, name, nullptr, nullptr, arguments, environ), 0);
        ::waitpid(child, nullptr, 0);
        pids.insert(child);
      }
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
  std::size_t ends = 0;
  std::thread reader([&] {
    pmhost.ReadUntil([&](const Document& event) {
      if (!sequences.insert(event["sequence"].GetString()).second) ++repeated;
      std::vector<Life>& ofPid = lives[event["pid"].GetInt()];
      const bool create = event["event"] == "create_process";
      const bool exec = create && event["from_exec"].GetBool();
      if (create && !exec) ofPid.emplace_back();
      if (ofPid.empty()) ofPid.emplace_back();
      ofPid.back().events.emplace_back(exec ? "exec" : create ? "fork" : "exit");
      if (exec && event["parent_pid"].GetInt() == ::getpid() && event["image_path"].IsString() &&
          std::string(event["image_path"].GetString()) != "/usr/bin/true")
        ++wrongPaths;
      if (ofPid.back().events.size() == 4) ++ends;
      return false;
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
