// A process that does on demand what tests look at: `actor STEP...` runs its arguments as steps, one behind
// the other. It is a program of its own, and not instrumented, because a child that was forked from a test
// with threads may do no more than the async-signal-safe calls: whoever held a lock of the C library or of a
// sanitizer at that moment doesn't exist in the child. A step that fails ends the program with status 1 and a
// sentence on standard error; behind the last step it ends with 0.
#include <dirent.h>
#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/sched.h>
#include <pthread.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/unshare_mounts.h"

namespace {

struct Step {
  const char* name;
  int arguments;
  const char* help;
  void (*run)(char** arguments);
};

char** g_next;    // the step to come; null behind the last
int g_file = -1;  // what "open" opened

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "actor: %s: %s\n", what, std::strerror(errno));
  ::_exit(1);
}
void Check(bool done, const char* what) {
  if (!done) Fail(what);
}

void RunSteps();

void* RunStepsOnThread(void*) {
  RunSteps();
  std::exit(0);
}

pthread_t StartThread(void* (*run)(void*)) {
  pthread_t thread{};
  errno = ::pthread_create(&thread, nullptr, run, nullptr);
  Check(errno == 0, "pthread_create");
  return thread;
}

void Say(pid_t pid) {
  Check(std::printf("%d\n", pid) > 0 && std::fflush(stdout) == 0, "write");
}

// The child goes on with the steps; its parent waits for it, and ends as it did.
void Fork(pid_t wanted) {
  clone_args arguments{};
  arguments.exit_signal = SIGCHLD;
  if (wanted != 0) {
    arguments.set_tid = reinterpret_cast<std::uint64_t>(&wanted);
    arguments.set_tid_size = 1;
  }
  const pid_t child =
      wanted == 0 ? ::fork() : static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof(arguments)));
  Check(child >= 0, wanted == 0 ? "fork" : "clone3 with set_tid");
  if (child == 0) return;
  int status = 0;
  Check(::waitpid(child, &status, 0) == child, "waitpid");
  ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

// The child goes on with the steps; its parent lives on and never collects it.
void Abandon() {
  const pid_t child = ::fork();
  Check(child >= 0, "fork");
  if (child == 0) return;
  for (;;) ::pause();
}

// Children that run the steps that follow, and sleep; prints the own pid when all of them do, and ends them
// at the next byte of standard input or at its end.
void Brood(std::uint32_t count) {
  pid_t* const children = static_cast<pid_t*>(std::calloc(count + 1, sizeof(pid_t)));
  Check(children != nullptr, "calloc");
  const pid_t parent = ::getpid();
  int busy[2];
  Check(::pipe2(busy, O_CLOEXEC) == 0, "pipe2");
  for (std::uint32_t i = 0; i < count; ++i) {
    children[i] = ::fork();
    Check(children[i] >= 0, "fork");
    if (children[i] > 0) continue;
    RunSteps();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // behind the steps: a change of the user takes it back
    if (::getppid() != parent) ::_exit(1);
    ::close(busy[1]);
    for (;;) ::pause();
  }
  ::close(busy[1]);
  char byte = 0;
  Check(::read(busy[0], &byte, 1) == 0, "read");
  Say(parent);
  Check(::read(STDIN_FILENO, &byte, 1) >= 0, "read");
  for (std::uint32_t i = 0; i < count; ++i) ::kill(children[i], SIGKILL);
  for (std::uint32_t i = 0; i < count; ++i)
    Check(::waitpid(children[i], nullptr, 0) == children[i], "waitpid");
  ::_exit(0);
}

// In place, so that /proc/<pid>/cmdline shows it.
void Mark(char* argument) {
  const std::size_t length = std::strlen(argument);
  char digits[16];
  std::snprintf(digits, sizeof(digits), "%010d", ::getpid());
  Check(length <= 10, "mark");
  std::memcpy(argument, digits + 10 - length, length);
}

// The process of that name, the kernel's own included; 0: none. A kernel before 5.17 cuts the names.
pid_t FindByName(const char* name) {
  DIR* const processes = ::opendir("/proc");
  Check(processes != nullptr, "opendir(/proc)");
  pid_t found = 0;
  while (const dirent* const entry = ::readdir(processes)) {
    char path[300];
    std::snprintf(path, sizeof(path), "/proc/%s/comm", entry->d_name);
    char comm[64] = {};
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) continue;
    const ssize_t length = ::read(file, comm, sizeof(comm) - 1);
    ::close(file);
    if (length <= 1) continue;
    comm[length - 1] = 0;
    const bool cut = length - 1 == 15 && std::strncmp(comm, name, 15) == 0;
    if (cut || std::strcmp(comm, name) == 0) found = std::atoi(entry->d_name);
  }
  ::closedir(processes);
  return found;
}

