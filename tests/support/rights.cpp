#include "support/rights.h"

#include <fcntl.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <thread>

#include "qor_common/unique_fd.h"
#include "support/child_process.h"
#include "support/files.h"

namespace test_support {
namespace {

// CapEff in proc(5).
std::uint64_t EffectiveCapabilities() {
  std::istringstream status(ReadTextFile("/proc/thread-self/status"));
  std::uint64_t capabilities = 0;
  for (std::string word; status >> word;)
    if (word == "CapEff:") status >> std::hex >> capabilities;
  return capabilities;
}

}  // namespace

std::string MissingRight(int capability, const std::string& purpose) {
  if ((EffectiveCapabilities() >> capability & 1) != 0) return {};
  return "lacks capability " + std::to_string(capability) + " of capabilities(7) " + purpose +
         ": run as root";
}

std::string MissingProcConnector() {
  const qor::UniqueFd socket(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = CN_IDX_PROC;
  if (socket && ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
    return {};
  return std::string("the proc connector needs CAP_NET_ADMIN: run as root (") + std::strerror(errno) + ")";
}

std::string MissingMountRights() {
  std::string missing;
  std::thread([&missing] { missing = EnterPrivateMounts(); }).join();
  return missing.empty() ? missing : "needs the right to make a mount namespace (CAP_SYS_ADMIN): " + missing;
}

std::string MissingNamespaceRoot() {
  std::string missing;
  std::thread([&missing] {
    struct stat here {};
    struct stat root {};
    const qor::UniqueFd own(::open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC));
    if (::stat("/", &here) != 0 || ::unshare(CLONE_FS) != 0 || ::setns(own.Get(), CLONE_NEWNS) != 0 ||
        ::stat("/", &root) != 0)
      missing =
          std::string("needs the right to join a mount namespace (CAP_SYS_ADMIN): ") + std::strerror(errno);
    else if (here.st_dev != root.st_dev || here.st_ino != root.st_ino)
      missing = "needs the root of the mount namespace: run outside of a chroot";
  }).join();
  return missing;
}

}  // namespace test_support
