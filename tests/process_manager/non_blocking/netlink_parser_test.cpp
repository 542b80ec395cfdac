#include "process_manager/non_blocking/netlink_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/fake_services.h"
#include "support/proc_connector.h"
#include "zym/module_counter.h"

namespace {

using namespace qor::process_manager::non_blocking;
using test_support::MakeDatagram;
using test_support::ProcConnectorDatagram;

constexpr std::uint32_t kUnset = 0xffffffff;

class NetlinkParserTest : public testing::Test {
 protected:
  zym::result_t Parse(const ProcConnectorDatagram& datagram, std::uint64_t size = 76) {
    m_record = {.type = EventRecord::kExec, .pid = 7, .first = 8, .second = 9, .timestamp = 10};
    return m_parser.Parse(static_cast<const Message*>(datagram.data()), size, &m_record);
  }

  void ExpectRecord(EventRecord::Type type, std::uint32_t pid, std::uint32_t first, std::uint32_t second,
                    std::uint64_t timestamp) const {
    EXPECT_EQ(m_record.type, type);
    EXPECT_EQ(m_record.pid, pid);
    EXPECT_EQ(m_record.first, first);
    EXPECT_EQ(m_record.second, second);
    EXPECT_EQ(m_record.timestamp, timestamp);
  }
  void ExpectClearRecord() const { ExpectRecord(EventRecord::kNone, kUnset, kUnset, 0, 0); }

  // The last record that was traced at the level of calls.
  std::string LastCall() const {
    std::string text;
    for (const auto& record : m_tracer->Records())
      if (record.level == 800) text = record.text;
    return text;
  }

