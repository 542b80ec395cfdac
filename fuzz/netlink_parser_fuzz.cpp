// Datagrams of any length and content.
#include <cstdint>
#include <cstring>
#include <vector>

#include "process_manager/non_blocking/netlink_parser.h"

using namespace qor::process_manager::non_blocking;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const NetlinkParser parser(nullptr);
  // A buffer of the datagram's own size: a read beyond it is found. Aligned as the poll thread's buffer is.
  std::vector<std::uint32_t> buffer((size + sizeof(std::uint32_t) - 1) / sizeof(std::uint32_t));
  if (size != 0) std::memcpy(buffer.data(), data, size);
  EventRecord record;
  const zym::result_t result = parser.Parse(reinterpret_cast<const Message*>(buffer.data()), size, &record);
  // What is rejected leaves a record of no event.
  if (result != zym::ZYM_OK && record.type != EventRecord::kNone) __builtin_trap();
  if (result == zym::ZYM_OK && size < sizeof(Message)) __builtin_trap();
  return 0;
}
