// The floor of what a watcher of process events must do: receives the kernel's proc connector, and looks at
// nothing but the kind of an event and its pid. With "read" it reads exe and cmdline of each process that
// executes; with "record" it makes, at each fork and each exec, the system calls that fill a whole record of
// a process: its directory, stat, cwd, the mount namespace, exe and cmdline. Prints what it saw, and the
// processor time that it took, when it gets SIGINT or SIGTERM.
//
//   connector_floor [read | record]
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

static volatile sig_atomic_t stopped;
static void stop(int signal) {
  (void)signal;
  stopped = 1;
}

struct __attribute__((packed, aligned(4))) subscription {
  struct nlmsghdr header;
  struct cn_msg message;
  enum proc_cn_mcast_op operation;
};

static int subscribe(void) {
  const int buffer_size = 8 << 20;
  struct sockaddr_nl address = {.nl_family = AF_NETLINK, .nl_groups = CN_IDX_PROC};
  struct subscription request = {
      .header = {.nlmsg_len = sizeof request, .nlmsg_type = NLMSG_DONE},
      .message = {.id = {.idx = CN_IDX_PROC, .val = CN_VAL_PROC}, .len = sizeof(enum proc_cn_mcast_op)},
      .operation = PROC_CN_MCAST_LISTEN,
  };
  const int fd = socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
  if (fd < 0 || bind(fd, (struct sockaddr*)&address, sizeof address) != 0) return -1;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer_size, sizeof buffer_size);
  return send(fd, &request, sizeof request, 0) == sizeof request ? fd : -1;
}

static char text[8192];
static long paths, command_lines;

static const char* path_of(int pid, const char* name) {
  static char path[64];
  snprintf(path, sizeof path, "/proc/%d%s", pid, name);
  return path;
}

static ssize_t read_file(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  const ssize_t size = read(fd, text, sizeof text);
  close(fd);
  return size;
}

static int read_image(int pid, int count) {
  if (readlink(path_of(pid, "/exe"), text, sizeof text) <= 0) return 0;
  paths += count;
  if (read_file(path_of(pid, "/cmdline")) > 0) command_lines += count;
  return 1;
}

static void read_record(int pid, int count) {
  struct stat status;
  if (stat(path_of(pid, ""), &status) != 0) return;
  if (read_file(path_of(pid, "/stat")) <= 0) return;
  if (readlink(path_of(pid, "/cwd"), text, sizeof text) <= 0) return;
  if (stat(path_of(pid, "/ns/mnt"), &status) != 0) return;
  read_image(pid, count);
}

static double processor_time(void) {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (double)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         (double)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

int main(int argc, char** argv) {
  const int reads = argc > 1 && strcmp(argv[1], "read") == 0;
  const int records = argc > 1 && strcmp(argv[1], "record") == 0;
  struct sigaction action = {.sa_handler = stop};
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);
  const int fd = subscribe();
  if (fd < 0) {
    perror("proc connector (needs CAP_NET_ADMIN)");
    return 1;
  }

  long executions = 0, overruns = 0;
  static char buffer[8192] __attribute__((aligned(8)));
  while (!stopped) {
    const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
    if (size < 0 && errno == ENOBUFS) ++overruns;
    if (size < 0 && errno != ENOBUFS && errno != EINTR) break;
    if (size < (ssize_t)(sizeof(struct nlmsghdr) + sizeof(struct cn_msg) + sizeof(struct proc_event)))
      continue;
    const struct cn_msg* message = NLMSG_DATA((struct nlmsghdr*)buffer);
    const struct proc_event* event = (const struct proc_event*)message->data;
    const int is_exec = event->what == PROC_EVENT_EXEC;
    executions += is_exec;
    if (reads && is_exec) read_image(event->event_data.exec.process_tgid, 1);
    if (records && is_exec) read_record(event->event_data.exec.process_tgid, 1);
    if (records && event->what == PROC_EVENT_FORK &&
        event->event_data.fork.child_pid == event->event_data.fork.child_tgid)
      read_record(event->event_data.fork.child_tgid, 0);
  }
  printf("executions=%ld paths=%ld command_lines=%ld overruns=%ld processor_s=%.3f\n", executions, paths,
         command_lines, overruns, processor_time());
  return 0;
}