  const zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  const NetlinkParser m_parser{m_tracer};
  EventRecord m_record;
};

TEST_F(NetlinkParserTest, ConstructionTracesItsOwnName) {
  EXPECT_TRUE(m_tracer->Has(800, "NetlinkParser() "));
}

TEST_F(NetlinkParserTest, EachParseTracesTheSize) {
  Parse(MakeDatagram(0x2, {1, 1, 0, 0}), 76);
  EXPECT_TRUE(m_tracer->Has(800, "Parse: 76"));
}

TEST_F(NetlinkParserTest, SixtySevenBytesAreTooFew) {
  EXPECT_EQ(Parse(MakeDatagram(0x2, {100, 100, 0, 0}), 67), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(
      m_tracer->Has(300, "(size >= sizeof(Message)),(bool) failed: result = false Message is too small"));
  ExpectClearRecord();
}

TEST_F(NetlinkParserTest, NoBytesAreTooFew) {
  EXPECT_EQ(Parse({}, 0), zym::ZYM_E_INVALID_ARGUMENT);
  ExpectClearRecord();
}

TEST_F(NetlinkParserTest, SixtyEightBytesAreEnough) {
  EXPECT_EQ(Parse(MakeDatagram(0x2, {100, 100, 0, 0}, 5), 68), zym::ZYM_OK);
  ExpectRecord(EventRecord::kExec, 100, kUnset, 0, 5);
}

TEST_F(NetlinkParserTest, ALongerDatagramIsReadByItsFirstSixtyEightBytes) {
  std::vector<std::uint64_t> longer(512, ~std::uint64_t{0});
  const ProcConnectorDatagram datagram = MakeDatagram(0x2, {100, 100, 0, 0}, 5);
  std::memcpy(longer.data(), datagram.data(), 68);
  EXPECT_EQ(m_parser.Parse(reinterpret_cast<const Message*>(longer.data()), 4096, &m_record), zym::ZYM_OK);
  ExpectRecord(EventRecord::kExec, 100, kUnset, 0, 5);
}

TEST_F(NetlinkParserTest, MultipartMessagesAreRefused) {
  ProcConnectorDatagram datagram = MakeDatagram(0x2, {100, 100, 0, 0});
  datagram.Put<std::uint16_t>(6, NLM_F_MULTI);
  EXPECT_EQ(Parse(datagram), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(m_tracer->Has(
      300,
      "(!(msg->hdr.nlmsg_flags & 2)),(bool) failed: result = false Multipart messages are not supported"));
  ExpectClearRecord();
}

TEST_F(NetlinkParserTest, OtherFlagsDontMatter) {
  ProcConnectorDatagram datagram = MakeDatagram(0x2, {100, 100, 0, 0});
  datagram.Put<std::uint16_t>(6, 0xfffd);
  EXPECT_EQ(Parse(datagram), zym::ZYM_OK);
}

TEST_F(NetlinkParserTest, AnotherMessageTypeIsRefused) {
  for (const std::uint16_t type : {0, 1, 2, 4, 0x103}) {
    ProcConnectorDatagram datagram = MakeDatagram(0x2, {100, 100, 0, 0});
    datagram.Put<std::uint16_t>(4, type);
    EXPECT_EQ(Parse(datagram), zym::ZYM_E_INVALID_ARGUMENT) << type;
    ExpectClearRecord();
  }
  EXPECT_TRUE(m_tracer->Has(
      300, "(msg->hdr.nlmsg_type == 0x3),(bool) failed: result = false Message is not complete"));
}

TEST_F(NetlinkParserTest, TheMultipartFlagIsCheckedBeforeTheType) {
  ProcConnectorDatagram datagram = MakeDatagram(0x2, {100, 100, 0, 0});
  datagram.Put<std::uint16_t>(4, 1);
  datagram.Put<std::uint16_t>(6, 2);
  Parse(datagram);
  EXPECT_TRUE(m_tracer->Has("Multipart messages are not supported"));
  EXPECT_FALSE(m_tracer->Has("Message is not complete"));
}

TEST_F(NetlinkParserTest, FieldsThatAreNotReadMayHoldAnything) {
  ProcConnectorDatagram datagram = MakeDatagram(0x2, {100, 100, 0, 0}, 5);
  for (const std::size_t offset : {0, 8, 12, 16, 20, 24, 28, 32, 40})
    datagram.Put<std::uint32_t>(offset, 0xffffffff);
  EXPECT_EQ(Parse(datagram), zym::ZYM_OK);
  ExpectRecord(EventRecord::kExec, 100, kUnset, 0, 5);
}

TEST_F(NetlinkParserTest, TheAcknowledgementGivesARecordOfNoEvent) {
  EXPECT_EQ(Parse(MakeDatagram(0x0, {0, 0, 0, 0}, 5)), zym::ZYM_OK);
  ExpectClearRecord();
  EXPECT_EQ(LastCall(), "Parse: socket setup done");
}

TEST_F(NetlinkParserTest, AForkTellsTheChildAndItsParentProcess) {
  // The parent's thread 11 of process 10 forked.
  EXPECT_EQ(Parse(MakeDatagram(0x1, {11, 10, 20, 20}, 5'000'000'000)), zym::ZYM_OK);
  ExpectRecord(EventRecord::kFork, 20, 10, 0, 5'000'000'000);
  EXPECT_EQ(LastCall(), "Parse: fork: pid=20, parent=10, ts=5000000000");
}

TEST_F(NetlinkParserTest, AForkWhoseChildIsNotItsOwnLeaderIsAThread) {
  EXPECT_EQ(Parse(MakeDatagram(0x1, {10, 10, 21, 10})), zym::ZYM_FALSE);
  ExpectClearRecord();
  EXPECT_EQ(LastCall(), "Parse: 76");
}

TEST_F(NetlinkParserTest, AnExecTellsTheProcess) {
  EXPECT_EQ(Parse(MakeDatagram(0x2, {10, 10, 3, 4}, 6)), zym::ZYM_OK);
  ExpectRecord(EventRecord::kExec, 10, kUnset, 0, 6);
  EXPECT_EQ(LastCall(), "Parse: exec: pid=10, ts=6");
}

TEST_F(NetlinkParserTest, AnExecByAThreadIsReportedUnderItsProcess) {
  EXPECT_EQ(Parse(MakeDatagram(0x2, {11, 10, 0, 0}, 6)), zym::ZYM_OK);
  ExpectRecord(EventRecord::kExec, 10, kUnset, 0, 6);
}

TEST_F(NetlinkParserTest, AUserChangeTellsBothIds) {
  EXPECT_EQ(Parse(MakeDatagram(0x4, {11, 10, 1000, 0}, 7)), zym::ZYM_OK);
  ExpectRecord(EventRecord::kUid, 10, 1000, 0, 7);
  EXPECT_EQ(LastCall(), "Parse: uid: pid=10, ruid=1000, euid=0, ts=7");
}

TEST_F(NetlinkParserTest, AGroupChangeTellsBothIds) {
  EXPECT_EQ(Parse(MakeDatagram(0x40, {11, 10, 1000, 4294967295}, 8)), zym::ZYM_OK);
  ExpectRecord(EventRecord::kGid, 10, 1000, 4294967295, 8);
  EXPECT_EQ(LastCall(), "Parse: gid: pid=10, rgid=1000, egid=4294967295, ts=8");
}

TEST_F(NetlinkParserTest, ANewSessionIsOfNoInterest) {
  EXPECT_EQ(Parse(MakeDatagram(0x80, {10, 10, 0, 0}, 8)), zym::ZYM_FALSE);
  ExpectClearRecord();
}

// The only event with the top bit: as a signed number it would sort below the fork.
TEST_F(NetlinkParserTest, AnExitIsFoundThoughItsTopBitIsSet) {
  EXPECT_EQ(Parse(MakeDatagram(0x80000000, {10, 10, 256, 17}, 9)), zym::ZYM_OK);
  ExpectRecord(EventRecord::kExit, 10, kUnset, 0, 9);
  EXPECT_EQ(LastCall(), "Parse: exit: pid=10, code=256, signal=17, ts=9");
}

TEST_F(NetlinkParserTest, AnExitOfAThreadIsOfNoInterest) {
  EXPECT_EQ(Parse(MakeDatagram(0x80000000, {11, 10, 0, 17}, 9)), zym::ZYM_FALSE);
  ExpectClearRecord();
}

TEST_F(NetlinkParserTest, UnknownEventsAreRefused) {
  // PROC_EVENT_PTRACE, PROC_EVENT_COMM, PROC_EVENT_NONZERO_EXIT and PROC_EVENT_COREDUMP among them.
  for (const std::uint32_t what :
       {0x3U, 0x5U, 0x6U, 0x41U, 0x81U, 0x100U, 0x200U, 0x20000000U, 0x40000000U, 0x80000001U, 0xffffffffU}) {
    EXPECT_EQ(Parse(MakeDatagram(what, {10, 10, 20, 20}, 9)), zym::ZYM_E_UNSPECIFIED) << what;
    ExpectClearRecord();
  }
}

TEST_F(NetlinkParserTest, ARefusedDatagramHasNoEffectOnTheNextOne) {
  Parse(MakeDatagram(0x200, {10, 10, 20, 20}));
  Parse(MakeDatagram(0x2, {10, 10, 0, 0}), 12);
  EXPECT_EQ(Parse(MakeDatagram(0x1, {10, 10, 20, 20}, 5)), zym::ZYM_OK);
  ExpectRecord(EventRecord::kFork, 20, 10, 0, 5);
}

// --- any datagram ---

template <class T>
T At(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  T value{};
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

struct Expected {
  zym::result_t result;
  EventRecord record;
};

// The rules once more, from the offsets of a datagram.
Expected Read(const std::vector<std::uint8_t>& bytes) {
  const Expected invalid{zym::ZYM_E_INVALID_ARGUMENT, {}};
  const Expected ofNoInterest{zym::ZYM_FALSE, {}};
  if (bytes.size() < 68 || (At<std::uint16_t>(bytes, 6) & 2) != 0 || At<std::uint16_t>(bytes, 4) != 3)
    return invalid;
  const std::uint32_t words[] = {At<std::uint32_t>(bytes, 52), At<std::uint32_t>(bytes, 56),
                                 At<std::uint32_t>(bytes, 60), At<std::uint32_t>(bytes, 64)};
  EventRecord record;
  record.timestamp = At<std::uint64_t>(bytes, 44);
  record.pid = words[1];
  switch (At<std::uint32_t>(bytes, 36)) {
    case 0x0:
      return {zym::ZYM_OK, {}};
    case 0x1:
      record.type = EventRecord::kFork;
      record.pid = words[3];
      record.first = words[1];
      return words[2] == words[3] ? Expected{zym::ZYM_OK, record} : ofNoInterest;
    case 0x2:
      record.type = EventRecord::kExec;
      return {zym::ZYM_OK, record};
    case 0x4:
    case 0x40:
      record.type = At<std::uint32_t>(bytes, 36) == 0x4 ? EventRecord::kUid : EventRecord::kGid;
      record.first = words[2];
      record.second = words[3];
      return {zym::ZYM_OK, record};
    case 0x80:
      return ofNoInterest;
    case 0x80000000:
      record.type = EventRecord::kExit;
      return words[0] == words[1] ? Expected{zym::ZYM_OK, record} : ofNoInterest;
    default:
      return {zym::ZYM_E_UNSPECIFIED, {}};
  }
}

TEST_F(NetlinkParserTest, DatagramsOfEveryLengthAndAnyContentAreReadByTheRules) {
  constexpr std::size_t kLongest = 4096;
  constexpr std::uint32_t kWhats[] = {0x0,  0x1,   0x2,   0x3,        0x4,       0x40,
                                      0x80, 0x100, 0x200, 0x40000000, 0x80000000};
  const NetlinkParser parser(nullptr);
  std::mt19937 random(20240731);
  std::map<zym::result_t, int> seen;
  for (std::size_t length = 0; length <= kLongest; ++length) {
    for (int round = 0; round < 16; ++round) {
      std::vector<std::uint8_t> bytes(length);
      for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
      const auto put = [&](std::size_t offset, auto value) {
        if (offset + sizeof(value) <= length) std::memcpy(bytes.data() + offset, &value, sizeof(value));
      };
      // One round in four is what it is by chance; the others get further.
      if (round % 4 != 0) {
        put(4, std::uint16_t{3});
        put(6, static_cast<std::uint16_t>(random() & ~2U));
        put(36, kWhats[random() % std::size(kWhats)]);
      }
      if (round % 4 == 3) {  // process and thread are one
        put(52, std::uint32_t{7});
        put(56, std::uint32_t{7});
        put(60, std::uint32_t{8});
        put(64, std::uint32_t{8});
      }
      // In memory of its own length, where a look beyond it is found.
      const auto datagram = std::make_unique<std::uint8_t[]>(length);
      std::ranges::copy(bytes, datagram.get());
      const Expected expected = Read(bytes);
      m_record = {.type = EventRecord::kExec, .pid = 7, .first = 8, .second = 9, .timestamp = 10};
      ASSERT_EQ(parser.Parse(reinterpret_cast<const Message*>(datagram.get()), length, &m_record),
                expected.result)
          << length;
      ExpectRecord(expected.record.type, expected.record.pid, expected.record.first, expected.record.second,
                   expected.record.timestamp);
      ASSERT_FALSE(HasFailure()) << "a datagram of " << length << " bytes";
      ++seen[expected.result];
    }
  }
  EXPECT_EQ(seen.size(), 4U) << "each result came";
}

TEST(NetlinkParser, KeepsItsTracerAndNothingElse) {
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  {
    const auto tracer = zym::CreateObject<test_support::RecordingTracer>();
    const NetlinkParser parser(tracer);
    EXPECT_EQ(tracer->AddRef(), 3U);
    EXPECT_EQ(tracer->Release(), 2U);
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
}

TEST(NetlinkParser, WorksWithoutATracer) {
  const NetlinkParser parser(nullptr);
  EventRecord record;
  const ProcConnectorDatagram datagram = test_support::ExitDatagram(10, 9);
  EXPECT_EQ(parser.Parse(static_cast<const Message*>(datagram.data()), datagram.size(), &record),
            zym::ZYM_OK);
  EXPECT_EQ(record.type, EventRecord::kExit);
}

}  // namespace
