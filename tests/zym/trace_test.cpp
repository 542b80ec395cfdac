#include "zym/trace.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <new>
#include <string>
#include <type_traits>

#include "support/fake_services.h"
#include "zym/ceiling_tracer.h"
#include "zym/generic_object_factory.h"
#include "zym/prefix_tracer.h"
#include "zym/service_provider.h"

namespace zym {
namespace {

using test_support::RecordingTracer;

class TraceTest : public testing::Test {
 protected:
  ~TraceTest() override {
    EXPECT_EQ(m_tracer->OpenRecords(), 0U) << "each record that was opened is committed";
  }

  std::string Last() const { return m_tracer->Records().back().text; }

  intrusive_ptr<RecordingTracer> m_tracer = CreateObject<RecordingTracer>();
};

TEST_F(TraceTest, WritesTextsAndNumbers) {
  ZYM_TRACE(m_tracer, trace::kCall,
            "n=" << 7 << " u=" << ~0ULL << " i=" << -1 << " b=" << true << " c=" << 'x'
                 << " w=" << std::u16string_view(u"caf\u00e9 \U0001F600") << " h=" << trace::hex << 255
                 << trace::dec << " d=" << 255 << " f=" << 0.5 << " z=" << trace::Width{4, '0'} << 7);
  EXPECT_EQ(Last(),
            "n=7 u=18446744073709551615 i=-1 b=true c=x w=caf\u00e9 \U0001F600 h=ff d=255 f=0.5 z=0007");
}

TEST_F(TraceTest, AWidthIsForTheNextValueWhateverThatIs) {
  using trace::Width;
  const std::u16string_view wide = u"caf\u00e9";
  ZYM_TRACE(m_tracer, trace::kCall, Width{6, '.'} << wide << 7 << "|" << Width{3} << wide << 7);
  EXPECT_EQ(Last(), "..caf\u00e97|caf\u00e97") << "the width is used up by the wide text";
  ZYM_TRACE(m_tracer, trace::kCall, Width{6, '.'} << "cafe" << 7 << "|" << Width{4, '0'} << 7 << 7);
  EXPECT_EQ(Last(), "..cafe7|00077");
}

TEST_F(TraceTest, AUtf16TextWithALoneSurrogateIsTracedWithAReplacement) {
  const char16_t lone[] = {u'a', 0xd800, u'b'};
  ZYM_TRACE(m_tracer, trace::kCall, std::u16string_view(lone, 3));
  EXPECT_EQ(Last(), "a\uFFFDb");
}

TEST_F(TraceTest, ARecordIsUtf8WhateverTheTextIsMadeOf) {
  ZYM_TRACE(m_tracer, trace::kCall, "path: /tmp/odd\xff\xfe caf\u00e9 " << '\x80' << "\xe2\x82");
  EXPECT_EQ(Last(), "path: /tmp/odd\uFFFD\uFFFD caf\u00e9 \uFFFD\uFFFD\uFFFD");
}

TEST_F(TraceTest, InHexadecimalANegativeNumberShowsItsBits) {
  ZYM_TRACE(m_tracer, trace::kCall, trace::hex << -1 << " " << std::int64_t{-2} << " " << std::int16_t{-1});
  EXPECT_EQ(Last(), "ffffffff fffffffffffffffe ffff");
}

template <class T>
concept CanBeTraced = requires(trace::Record& record, T value) {
  record << value;
};

TEST_F(TraceTest, APointerIsNoTextUnlessItsCharactersAreBytes) {
  static_assert(!CanBeTraced<int*> && !CanBeTraced<const void*> && !CanBeTraced<void (*)()>);
  static_assert(!CanBeTraced<const char16_t*> && !CanBeTraced<char16_t(&)[4]>);
  static_assert(CanBeTraced<const char*> && CanBeTraced<char*> && CanBeTraced<const char(&)[4]>);
  static_assert(CanBeTraced<bool> && CanBeTraced<std::u16string_view>);
  char bytes[] = "bytes";
  ZYM_TRACE(m_tracer, trace::kCall, bytes << true);
  EXPECT_EQ(Last(), "bytestrue");
}

TEST_F(TraceTest, ACodeHasEightDigitsAndItsText) {
  ZYM_TRACE(m_tracer, trace::kCall,
            trace::Code{ZYM_E_INVALID_ARGUMENT} << ", " << trace::Code{detail::Code(0x80060002)});
  EXPECT_EQ(Last(), "0x80000046 (Invalid argument), 0x80060002");
  ZYM_TRACE(m_tracer, trace::kCall, trace::Code{0} << " " << 10);
  EXPECT_EQ(Last(), "0x00000000 (No error) 10");
}

TEST_F(TraceTest, ARefusedRecordEvaluatesAndFormatsNothing) {
  m_tracer->RefuseRecords(ZYM_E_NOT_MATCHED);
  int evaluations = 0;
  ZYM_TRACE(m_tracer, trace::kCall, ++evaluations);
  EXPECT_EQ(evaluations, 0);
  EXPECT_EQ(m_tracer->OpenCalls(), 1U);
  EXPECT_TRUE(m_tracer->Records().empty());
}

// A text that can't be made, as for want of memory.
struct Unspeakable {};
void AppendTo(trace::Record&, const Unspeakable&) {
  throw std::bad_alloc();
}

TEST_F(TraceTest, WhatATextRaisesEndsTheRecordAndDoesNotFailWhatIsTraced) {
  EXPECT_NO_THROW(ZYM_TRACE(m_tracer, trace::kCall, "pid: " << 5 << ", " << Unspeakable() << " tail"));
  ASSERT_EQ(m_tracer->Records().size(), 1U);
  EXPECT_EQ(Last(), "pid: 5, ");
  const auto checked = [this]() -> result_t {
    ZYM_CHECK_RESULT(m_tracer, ZYM_E_NOT_FOUND, Unspeakable());
    return ZYM_OK;
  };
  EXPECT_EQ(checked(), ZYM_E_NOT_FOUND) << "the check's own result";
}

TEST_F(TraceTest, WithoutATracerNothingHappens) {
  ITracer* const none = nullptr;
  int evaluations = 0;
  ZYM_TRACE(none, trace::kFailure, ++evaluations);
  EXPECT_EQ(evaluations, 0);
}

TEST_F(TraceTest, AMessageBeyondTheFirstBufferReachesATracerThatGrows) {
  const std::string text(5000, 'x');
  ZYM_TRACE(m_tracer, trace::kCall, "head " << text << " tail");
  EXPECT_EQ(Last(), "head " + text + " tail");
}

// A tracer that calls the system, as one that writes a file does.
class ErrnoTracer : public RecordingTracer {
 public:
  result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override {
    const result_t result = RecordingTracer::GetRecord(level, buffer, size);
    errno = EAGAIN;
    return result;
  }
  void CommitRecord(void* buffer, std::uint64_t length) override {
    RecordingTracer::CommitRecord(buffer, length);
    errno = EAGAIN;
  }
};

TEST_F(TraceTest, ErrnoIsWhatItWasBeforeTheTracerWasCalled) {
  const auto tracer = CreateObject<ErrnoTracer>();
  errno = ENOENT;
  ZYM_TRACE(tracer, trace::kCall, std::string(5000, 'x') << errno);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(tracer->Records().back().text, std::string(5000, 'x') + std::to_string(ENOENT));
  tracer->RefuseRecords(ZYM_E_NOT_MATCHED);
  ZYM_TRACE(tracer, trace::kCall, "");
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(TraceTest, AMessageOfExactlyTheFirstBufferDoesNotGrow) {
  m_tracer->RefuseGrowth(true);
  const std::string text(trace::kInitialRecordSize, 'x');
  ZYM_TRACE(m_tracer, trace::kCall, text);
  EXPECT_EQ(Last(), text);
}

TEST_F(TraceTest, AMessageBeyondTheFirstBufferIsCommittedEmptyWhenGrowthIsRefused) {
  m_tracer->RefuseGrowth(true);
  ZYM_TRACE(m_tracer, trace::kCall, std::string(trace::kInitialRecordSize + 1, 'x') << " tail");
  ASSERT_EQ(m_tracer->Records().size(), 1U);
  EXPECT_EQ(Last(), "");
}

result_t CheckedResult(ITracer* tracer, result_t value) {
  ZYM_CHECK_RESULT(tracer, value, "Cannot do it for pid: " << 5);
  return ZYM_FALSE;
}

TEST_F(TraceTest, AFailedResultCheckPrintsItsExpressionAndReturnsTheCode) {
  EXPECT_EQ(CheckedResult(m_tracer.get(), ZYM_OK), ZYM_FALSE);
  EXPECT_TRUE(m_tracer->Records().empty());
  EXPECT_EQ(CheckedResult(m_tracer.get(), ZYM_E_NOT_FOUND), ZYM_E_NOT_FOUND);
  EXPECT_TRUE(m_tracer->Has(trace::kFailure,
                            "(value),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004c (Not found) "
                            "Cannot do it for pid: 5"))
      << Last();
  EXPECT_EQ(Last().rfind("tests/zym/trace_test.cpp:", 0), 0U)
      << "the path starts at the project's root: " << Last();
}

result_t CheckedCondition(ITracer* tracer, bool dir) {
  ZYM_CHECK(tracer, dir, ZYM_E_UNSPECIFIED,
            "Cannot open "
                << "/proc");
  return ZYM_OK;
}

TEST_F(TraceTest, AFailedConditionPrintsItsExpressionAndReturnsTheValue) {
  EXPECT_EQ(CheckedCondition(m_tracer.get(), true), ZYM_OK);
  EXPECT_EQ(CheckedCondition(m_tracer.get(), false), ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(trace::kFailure, "(dir),(bool) failed: result = false Cannot open /proc"))
      << Last();
}

result_t Reports(ITracer* tracer, result_t value) {
  return ZYM_REPORT_RESULT(tracer, value, "Cannot stop it");
}

TEST_F(TraceTest, AReportedFailureNamesTheFunctionAndGoesOn) {
  EXPECT_EQ(Reports(m_tracer.get(), ZYM_FALSE), ZYM_FALSE);
  EXPECT_TRUE(m_tracer->Records().empty());
  EXPECT_EQ(Reports(m_tracer.get(), ZYM_E_NOT_FOUND), ZYM_E_NOT_FOUND);
  EXPECT_EQ(Last(), "Reports: '(value)=0x8000004c (Not found)' Cannot stop it");
}

TEST_F(TraceTest, AThrowingCheckCarriesTheCodeAndTheMessage) {
  try {
    ZYM_CHECK_RESULT_OR_THROW(ZYM_E_NOT_FOUND, "Cannot get it");
    FAIL();
  } catch (const CheckResultFailedException& e) {
    EXPECT_EQ(e.Result(), ZYM_E_NOT_FOUND);
    EXPECT_EQ(e.Message(), u"Expression failed. Cannot get it: 0x8000004c (Not found)");
  }
  EXPECT_THROW(ZYM_CHECK_OR_THROW(1 == 2, "no"), CheckFailedException);
}

// --- prefixes ---

TEST_F(TraceTest, APrefixStandsBeforeEachRecord) {
  const auto prefixed = trace::WithPrefix(m_tracer, "NetlinkInterceptor");
  ZYM_TRACE(prefixed, trace::kCall, "Start() ");
  EXPECT_EQ(Last(), "NetlinkInterceptor::Start() ");
}

TEST_F(TraceTest, TwoNamePartsMakeOnePrefixAndEmptyOnesAreSkipped) {
  const auto both = trace::WithPrefix(m_tracer, "A", "B");
  ZYM_TRACE(both, trace::kCall, "x");
  EXPECT_EQ(Last(), "A::B::x");
  const auto second = trace::WithPrefix(m_tracer, "", "B");
  ZYM_TRACE(second, trace::kCall, "x");
  EXPECT_EQ(Last(), "B::x");
}

TEST_F(TraceTest, APrefixReplacesThatOfTheComponentThatHandedTheTracer) {
  const auto outer = trace::WithPrefix(m_tracer, "Outer");
  const auto inner = trace::WithPrefix(outer, "Inner");
  ZYM_TRACE(inner, trace::kCall, "x");
  EXPECT_EQ(Last(), "Inner::x");
}

// A prefix of the host's own making.
class HostPrefix : public object::Ifaces<ITracer, trace::IPrefixTracer> {
 public:
  explicit HostPrefix(intrusive_ptr<ITracer> inner, const char* prefix = "[host]")
      : m_inner(std::move(inner)), m_prefix(prefix) {}
  result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override {
    return m_inner->GetRecord(level, buffer, size);
  }
  void CommitRecord(void* buffer, std::uint64_t length) override {
    ++commits;
    m_inner->CommitRecord(buffer, length);
  }
  types::string_t GetPrefix() override { return types::string_t(m_prefix); }
  ITracer* GetTracer() override { return behind != nullptr ? behind : m_inner.get(); }
  int commits = 0;
  ITracer* behind = nullptr;  // what it says is behind it; null: what is

 private:
  intrusive_ptr<ITracer> m_inner;
  const char* m_prefix;
};

TEST_F(TraceTest, APrefixWithoutColonsStaysInTheChain) {
  const auto host = CreateObject<HostPrefix>(m_tracer);
  const auto inner = trace::WithPrefix(host, "Inner");
  ZYM_TRACE(inner, trace::kCall, "x");
  EXPECT_EQ(host->commits, 1);
}

TEST_F(TraceTest, OnlyAPrefixThatEndsWithBothColonsIsPassedThrough) {
  const std::pair<const char*, bool> cases[] = {{"::", true}, {"A::", true}, {":", false},
                                                {"", false},  {"A:", false}, {"A::B", false}};
  for (const auto& [prefix, passed] : cases) {
    const auto host = CreateObject<HostPrefix>(m_tracer, prefix);
    const auto inner = trace::WithPrefix(host, "Inner");
    ZYM_TRACE(inner, trace::kCall, "x");
    EXPECT_EQ(host->commits, passed ? 0 : 1) << prefix;
    EXPECT_EQ(Last(), "Inner::x") << prefix;
  }
}

TEST_F(TraceTest, APrefixThatNamesItselfAsTheTracerBehindItStaysInTheChain) {
  const auto host = CreateObject<HostPrefix>(m_tracer, "A::");
  host->behind = host.get();
  const auto inner = trace::WithPrefix(host, "Inner");
  ZYM_TRACE(inner, trace::kCall, "x");
  EXPECT_EQ(host->commits, 1);
}

TEST_F(TraceTest, ALevelAboveTheCeilingCostsNoCallToTheInnerTracer) {
  m_tracer->SetCeiling(800);
  const auto prefixed = trace::WithPrefix(m_tracer, "A");
  void* buffer = nullptr;
  EXPECT_EQ(prefixed->GetRecord(801, &buffer, 512), ZYM_E_NOT_MATCHED);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(m_tracer->OpenCalls(), 0U);
}

TEST_F(TraceTest, AChangeOfTheCeilingTakesEffectWithTheNextRecord) {
  const auto prefixed = trace::WithPrefix(m_tracer, "A");
  m_tracer->SetCeiling(trace::kFailure);
  ZYM_TRACE(prefixed, trace::kCall, "held back");
  m_tracer->SetCeiling(trace::kCall);
  ZYM_TRACE(prefixed, trace::kCall, "told");
  ASSERT_EQ(m_tracer->Records().size(), 1U);
  EXPECT_EQ(Last(), "A::told");
}

class Plain : public object::Ifaces<>, public ServiceProvider<IServiceLocator, ITracer>, public NonCopyable {
 public:
  explicit Plain(IServiceLocator* locator) : ServiceProvider(locator) {}
};

TEST_F(TraceTest, TheCeilingHoldsForAClassThatKeepsTheLocatorsTracer) {
  const test_support::FakeHost host;
  const auto plain = CreateObject<Plain>(host.locator.get());
  host.tracer->SetCeiling(trace::kFailure);
  ZYM_TRACE(plain->GetTracer(), trace::kCall, "held back");
  EXPECT_EQ(host.tracer->OpenCalls(), 0U) << "the host isn't asked";
  ZYM_TRACE(plain->GetTracer(), trace::kFailure, "x " << std::string(3000, 'y'));
  EXPECT_EQ(host.tracer->Records().back().text, "x " + std::string(3000, 'y')) << "no prefix";
  host.tracer->SetCeiling(trace::kCall);
  ZYM_TRACE(plain->GetTracer(), trace::kCall, "passed on");
  EXPECT_EQ(host.tracer->Records().back().text, "passed on");
}

TEST_F(TraceTest, TheCeilingHoldsForAnExceptionOfAConstruction) {
  const test_support::FakeHost host;
  host.tracer->SetCeiling(trace::kFailure - 1);
  try {
    throw std::bad_alloc();
  } catch (...) {
    EXPECT_EQ(ConstructionExceptionToResult(host.locator.get(), kConstructionPrefix), ZYM_E_OUT_OF_MEMORY);
  }
  EXPECT_EQ(host.tracer->OpenCalls(), 0U);
}

TEST_F(TraceTest, ATracerIsEndedByItsReleaseAlone) {
  static_assert(!std::is_destructible_v<trace::PrefixTracer>);
  const auto prefixed = trace::WithPrefix(m_tracer, "A");
  EXPECT_EQ(prefixed->AddRef(), 2U);
  EXPECT_EQ(prefixed->Release(), 1U);
}

TEST_F(TraceTest, ATracerThatHoldsToTheCeilingIsItsSourceAndDoesNotCount) {
  const std::int32_t before = ModuleObjectCounter::Value();
  const intrusive_ptr<ITracer> held = trace::WithCeiling(m_tracer);
  EXPECT_NE(held, m_tracer.get());
  EXPECT_EQ(trace::CeilingOf(held.get()), m_tracer->GetLevelPtr());
  EXPECT_EQ(ModuleObjectCounter::Value(), before);
}

TEST_F(TraceTest, ATracerWithoutACeilingIsKeptAsItIs) {
  const auto host = CreateObject<HostPrefix>(m_tracer);
  EXPECT_EQ(trace::WithCeiling(host), host.get());
  EXPECT_FALSE(trace::WithCeiling({}));
}

TEST_F(TraceTest, ALongMessageKeepsItsPrefixThroughGrowth) {
  const std::string text(3000, 'y');
  const auto prefixed = trace::WithPrefix(m_tracer, "A");
  ZYM_TRACE(prefixed, trace::kCall, text);
  EXPECT_EQ(Last(), "A::" + text);
}

TEST_F(TraceTest, ATracerThatFailsToGrowUnderAPrefixGetsThePrefixAlone) {
  m_tracer->RefuseGrowth(true);
  const auto prefixed = trace::WithPrefix(m_tracer, "A");
  ZYM_TRACE(prefixed, trace::kCall, std::string(3000, 'y'));
  EXPECT_EQ(Last(), "A::");
}

// A tracer that says success and gives no buffer when a record is to grow.
class GrowthlessTracer : public RecordingTracer {
 public:
  result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override {
    if (*buffer == nullptr) return RecordingTracer::GetRecord(level, buffer, size);
    *buffer = nullptr;
    return ZYM_OK;
  }
};

TEST_F(TraceTest, ASuccessThatGivesNoLargerBufferIsNoGrowthWithOrWithoutAPrefix) {
  const auto tracer = CreateObject<GrowthlessTracer>();
  ZYM_TRACE(tracer, trace::kCall, std::string(3000, 'y'));
  EXPECT_EQ(tracer->Records().back().text, "");
  const auto prefixed = trace::WithPrefix(tracer, "A");
  ZYM_TRACE(prefixed, trace::kCall, std::string(3000, 'y') << " tail");
  EXPECT_EQ(tracer->Records().back().text, "A::");
  EXPECT_EQ(tracer->OpenRecords(), 0U);
}

TEST_F(TraceTest, APrefixTracerAnswersItsThreeInterfacesAndCounts) {
  const std::int32_t before = ModuleObjectCounter::Value();
  {
    const auto prefixed = trace::WithPrefix(m_tracer, "A");
    EXPECT_EQ(ModuleObjectCounter::Value(), before + 1);
    for (const iid_t iid : {0U, 0x6ef3329bU, 0xce153b3bU}) {
      void* found = nullptr;
      EXPECT_EQ(prefixed->QueryInterface(iid, &found), ZYM_OK);
      static_cast<IObject*>(found)->Release();
    }
  }
  EXPECT_EQ(ModuleObjectCounter::Value(), before);
}

}  // namespace
}  // namespace zym
