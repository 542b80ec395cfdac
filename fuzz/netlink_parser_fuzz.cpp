// Datagrams of any length and content.
#include <cstdint>
#include <cstring>
#include <memory>

#include "process_manager/non_blocking/netlink_parser.h"

using namespace qor::process_manager::non_blocking;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const NetlinkParser parser(nullptr);
  // A buffer of the datagram's own size: a read beyond it is found. The heap aligns it as the poll thread's
  // is.
  const auto buffer = std::make_unique<std::uint8_t[]>(size);
  if (size != 0) std::memcpy(buffer.get(), data, size);
  EventRecord record;
  const zym::result_t result = parser.Parse(reinterpret_cast<const Message*>(buffer.get()), size, &record);
  // What is rejected leaves a record of no event.
  if (result != zym::ZYM_OK && record.type != EventRecord::kNone) __builtin_trap();
  if (result == zym::ZYM_OK && size < sizeof(Message)) __builtin_trap();
  return 0;
}
