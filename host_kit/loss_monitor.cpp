#include "host_kit/loss_monitor.h"

#include <linux/connector.h>
#include <linux/netlink.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "host_kit/failure.h"

namespace host_kit {
namespace {

constexpr const char* kPollThread = "vornPrcMonPoll";
constexpr const char* kSockets = "/proc/net/netlink";

// The inodes of the sockets that this process has open.
std::set<std::uint64_t> OwnSockets() {
  constexpr std::string_view kBegin = "socket:[";
  std::set<std::uint64_t> inodes;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closedMeanwhile;
    const std::string target = std::filesystem::read_symlink(entry.path(), closedMeanwhile);
    if (closedMeanwhile || !target.starts_with(kBegin)) continue;
    std::uint64_t inode = 0;
    std::from_chars(target.data() + kBegin.size(), target.data() + target.size(), inode);
    inodes.insert(inode);
  }
  return inodes;
}

// A line of the table, proc(5): sk, Eth, Pid, Groups, Rmem, Wmem, Dump, Locks, Drops, Inode.
struct Socket {
  int protocol = 0;
  std::uint32_t groups = 0;
  std::uint64_t dropped = 0;
  std::uint64_t inode = 0;
};

bool ParseSocket(const std::string& line, Socket& socket) {
  std::istringstream fields(line);
  std::string skipped;
  fields >> skipped >> socket.protocol >> skipped >> std::hex >> socket.groups >> std::dec;
  for (int i = 0; i < 4; ++i) fields >> skipped;
  return static_cast<bool>(fields >> socket.dropped >> socket.inode);
}

}  // namespace

std::uint64_t LossMonitor::TakeDropped() try {
  const std::set<std::uint64_t> own = OwnSockets();
  std::ifstream table(kSockets);
  std::string line;
  if (!std::getline(table, line)) throw Failure(std::string("cannot read ") + kSockets);
  std::map<std::uint64_t, std::uint64_t> dropped;
  std::uint64_t more = 0;
  while (std::getline(table, line)) {
    Socket socket;
    if (!ParseSocket(line, socket) || socket.protocol != NETLINK_CONNECTOR ||
        (socket.groups & CN_IDX_PROC) == 0 || !own.contains(socket.inode))
      continue;
    const auto before = m_dropped.find(socket.inode);
    more += socket.dropped - (before != m_dropped.end() ? before->second : 0);
    dropped.emplace(socket.inode, socket.dropped);
  }
  m_dropped = std::move(dropped);
  return more;
} catch (const std::filesystem::filesystem_error& error) {
  throw Failure("cannot list the sockets of this process: " + error.code().message());
}

bool LossMonitor::SourceReads() try {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "comm");  // of a thread that has ended meanwhile it is empty
    std::string name;
    if (std::getline(file, name) && name == kPollThread) return true;
  }
  return false;
} catch (const std::filesystem::filesystem_error& error) {
  throw Failure("cannot list the threads of this process: " + error.code().message());
}

}  // namespace host_kit