// A thread of the kernel that lives as long as this process: one serves each processor of such a map.
void StartKernelThread() {
  bpf_attr create{};
  create.map_type = BPF_MAP_TYPE_CPUMAP;
  create.key_size = sizeof(std::uint32_t);
  create.value_size = sizeof(std::uint32_t);
  create.max_entries = 1;
  const int map = static_cast<int>(::syscall(SYS_bpf, BPF_MAP_CREATE, &create, sizeof(create)));
  Check(map >= 0, "bpf(BPF_MAP_CREATE)");
  std::uint32_t processor = 0;
  std::uint32_t queueLength = 64;
  bpf_attr update{};
  update.map_fd = static_cast<std::uint32_t>(map);
  update.key = reinterpret_cast<std::uint64_t>(&processor);
  update.value = reinterpret_cast<std::uint64_t>(&queueLength);
  Check(::syscall(SYS_bpf, BPF_MAP_UPDATE_ELEM, &update, sizeof(update)) == 0, "bpf(BPF_MAP_UPDATE_ELEM)");
  bpf_map_info info{};
  bpf_attr query{};
  query.info.bpf_fd = static_cast<std::uint32_t>(map);
  query.info.info_len = sizeof(info);
  query.info.info = reinterpret_cast<std::uint64_t>(&info);
  Check(::syscall(SYS_bpf, BPF_OBJ_GET_INFO_BY_FD, &query, sizeof(query)) == 0,
        "bpf(BPF_OBJ_GET_INFO_BY_FD)");
  char name[64];
  std::snprintf(name, sizeof(name), "cpumap/0/map:%u", info.id);
  Say(FindByName(name));
}

// Children that end at once, one after the other; without end for 0.
void Storm(std::uint32_t count) {
  for (std::uint32_t i = 0; count == 0 || i < count; ++i) {
    const pid_t child = ::fork();
    Check(child >= 0, "fork");
    if (child == 0) ::_exit(0);
    Check(::waitpid(child, nullptr, 0) == child, "waitpid");
  }
}

// Other programs that live for a moment, eight at a time, without end.
[[noreturn]] void StormOfPrograms() {
  char program[] = "/bin/sleep";
  char argument[] = "0.2";
  char* arguments[] = {program, argument, nullptr};
  for (;;) {
    pid_t children[8];
    for (pid_t& child : children) {
      errno = ::posix_spawn(&child, program, nullptr, nullptr, arguments, nullptr);
      Check(errno == 0, "posix_spawn");
    }
    for (const pid_t child : children) Check(::waitpid(child, nullptr, 0) == child, "waitpid");
  }
}

