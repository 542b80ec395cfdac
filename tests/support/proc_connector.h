// Datagrams as the kernel's proc connector sends them.
#pragma once

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace test_support {

// 76 bytes: the kernel's structures, one behind the other. Aligned as a receive buffer is.
struct alignas(8) ProcConnectorDatagram {
  std::array<unsigned char, 76> bytes{};

  [[nodiscard]] const void* data() const { return bytes.data(); }
  [[nodiscard]] std::uint64_t size() const { return bytes.size(); }

  template <class T>
  void Put(std::size_t offset, T value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
  }
};

// `data` is the event's payload, four words from offset 52 on.
inline ProcConnectorDatagram MakeDatagram(std::uint32_t what, std::array<std::uint32_t, 4> data,
                                          std::uint64_t timestamp = 0) {
  ProcConnectorDatagram datagram;
  datagram.Put<std::uint32_t>(0, 76);
  datagram.Put<std::uint16_t>(4, NLMSG_DONE);
  datagram.Put<std::uint32_t>(16, CN_IDX_PROC);
  datagram.Put<std::uint32_t>(20, CN_VAL_PROC);
  datagram.Put<std::uint16_t>(32, 40);
  datagram.Put(36, what);
  datagram.Put(44, timestamp);
  datagram.Put(52, data);
  return datagram;
}

inline ProcConnectorDatagram ForkDatagram(std::uint32_t parent, std::uint32_t child,
                                          std::uint64_t timestamp = 0) {
  return MakeDatagram(0x1, {parent, parent, child, child}, timestamp);
}
inline ProcConnectorDatagram ExecDatagram(std::uint32_t pid, std::uint64_t timestamp = 0) {
  return MakeDatagram(0x2, {pid, pid, 0, 0}, timestamp);
}
inline ProcConnectorDatagram ExitDatagram(std::uint32_t pid, std::uint64_t timestamp = 0) {
  return MakeDatagram(0x80000000, {pid, pid, 0, 17}, timestamp);
}

}  // namespace test_support
