// The floor of what a watcher of process events must do: receives the kernel's proc connector, and with
// "read" reads exe and cmdline of each process that executes. Prints what it saw when it gets SIGINT or
// SIGTERM.
//
//   connector_floor [read]
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
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

static void read_process(int pid, long* paths, long* command_lines) {
  static char text[8192];
  char name[64];
  snprintf(name, sizeof name, "/proc/%d/exe", pid);
  *paths += readlink(name, text, sizeof text) > 0;
  snprintf(name, sizeof name, "/proc/%d/cmdline", pid);
  const int fd = open(name, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  *command_lines += read(fd, text, sizeof text) > 0;
  close(fd);
}

int main(int argc, char** argv) {
  const int reads = argc > 1 && strcmp(argv[1], "read") == 0;
  struct sigaction action = {.sa_handler = stop};
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);
  const int fd = subscribe();
  if (fd < 0) {
    perror("proc connector (needs CAP_NET_ADMIN)");
    return 1;
  }

  long executions = 0, paths = 0, command_lines = 0, overruns = 0;
  static char buffer[8192] __attribute__((aligned(8)));
  while (!stopped) {
    const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
    if (size < 0 && errno == ENOBUFS) ++overruns;
    if (size < 0 && errno != ENOBUFS && errno != EINTR) break;
    if (size < (ssize_t)(sizeof(struct nlmsghdr) + sizeof(struct cn_msg) + sizeof(struct proc_event)))
      continue;
    const struct cn_msg* message = NLMSG_DATA((struct nlmsghdr*)buffer);
    const struct proc_event* event = (const struct proc_event*)message->data;
    if (event->what != PROC_EVENT_EXEC) continue;
    ++executions;
    if (reads) read_process(event->event_data.exec.process_tgid, &paths, &command_lines);
  }
  printf("executions=%ld paths=%ld command_lines=%ld overruns=%ld\n", executions, paths, command_lines,
         overruns);
  return 0;
}
