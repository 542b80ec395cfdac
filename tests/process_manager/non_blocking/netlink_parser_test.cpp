#include "process_manager/non_blocking/netlink_parser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/fake_services.h"

namespace qor::process_manager::non_blocking {
namespace {

constexpr std::uint32_t kComm = 0x200;

Message MakeMessage(std::uint32_t what, std::uint32_t a = 0, std::uint32_t b = 0, std::uint32_t c = 0,
                    std::uint32_t d = 0) {
  Message message{};
  message.hdr.nlmsg_type = 3;
  message.what = what;
  message.timestamp_ns = 987654321;
  message.data[0] = a;
  message.data[1] = b;
  message.data[2] = c;
  message.data[3] = d;
  return message;
}

class NetlinkParserTest : public testing::Test {
 protected:
  zym::result_t Parse(const Message& message, std::uint64_t size = sizeof(Message)) {
    return m_parser.Parse(&message, size, &m_record);
  }

  zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  NetlinkParser m_parser{m_tracer};
  EventRecord m_record;
};

TEST_F(NetlinkParserTest, RejectsADatagramOf67BytesAndTakesOneOf68) {
  const Message exec = MakeMessage(2, 10, 10);
  EXPECT_EQ(Parse(exec, 67), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(m_tracer->Has(zym::trace::kFailure,
                            "(size >= sizeof(Message)),(bool) failed: result = false Message is too small"));
  EXPECT_EQ(Parse(exec, 68), zym::ZYM_OK);
}

TEST_F(NetlinkParserTest, TakesALongerDatagramByItsFirst68Bytes) {
  EXPECT_EQ(Parse(MakeMessage(2, 10, 10), 4096), zym::ZYM_OK);
  EXPECT_EQ(m_record.pid, 10U);
}

TEST_F(NetlinkParserTest, RejectsAMultipartMessage) {
  Message message = MakeMessage(2, 10, 10);
  message.hdr.nlmsg_flags = 2;
  EXPECT_EQ(Parse(message), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(m_tracer->Has(
      "(!(msg->hdr.nlmsg_flags & 2)),(bool) failed: result = false Multipart messages are not supported"));
}

TEST_F(NetlinkParserTest, RejectsAMessageThatIsNotComplete) {
  Message message = MakeMessage(2, 10, 10);
  message.hdr.nlmsg_type = 2;
  EXPECT_EQ(Parse(message), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(
      m_tracer->Has("(msg->hdr.nlmsg_type == 0x3),(bool) failed: result = false Message is not complete"));
}

TEST_F(NetlinkParserTest, ARejectedMessageClearsTheRecord) {
  ASSERT_EQ(Parse(MakeMessage(2, 10, 10)), zym::ZYM_OK);
  EXPECT_NE(Parse(MakeMessage(2, 10, 10), 10), zym::ZYM_OK);
  EXPECT_EQ(m_record.type, EventRecord::kNone);
  EXPECT_EQ(m_record.pid, EventRecord::kUnset);
  EXPECT_EQ(m_record.first, EventRecord::kUnset);
  EXPECT_EQ(m_record.second, 0U);
}

TEST_F(NetlinkParserTest, TheAcknowledgementIsARecordOfNoEvent) {
  EXPECT_EQ(Parse(MakeMessage(0)), zym::ZYM_OK);
  EXPECT_EQ(m_record.type, EventRecord::kNone);
  EXPECT_TRUE(m_tracer->Has(zym::trace::kCall, "Parse: socket setup done"));
}

TEST_F(NetlinkParserTest, AForkTellsTheChildAndItsParent) {
  EXPECT_EQ(Parse(MakeMessage(1, 7, 6, 20, 20)), zym::ZYM_OK);
  EXPECT_EQ(m_record.type, EventRecord::kFork);
  EXPECT_EQ(m_record.pid, 20U);
  EXPECT_EQ(m_record.first, 6U) << "the parent's tgid";
  EXPECT_EQ(m_record.timestamp, 987654321U);
  EXPECT_TRUE(m_tracer->Has("Parse: fork: pid=20, parent=6, ts=987654321"));
}

TEST_F(NetlinkParserTest, ThreadsAreOfNoInterest) {
  EXPECT_EQ(Parse(MakeMessage(1, 6, 6, 21, 20)), zym::ZYM_FALSE) << "a thread starts";
  EXPECT_EQ(Parse(MakeMessage(0x80000000, 21, 20)), zym::ZYM_FALSE) << "a thread ends";
  EXPECT_EQ(m_record.type, EventRecord::kNone);
}

TEST_F(NetlinkParserTest, AnExecByAThreadIsReportedUnderItsProcess) {
  EXPECT_EQ(Parse(MakeMessage(2, 21, 20)), zym::ZYM_OK);
  EXPECT_EQ(m_record.type, EventRecord::kExec);
  EXPECT_EQ(m_record.pid, 20U);
  EXPECT_TRUE(m_tracer->Has("Parse: exec: pid=20, ts=987654321"));
}

TEST_F(NetlinkParserTest, TheExitEventIsTakenAsUnsigned) {
  EXPECT_EQ(Parse(MakeMessage(0x80000000, 20, 20, 256, 17)), zym::ZYM_OK);
  EXPECT_EQ(m_record.type, EventRecord::kExit);
  EXPECT_TRUE(m_tracer->Has("Parse: exit: pid=20, code=256, signal=17, ts=987654321"));
}

TEST_F(NetlinkParserTest, CredentialChangesOfAnyThreadAreReportedUnderTheProcess) {
  EXPECT_EQ(Parse(MakeMessage(4, 21, 20, 5, 6)), zym::ZYM_OK);
  EXPECT_EQ(m_record.type, EventRecord::kUid);
  EXPECT_EQ(m_record.pid, 20U);
  EXPECT_EQ(m_record.first, 5U);
  EXPECT_EQ(m_record.second, 6U);
  EXPECT_EQ(Parse(MakeMessage(0x40, 21, 20, 7, 8)), zym::ZYM_OK);
  EXPECT_EQ(m_record.type, EventRecord::kGid);
  EXPECT_EQ(m_record.first, 7U);
  EXPECT_TRUE(m_tracer->Has("Parse: uid: pid=20, ruid=5, euid=6, ts=987654321"));
  EXPECT_TRUE(m_tracer->Has("Parse: gid: pid=20, rgid=7, egid=8, ts=987654321"));
}

TEST_F(NetlinkParserTest, ASessionChangeIsOfNoInterestAndOtherEventsAreUnknown) {
  EXPECT_EQ(Parse(MakeMessage(0x80, 20, 20)), zym::ZYM_FALSE);
  for (const std::uint32_t what : {kComm, 0x100U, 0x40000000U, 3U})
    EXPECT_EQ(Parse(MakeMessage(what, 20, 20)), zym::ZYM_E_UNSPECIFIED) << what;
}

TEST_F(NetlinkParserTest, SurvivesDatagramsOfEveryLength) {
  for (std::size_t size = 0; size <= 4096; ++size) {
    std::vector<std::uint32_t> buffer(size / 4 + 1, 0x01010101U * static_cast<std::uint32_t>(size % 251));
    const zym::result_t result =
        m_parser.Parse(reinterpret_cast<const Message*>(buffer.data()), size, &m_record);
    if (size < sizeof(Message)) {
      EXPECT_EQ(result, zym::ZYM_E_INVALID_ARGUMENT) << size;
    }
  }
}

}  // namespace
}  // namespace qor::process_manager::non_blocking
