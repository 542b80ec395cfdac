// The values that cross the wall: containers, variants, property bags, texts and times.
#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <typeinfo>

#include "support/fake_services.h"
#include "zym/containers.h"
#include "zym/datetime.h"
#include "zym/exception.h"
#include "zym/hash.h"
#include "zym/property_bag.h"
#include "zym/utf.h"
#include "zym/variant.h"

namespace zym {
namespace {

using types::variant_t;

template <class C>
C OnHost(test_support::CountingAllocator* allocator) {
  return C(typename C::allocator_type(allocator));
}

TEST(Containers, UseTheHostsAllocatorWhenTheyHaveOne) {
  const auto allocator = CreateObject<test_support::CountingAllocator>();
  {
    auto text = OnHost<types::string16_t>(allocator.get());
    text = std::u16string(100, u'x');
    EXPECT_EQ(allocator->Live(), 1);
    const types::string16_t copy = text;
    EXPECT_EQ(allocator->Live(), 1) << "a copy starts without the host's allocator";
    const types::string16_t moved = std::move(text);
    EXPECT_EQ(allocator->Live(), 1);
    EXPECT_EQ(moved, copy);
  }
  EXPECT_EQ(allocator->Live(), 0);
}

TEST(Containers, ThrowBadAllocWhenTheHostHasNoMemory) {
  const auto allocator = CreateObject<test_support::CountingAllocator>();
  auto numbers = OnHost<types::vector_t<int>>(allocator.get());
  allocator->FailFrom(0);
  EXPECT_THROW(numbers.resize(10), std::bad_alloc);
  EXPECT_EQ(allocator->Live(), 0);
}

TEST(Variant, TellsItsTypeByTag) {
  EXPECT_EQ(variant_t().GetTag(), 0U);
  EXPECT_EQ(variant_t(objptr_t<IObject>()).GetTag(), 13U);
  EXPECT_EQ(variant_t(types::string_t("a")).GetTag(), 14U);
  EXPECT_EQ(variant_t(types::string16_t(u"a")).GetTag(), 15U);
  EXPECT_EQ(variant_t(types::buffer_t{1, 2}).GetTag(), 17U);
  EXPECT_EQ(variant_t(variant_t::vector_type(2)).GetTag(), 0x1007U);
}

TEST(Variant, AMoveLeavesTheSourceEmptyAndReleasesNothingTwice) {
  const auto object = CreateObject<test_support::CountingAllocator>();
  {
    variant_t source{objptr_t<IObject>(object.get())};
    const variant_t target = std::move(source);
    EXPECT_EQ(source.GetTag(), variant_t::kEmpty);  // NOLINT(bugprone-use-after-move): that is the promise
    EXPECT_EQ(target.GetTag(), variant_t::kObject);
    EXPECT_EQ(object->AddRef(), 3U);
    object->Release();
  }
  EXPECT_EQ(object->AddRef(), 2U);
  object->Release();
}

// The published vectors of FNV-1a, and the two users of the one hash.
TEST(Hash, IsTheOneByWhichInterfacesAndPropertiesAreNumbered) {
  EXPECT_EQ(HashOf(""), 0x811c9dc5U);
  EXPECT_EQ(HashOf("a"), 0xe40c292cU);
  EXPECT_EQ(HashOf("foobar"), 0xbf9cf968U);
  EXPECT_EQ(HashOf("\xff"), (0x811c9dc5U ^ 0xffU) * 0x01000193U) << "bytes above 127 are not negative";
  EXPECT_EQ(IidOf("foobar"), 0xbf9cf968U);
  EXPECT_EQ(Property::Unsigned("foobar", 0).Key(), 0xbf9cf968U);
}

TEST(Utf, ConvertsBothWays) {
  for (const char* text : {"", "plain", "caf\u00e9", "\u20ac", "\U0001F600 and \U0010FFFF"}) {
    const auto wide = Utf8ToUtf16(text);
    ASSERT_TRUE(wide) << text;
    EXPECT_EQ(Utf16ToUtf8(*wide), text);
    EXPECT_EQ(RequireUtf16(text), *wide);
    EXPECT_EQ(RequireUtf8(*wide), text);
  }
}

TEST(Utf, KeepsNulsAndLongRuns) {
  std::string text(1000, 'a');
  text += std::string("\0\u00e9", 3) + std::string(1000, 'b');
  EXPECT_EQ(Utf16ToUtf8(*Utf8ToUtf16(text)), text);
}

TEST(Utf, RefusesWhatIsNotUtf8) {
  const std::string_view bad[] = {"\x80",
                                  "\xc3",
                                  "\xc3(",
                                  "\xc0\x80",
                                  "\xe0\x80\x80",
                                  "\xed\xa0\x80",
                                  "\xf4\x90\x80\x80",
                                  "\xf8\x88\x80\x80\x80",
                                  "\xff",
                                  "ok then \xe2\x82"};
  for (const std::string_view text : bad) {
    EXPECT_FALSE(Utf8ToUtf16(text)) << text;
    EXPECT_THROW(RequireUtf16(text), std::bad_cast) << text;
  }
}

TEST(Utf, RefusesLoneSurrogates) {
  const char16_t high[] = {u'a', 0xd83d};
  const char16_t low[] = {0xde00, u'a'};
  const char16_t swapped[] = {0xde00, 0xd83d};
  for (const auto& text : {high, low, swapped}) {
    EXPECT_FALSE(Utf16ToUtf8({text, 2}));
    EXPECT_THROW(RequireUtf8({text, 2}), std::bad_cast);
  }
}

TEST(Utf, ReplacesEachBadByteAndKeepsTheRest) {
  EXPECT_EQ(Utf8ToUtf16Lossy("/tmp/odd\xff\xfe caf\u00e9"), u"/tmp/odd\uFFFD\uFFFD caf\u00e9");
  EXPECT_EQ(Utf8ToUtf16Lossy("cut \xe2\x82"), u"cut \uFFFD\uFFFD");
  EXPECT_EQ(Utf8ToUtf16Lossy("\U0001F600"), u"\U0001F600");
  EXPECT_EQ(Utf8ToUtf16Lossy(""), u"");
}

TEST(Utf, ReplacesEachLoneSurrogateAndKeepsTheRest) {
  const char16_t text[] = {u'a', 0xd83d, u'b', 0xde00, 0xd83d, 0xde00};
  EXPECT_EQ(Utf16ToUtf8Lossy({text, 6}), "a\uFFFDb\uFFFD\U0001F600");
  EXPECT_EQ(Utf16ToUtf8Lossy(u""), "");
}

TEST(Datetime, CountsFrom1601) {
  EXPECT_EQ(datetime::FromUnixSeconds(0), 116444736000000000);
  EXPECT_EQ(datetime::FromUnixSeconds(1), 116444736010000000);
  const std::timespec time = datetime::ToUnix(datetime::FromUnixSeconds(1700000000) + 15);
  EXPECT_EQ(time.tv_sec, 1700000000);
  EXPECT_EQ(time.tv_nsec, 1500);
}

TEST(Datetime, ATimeBefore1970HasPositiveNanoseconds) {
  const std::timespec time = datetime::ToUnix(datetime::kUnixEpoch - 1);
  EXPECT_EQ(time.tv_sec, -1);
  EXPECT_EQ(time.tv_nsec, 999999900);
}

TEST(Datetime, RefusesWhatTheOtherClockCantHold) {
  const auto message = [](auto&& convert) -> std::string {
    try {
      convert();
    } catch (const datetime::TimeSystemError& e) {
      return *Utf16ToUtf8(e.Message());
    }
    return "no exception";
  };
  EXPECT_EQ(message([] {
              datetime::FromUnixSeconds(std::numeric_limits<std::int64_t>::max());
            }).rfind("Invalid timestamp: epoch ", 0),
            0U);
  EXPECT_EQ(message([] {
              datetime::ToUnix(-datetime::kUnixEpoch - 1);
            }).rfind("Invalid utc timestamp for posix platform ", 0),
            0U);
  EXPECT_NO_THROW(datetime::ToUnix(-datetime::kUnixEpoch));
  // 1600-12-31T23:59:59: the seconds are fine, the time has no place in these units.
  EXPECT_EQ(message([] {
              datetime::FromUnixSeconds(-11644473601);
            }).rfind("Invalid utc timestamp for posix platform -116444736010000000", 0),
            0U);
  EXPECT_EQ(datetime::FromUnixSeconds(-11644473600), 0);
}

TEST(Datetime, ATimeThatIsNoneIsAnInvalidArgument) {
  try {
    datetime::ToUnix(-datetime::kUnixEpoch - 1);
    FAIL() << "no exception";
  } catch (const datetime::TimeSystemError& e) {
    EXPECT_EQ(e.Result(), ZYM_E_INVALID_ARGUMENT);
  }
}

TEST(Datetime, CutsUnixTimesToWholeUnits) {
  EXPECT_EQ(datetime::FromUnix({1, 1999}), 116444736010000019);
  EXPECT_EQ(datetime::FromUnix({-1, 999999999}), 116444735999999999);
}

class Bag : public object::Ifaces<PropertyBagImpl<IPropertyBag>> {};

TEST(PropertyBag, KeepsCopiesByNumber) {
  const auto bag = CreateObject<Bag>();
  variant_t value{std::uint32_t{7}};
  ASSERT_EQ(bag->Put(5, &value), ZYM_OK);
  value = variant_t(std::uint32_t{8});
  variant_t read;
  ASSERT_EQ(bag->Get(5, &read), ZYM_OK);
  EXPECT_EQ(*read.If<std::uint32_t>(), 7U);
}

TEST(PropertyBag, WalksItsIdsInOrderAsTheyWere) {
  const auto before = ModuleObjectCounter::Value();
  {
    const auto bag = CreateObject<Bag>();
    const variant_t value{true};
    for (const propid_t id : {7U, 0xffffffffU, 2U}) ASSERT_EQ(bag->Put(id, &value), ZYM_OK);
    intrusive_ptr<IEnumProperties> properties;
    ASSERT_EQ(bag->Enumerate(properties.Ref()), ZYM_OK);
    ASSERT_EQ(bag->Put(3, &value), ZYM_OK);
    for (int walk = 0; walk < 2; ++walk) {
      propid_t id = 0;
      for (const propid_t expected : {2U, 7U, 0xffffffffU}) {
        ASSERT_EQ(properties->Next(&id), ZYM_OK);
        EXPECT_EQ(id, expected);
      }
      EXPECT_EQ(properties->Next(&id), ZYM_FALSE);
      EXPECT_EQ(id, 0xffffffffU) << "left alone at the end";
      EXPECT_EQ(properties->Reset(), ZYM_OK);
    }
  }
  EXPECT_EQ(ModuleObjectCounter::Value(), before);
}

TEST(PropertyBag, SaysWhatItDoesNotHave) {
  const auto bag = CreateObject<Bag>();
  variant_t read{true};
  EXPECT_EQ(bag->Get(5, &read), ZYM_E_PROPERTY_NOT_FOUND);
  EXPECT_EQ(read.GetTag(), variant_t::kBool);
}

}  // namespace
}  // namespace zym
