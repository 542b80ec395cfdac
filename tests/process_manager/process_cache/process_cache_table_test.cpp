#include "process_manager/process_cache/process_cache_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <list>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qor::process_manager {
namespace {

using Table = ProcessCacheTable<std::string>;

TEST(ProcessCacheTable, FindsWhatWasMade) {
  Table table(4);
  table.Emplace(7, "seven");
  ASSERT_NE(table.Find(7), nullptr);
  EXPECT_EQ(*table.Find(7), "seven");
  EXPECT_EQ(table.Find(8), nullptr);
  EXPECT_EQ(table.Size(), 1U);
}

TEST(ProcessCacheTable, KeysOfOneBucketAreToldApart) {
  Table table(4);
  for (const PidType key : {1U, 5U, 9U}) table.Emplace(key, std::to_string(key));
  EXPECT_TRUE(table.Erase(5));
  EXPECT_EQ(*table.Find(1), "1");
  EXPECT_EQ(table.Find(5), nullptr);
  EXPECT_EQ(*table.Find(9), "9");
}

TEST(ProcessCacheTable, AKeyOfAllOnesIsAKeyLikeAnyOther) {
  Table table(4);
  table.Emplace(kNoPid, "kernel");
  EXPECT_EQ(*table.Find(kNoPid), "kernel");
}

TEST(ProcessCacheTable, TheKeyThatExistsIsReplacedAndDropsNoOther) {
  Table table(2);
  table.Emplace(1, "old");
  table.Emplace(2, "other");
  table.Emplace(1, "new");
  EXPECT_EQ(table.Size(), 2U);
  EXPECT_EQ(*table.Find(1), "new");
  EXPECT_EQ(*table.Find(2), "other");
}

TEST(ProcessCacheTable, AFullTableDropsTheColdest) {
  Table table(3);
  for (const PidType key : {1U, 2U, 3U}) table.Emplace(key, "");
  table.Emplace(4, "");
  EXPECT_EQ(table.Size(), 3U);
  EXPECT_EQ(table.Find(1), nullptr);
}

TEST(ProcessCacheTable, AFindMakesTheHottestFromEveryPlace) {
  for (const PidType touched : {1U, 2U, 3U}) {
    Table table(3);
    for (const PidType key : {1U, 2U, 3U}) table.Emplace(key, "");
    table.Find(touched);
    table.Emplace(4, "");
    table.Emplace(5, "");
    EXPECT_NE(table.Find(touched), nullptr) << touched;
  }
}

TEST(ProcessCacheTable, AFailedFindTouchesNothing) {
  Table table(2);
  table.Emplace(1, "");
  table.Emplace(2, "");
  EXPECT_EQ(table.Find(3), nullptr);
  table.Emplace(4, "");
  EXPECT_EQ(table.Find(1), nullptr);
  EXPECT_NE(table.Find(2), nullptr);
}

TEST(ProcessCacheTable, ATableOfOneHoldsTheLastKey) {
  Table table(1);
  table.Emplace(1, "1");
  table.Emplace(2, "2");
  EXPECT_EQ(table.Find(1), nullptr);
  EXPECT_EQ(*table.Find(2), "2");
}

TEST(ProcessCacheTable, ANewValueMayBeMadeFromTheOneThatGoes) {
  Table table(1);
  std::string& cold = table.Emplace(1, "a text that is too long for the inside of a string");
  EXPECT_EQ(table.Emplace(2, cold), "a text that is too long for the inside of a string");
  EXPECT_EQ(table.Emplace(2, *table.Find(2)), "a text that is too long for the inside of a string");
}

TEST(ProcessCacheTable, ValuesStayWhereTheyAreAndNothingRehashes) {
  ProcessCacheTable<int> table(64);
  std::vector<int*> values;
  for (PidType key = 0; key < 64; ++key) values.push_back(&table.Emplace(key, static_cast<int>(key)));
  for (PidType key = 1000; key < 1032; ++key) table.Emplace(key, 0);  // drops 0 to 31
  for (PidType key = 32; key < 64; ++key) EXPECT_EQ(table.Find(key), values[key]);
  EXPECT_EQ(table.Capacity(), 64U);
}

// Counts its living objects, and throws when told to.
struct Counted {
  explicit Counted(bool throws) {
    if (throws) throw std::runtime_error("told to");
    ++living;
  }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() { --living; }
  static inline int living = 0;
};

TEST(ProcessCacheTable, EveryValueIsDestroyedOnce) {
  {
    ProcessCacheTable<Counted> table(3);
    for (PidType key = 0; key < 10; ++key) table.Emplace(key, false);
    EXPECT_EQ(Counted::living, 3);
    EXPECT_TRUE(table.Erase(9));
    EXPECT_FALSE(table.Erase(9));
    EXPECT_EQ(Counted::living, 2);
    table.Clear();
    EXPECT_EQ(Counted::living, 0);
    EXPECT_EQ(table.Size(), 0U);
    table.Emplace(1, false);
  }
  EXPECT_EQ(Counted::living, 0);
}

TEST(ProcessCacheTable, AConstructorThatThrowsLeavesTheTableAsItWas) {
  ProcessCacheTable<Counted> table(2);
  table.Emplace(1, false);
  table.Emplace(2, false);
  EXPECT_THROW(table.Emplace(1, true), std::runtime_error);  // would replace
  EXPECT_THROW(table.Emplace(3, true), std::runtime_error);  // would drop
  EXPECT_NE(table.Find(1), nullptr);
  EXPECT_NE(table.Find(2), nullptr);
  EXPECT_EQ(table.Size(), 2U);
  table.Erase(1);
  EXPECT_THROW(table.Emplace(3, true), std::runtime_error);  // in a node that was used before
  table.Emplace(3, false);
  EXPECT_EQ(Counted::living, 2);
}

TEST(ProcessCacheTable, DoesWhatAListInTheOrderOfUseDoes) {
  constexpr std::size_t kCapacity = 16;
  Table table(kCapacity);
  std::list<std::pair<PidType, std::string>> model;  // hot first
  std::mt19937 engine(1);
  for (int step = 0; step < 20'000; ++step) {
    const PidType key = engine() % 40;
    const auto found = std::ranges::find(model, key, &std::pair<PidType, std::string>::first);
    switch (engine() % 4) {
      case 0:
        EXPECT_EQ(table.Erase(key), found != model.end());
        if (found != model.end()) model.erase(found);
        break;
      case 1:
        if (found != model.end())
          model.erase(found);
        else if (model.size() == kCapacity)
          model.pop_back();
        model.emplace_front(key, std::to_string(step));
        EXPECT_EQ(table.Emplace(key, std::to_string(step)), model.front().second);
        break;
      default:
        if (found != model.end()) model.splice(model.begin(), model, found);
        const std::string* const value = table.Find(key);
        ASSERT_EQ(value != nullptr, found != model.end()) << step;
        if (value != nullptr) {
          EXPECT_EQ(*value, found->second);
        }
    }
    ASSERT_EQ(table.Size(), model.size());
  }
}

}  // namespace
}  // namespace qor::process_manager
