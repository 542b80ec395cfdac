#include "zym/exception.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

#include "support/fake_services.h"
#include "zym/exception_to_result.h"

namespace zym {
namespace {

TEST(Exception, WhatNamesPlaceMessageAndProperties) {
  const GetInterfaceException e("process_manager/x.cpp", 12, 0x80, 0, ZYM_E_NO_INTERFACE);
  EXPECT_STREQ(e.what(),
               "process_manager/x.cpp(12): Can't get interface. Properties:\n"
               "zym.iid=128\n"
               "zym.serviceKey=0\n"
               "zym.result=0x80000001\n"
               "Call stack:\n");
}

TEST(Exception, WhatWithoutPropertiesHasABlankInTheirPlace) {
  const CheckFailedException e("a.cpp", 1, "no");
  EXPECT_STREQ(e.what(), "a.cpp(1): no. Call stack:\n");
}

TEST(Exception, WhatNamesTheModuleOfEachFrame) {
  exception e("a.cpp", 1, "no");
  e.SetStack({0x2010, 0x1fff, 0x9000}, {{"b.so", "id-b", 0x2000, 0x1000}, {"a.so", "id-a", 0x1000, 0x800}});
  EXPECT_STREQ(e.what(),
               "a.cpp(1): no. Call stack:\n"
               "0# b.so!id-b!10\n"
               "1# 1fff\n"
               "2# 9000\n");
}

TEST(Exception, CopiesShareTheirDetails) {
  CheckFailedException e("a.cpp", 1, "no");
  const CheckFailedException copy = e;
  e << " way " << 7;
  EXPECT_STREQ(copy.what(), "a.cpp(1): no way 7. Call stack:\n");
  EXPECT_EQ(copy.what(), e.what()) << "one text, built once";
}

TEST(Exception, AppendingKeepsTheType) {
  try {
    throw CheckFailedException("a.cpp", 1) << "pid " << 5 << u" caf\u00e9";
  } catch (const CheckFailedException& e) {
    EXPECT_EQ(e.Message(), u"pid 5 caf\u00e9");
    EXPECT_EQ(e.Description(), u"pid 5 caf\u00e9. At a.cpp(1) ");
  }
}

TEST(Exception, TextThatIsNotUtf8KeepsTheRestOfTheMessage) {
  EXPECT_EQ(SystemException("a.cpp", 1, ENOENT, "Cannot open /tmp/odd\xff/x").Description(),
            u"Cannot open /tmp/odd\uFFFD/x: 0x80010102 (File not found). At a.cpp(1) ");
  const char16_t lone[] = {u'a', 0xd800, u'b'};
  EXPECT_EQ((CheckFailedException("a.cpp", 1) << "text " << std::u16string_view(lone, 3)).Message(),
            u"text a\uFFFDb");
}

TEST(Exception, AResultCodeStandsBehindTheMessage) {
  const ResultCodeException e("a.cpp", 1, ZYM_E_NOT_FOUND, "gone");
  EXPECT_EQ(e.Message(), u"gone: 0x8000004c (Not found)");
  const ResultCodeException raw("a.cpp", 1, detail::Code(0x80060002), "raw");
  EXPECT_EQ(raw.Message(), u"raw: 0x80060002 (Unknown result code)");
}

TEST(Property, CarriesItsTypeInATagAndCutsALongName) {
  EXPECT_EQ(std::string(Property::Result(0).Tag().data(), 6), "\x14<END>");
  const Property property = Property::Unsigned(std::string(40, 'n'), 1);
  EXPECT_EQ(property.Name(), std::string(31, 'n'));
  EXPECT_NE(Property::Result(0).Key(), Property::SystemError(0).Key());
}

// --- translation ---

class ExceptionToResultTest : public testing::Test {
 protected:
  template <class E>
  result_t Translate(const E& e, std::string_view prefix = {}) {
    try {
      throw e;
    } catch (...) {
      return ExceptionToResult(m_tracer.get(), prefix);
    }
  }
  std::string Last() const { return m_tracer->Records().back().text; }