std::uint32_t Number(const char* text) {
  return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

const Step kSteps[] = {
    {"say", 0, "print the own pid as a line", [](char**) { Say(::getpid()); }},
    {"wait", 0, "read one byte of standard input",
     [](char**) {
       char byte = 0;
       if (::read(STDIN_FILENO, &byte, 1) != 1) ::_exit(1);  // whom it should wait for is gone
     }},
    {"thread", 0, "start a thread and wait for its end",
     [](char**) { ::pthread_join(StartThread([](void*) -> void* { return nullptr; }), nullptr); }},
    {"threads", 1, "start so many threads that run until the process ends",
     [](char** argument) {
       for (std::uint32_t count = Number(*argument); count > 0; --count)
         StartThread([](void*) -> void* {
           for (;;) ::pause();
         });
     }},
    {"on-thread", 0, "the steps that follow run on a thread, while the first one waits",
     [](char**) { ::pthread_join(StartThread(&RunStepsOnThread), nullptr); }},
    {"leave-thread", 0, "the steps that follow run on a thread, and the first one ends",
     [](char**) {
       StartThread(&RunStepsOnThread);
       ::syscall(SYS_exit, 0);  // this thread alone, without the unwinding of pthread_exit
     }},
    {"fork", 0, "the steps that follow run in a child", [](char**) { Fork(0); }},
    {"fork-as", 1, "the same in a child of that pid",
     [](char** argument) { Fork(static_cast<pid_t>(Number(*argument))); }},
    {"brood", 1,
     "so many children that run the steps that follow and sleep; print the own pid, and end them at one byte",
     [](char** argument) { Brood(Number(*argument)); }},
    {"abandon", 0, "the steps that follow run in a child, whose end nobody collects",
     [](char**) { Abandon(); }},
    {"ignore", 1, "ignore a signal",
     [](char** argument) {
       Check(std::signal(static_cast<int>(Number(*argument)), SIG_IGN) != SIG_ERR, "signal");
     }},
    {"storm", 1, "so many children that end at once, one after the other; without end for 0",
     [](char** argument) { Storm(Number(*argument)); }},
    {"storm-of-programs", 0, "children that become /bin/sleep for 200 ms, eight at a time, without end",
     [](char**) { StormOfPrograms(); }},
    {"kernel-thread", 0, "start a thread of the kernel that lives as long as this process; print its pid",
     [](char**) { StartKernelThread(); }},
    {"user", 1, "all three user ids",
     [](char** argument) {
       const uid_t id = Number(*argument);
       Check(::setresuid(id, id, id) == 0, "setresuid");
     }},
    {"group", 1, "all three group ids",
     [](char** argument) {
       const gid_t id = Number(*argument);
       Check(::setresgid(id, id, id) == 0, "setresgid");
     }},
    {"name", 1, "the name of the thread",
     [](char** argument) { Check(::prctl(PR_SET_NAME, *argument) == 0, "prctl(PR_SET_NAME)"); }},
    {"mounts", 0, "a mount namespace of its own",
     [](char**) {
       const char* const failed = test_support::UnshareMounts();
       Check(failed == nullptr, failed);
     }},
    {"tmpfs", 1, "an empty file system in memory over a directory",
     [](char** argument) { Check(::mount("tmpfs", *argument, "tmpfs", 0, nullptr) == 0, "mount(tmpfs)"); }},
    {"bind", 2, "a file or directory over another",
     [](char** arguments) {
       Check(::mount(arguments[0], arguments[1], nullptr, MS_BIND, nullptr) == 0, "mount(MS_BIND)");
     }},
    {"enter", 1, "another working directory",
     [](char** argument) { Check(::chdir(*argument) == 0, "chdir"); }},
    {"descend", 2, "make a directory of that name and enter it, so many times",
     [](char** arguments) {
       for (std::uint32_t depth = Number(arguments[1]); depth > 0; --depth)
         Check(::mkdir(arguments[0], 0755) == 0 && ::chdir(arguments[0]) == 0, "mkdir and chdir");
     }},
    {"make", 1, "an empty file that can be executed",
     [](char** argument) {
       const int file = ::open(*argument, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0755);
       Check(file >= 0 && ::close(file) == 0, "open(O_CREAT)");
     }},
    {"mark", 1, "write the own pid over the argument", [](char** argument) { Mark(*argument); }},
    {"unlink", 1, "remove a file", [](char** argument) { Check(::unlink(*argument) == 0, "unlink"); }},
    {"open", 1, "open a file for exec-opened",
     [](char** argument) {
       g_file = ::open(*argument, O_RDONLY | O_CLOEXEC);
       Check(g_file >= 0, "open");
     }},
    {"exec-opened", 0, "execute what was opened, with all that follows as its arguments from argv[0] on",
     [](char**) {
       ::fexecve(g_file, g_next, environ);
       Fail("fexecve");
     }},
    {"exec", 1, "execute a path, with all that follows as its arguments from argv[0] on",
     [](char** argument) {
       ::execv(*argument, g_next);
       Fail("execv");
     }},
};

void RunSteps() {
  while (*g_next != nullptr) {
    const Step* step = nullptr;
    for (const Step& known : kSteps)
      if (std::strcmp(known.name, *g_next) == 0) step = &known;
    errno = EINVAL;
    Check(step != nullptr, *g_next);
    char** const arguments = ++g_next;
    for (int i = 0; i < step->arguments; ++i) Check(*g_next++ != nullptr, step->name);
    step->run(arguments);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0) {
    std::puts("usage: actor STEP...");
    for (const Step& step : kSteps)
      std::printf("  %-12s %d argument(s): %s\n", step.name, step.arguments, step.help);
    return argc < 2 ? 2 : 0;
  }
  g_next = argv + 1;
  RunSteps();
}
