#include "host/commands/netlink_source.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/failure.h"
#include "zym/service_provider.h"

namespace pmhost {
namespace {

bool HasNetAdmin() {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, data) != 0) return true;  // not known: the kernel will refuse
  return (data[CAP_TO_INDEX(CAP_NET_ADMIN)].effective & CAP_TO_MASK(CAP_NET_ADMIN)) != 0;
}

}  // namespace

void NetlinkSource::RequireRight() {
  if (!HasNetAdmin())
    throw Failure("cannot watch processes: the kernel's proc connector needs CAP_NET_ADMIN: run as root");
}

NetlinkSource::NetlinkSource(
    const zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2>& interceptor,
    std::uint32_t type)
    : m_type(type) {
  RequireRight();
  Require(zym::QueryInterface(interceptor, m_control.Ref()), "the interceptor cannot be controlled");
  Require(m_control->EnableNonBlockingInterceptor(m_type),
          "cannot watch processes: the kernel's proc connector cannot be used (--trace 300 shows why)");
}

NetlinkSource::~NetlinkSource() {
  m_control->DisableNonBlockingInterceptor(m_type);
}

}  // namespace pmhost