  intrusive_ptr<test_support::RecordingTracer> m_tracer = CreateObject<test_support::RecordingTracer>();
};

TEST_F(ExceptionToResultTest, GivesTheCodeOfEachStandardException) {
  EXPECT_EQ(Translate(std::bad_alloc()), ZYM_E_OUT_OF_MEMORY);
  EXPECT_EQ(Translate(std::bad_cast()), ZYM_E_BAD_CAST);
  EXPECT_EQ(Translate(std::length_error("l")), ZYM_E_INVALID_SIZE);
  EXPECT_EQ(Translate(std::out_of_range("o")), ZYM_E_OUT_OF_RANGE);
  EXPECT_EQ(Translate(std::invalid_argument("i")), ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(Translate(std::runtime_error("r")), ZYM_E_EXCEPTION_WITHOUT_RESULT);
  EXPECT_EQ(Last(), "r");
}

TEST_F(ExceptionToResultTest, GivesUnknownExceptionForAnythingElse) {
  EXPECT_EQ(Translate(42, "Prefix: "), ZYM_E_UNKNOWN_EXCEPTION);
  EXPECT_EQ(Last(), "Prefix: unknown exception");
}

TEST_F(ExceptionToResultTest, TracesTheDescriptionOfAResultCode) {
  EXPECT_EQ(Translate(ResultCodeException("a.cpp", 3, ZYM_E_NOT_FOUND, "gone"), "Start: "), ZYM_E_NOT_FOUND);
  EXPECT_EQ(Last(), "Start: gone: 0x8000004c (Not found). At a.cpp(3) ");
  EXPECT_EQ(m_tracer->Records().back().level, trace::kFailure);
}

TEST_F(ExceptionToResultTest, AResultCodeThatIsNoFailureHasACodeOfItsOwn) {
  EXPECT_EQ(Translate(ResultCodeException("a.cpp", 3, ZYM_FALSE)), ZYM_E_EXCEPTION_WITH_SUCCESS);
  EXPECT_EQ(Translate(GetInterfaceException("a.cpp", 3, 1, 0, ZYM_OK)), ZYM_E_EXCEPTION_WITH_SUCCESS);
}

TEST_F(ExceptionToResultTest, AnExceptionWithoutACodeSaysSo) {
  EXPECT_EQ(Translate(CheckFailedException("a.cpp", 3, "no")), ZYM_E_EXCEPTION_WITHOUT_RESULT);
  EXPECT_EQ(Last(), "no. At a.cpp(3) ");
  EXPECT_EQ(Translate(exception("a.cpp", 3, "no")), ZYM_E_EXCEPTION_WITHOUT_RESULT);
}

TEST_F(ExceptionToResultTest, ReadsTheCodeFromProperties) {
  EXPECT_EQ(Translate(GetInterfaceException("a.cpp", 3, 1, 0, ZYM_E_LOCKED)), ZYM_E_LOCKED);

  exception system("a.cpp", 3, "no");
  system.AddProperty(Property::SystemError(ENOENT));
  EXPECT_EQ(Translate(system), ZYM_E_FILE_NOT_FOUND);

  exception symbol("a.cpp", 3, "no");
  symbol.AddProperty(Property::ModuleResult("x.so: undefined symbol: f"));
  EXPECT_EQ(Translate(symbol), ZYM_E_SYMBOL_NOT_FOUND);

  exception library("a.cpp", 3, "no");
  library.AddProperty(Property::ModuleResult("x.so: cannot open shared object file"));
  EXPECT_EQ(Translate(library), ZYM_E_PLATFORM);
}

TEST_F(ExceptionToResultTest, ASystemExceptionGivesTheResultOfItsErrno) {
  EXPECT_EQ(Translate(SystemException("a.cpp", 3, EBADF, "read")), ZYM_E_INVALID_HANDLE);
}

TEST_F(ExceptionToResultTest, WalksNestedExceptionsOutermostFirstAndTakesTheFirstCode) {
  result_t result = ZYM_OK;
  try {
    try {
      try {
        throw std::bad_alloc();
      } catch (...) {
        std::throw_with_nested(ResultCodeException("b.cpp", 2, ZYM_E_NOT_FOUND, "inner"));
      }
    } catch (...) {
      std::throw_with_nested(std::runtime_error("outer; "));
    }
  } catch (...) {
    result = ExceptionToResult(m_tracer.get());
  }
  EXPECT_EQ(result, ZYM_E_NOT_FOUND);
  EXPECT_EQ(Last(), "outer; inner: 0x8000004c (Not found). At b.cpp(2) std::bad_alloc");
  EXPECT_EQ(m_tracer->Records().size(), 1U);
}

TEST_F(ExceptionToResultTest, ATextNestedInWhatIsNoStandardExceptionIsTraced) {
  struct Odd {};
  result_t result = ZYM_OK;
  try {
    try {
      throw std::length_error("inner");
    } catch (...) {
      std::throw_with_nested(Odd());
    }
  } catch (...) {
    result = ExceptionToResult(m_tracer.get(), "Prefix: ");
  }
  EXPECT_EQ(result, ZYM_E_UNKNOWN_EXCEPTION) << "the first that has a code";
  EXPECT_EQ(Last(), "Prefix: unknown exceptioninner");
}

// The translation is what failures end in: it can't fail itself.
TEST_F(ExceptionToResultTest, AnExceptionWhoseDescriptionCantBeMadeIsTracedByWhatItSays) {
  class Wordless : public Exception {
   public:
    using Exception::Exception;
    types::string16_t Message() const override { throw std::bad_alloc(); }
  };
  EXPECT_EQ(Translate(Wordless("a.cpp", 3, "no"), "Start: "), ZYM_E_EXCEPTION_WITHOUT_RESULT);
  EXPECT_EQ(Last(), "Start: a.cpp(3): no. Call stack:\n");
}

TEST_F(ExceptionToResultTest, WithoutATracerOnlyTheCodeIsComputed) {
  try {
    throw std::bad_alloc();
  } catch (...) {
    EXPECT_EQ(ExceptionToResult(nullptr, "x"), ZYM_E_OUT_OF_MEMORY);
  }
}

TEST_F(ExceptionToResultTest, WithTheLevelRefusedOnlyTheCodeIsComputed) {
  m_tracer->RefuseRecords(ZYM_E_NOT_MATCHED);
  EXPECT_EQ(Translate(std::bad_cast(), "x"), ZYM_E_BAD_CAST);
  EXPECT_TRUE(m_tracer->Records().empty());
}

TEST_F(ExceptionToResultTest, NamesTheFunctionThatCaught) {
  try {
    throw std::runtime_error("broken");
  } catch (...) {
    ExceptionInFunctionToResult(m_tracer.get(), "PollTask");
  }
  EXPECT_EQ(Last(), "PollTask: broken");
  try {
    throw std::runtime_error("broken");
  } catch (...) {
    ExceptionInFunctionToResult(m_tracer.get(), "Get", "Unexpected exception in ");
  }
  EXPECT_EQ(Last(), "Unexpected exception in Get: broken");
}

}  // namespace
}  // namespace zym
