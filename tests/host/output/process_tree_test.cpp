// The order and the branches of a tree of processes.
#include "host/output/process_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace pmhost {
namespace {

using ::testing::ElementsAre;

// The nodes with their branches, as they are visited.
std::vector<std::string> Drawn(const std::vector<TreeNode>& nodes) {
  std::vector<std::string> lines;
  WalkTree(nodes, [&](std::size_t index, const std::string& branches) {
    lines.push_back(branches + std::to_string(nodes[index].pid));
    return true;
  });
  return lines;
}

TEST(ProcessTree, NothingIsNothing) {
  EXPECT_THAT(Drawn({}), ElementsAre());
}

TEST(ProcessTree, ParentsComeBeforeTheirChildrenAndThoseByPid) {
  EXPECT_THAT(Drawn({{9, 2}, {7, 1}, {3, 1}, {1, 0}, {4, 3}, {5, 3}, {2, 0}, {0, {}}}),
              ElementsAre("0", "├─ 1", "│  ├─ 3", "│  │  ├─ 4", "│  │  └─ 5", "│  └─ 7", "└─ 2", "   └─ 9"));
}

TEST(ProcessTree, WhoseParentIsNotListedIsARoot) {
  EXPECT_THAT(Drawn({{8, 77}, {5, {}}, {6, 5}, {9, 8}}), ElementsAre("5", "└─ 6", "8", "└─ 9"));
}

TEST(ProcessTree, ItsOwnParentIsARoot) {
  EXPECT_THAT(Drawn({{4, 4}, {5, 4}}), ElementsAre("4", "└─ 5"));
}

TEST(ProcessTree, ACircleIsCutAtItsLowestPid) {
  EXPECT_THAT(Drawn({{3, 5}, {4, 3}, {5, 4}}), ElementsAre("3", "└─ 4", "   └─ 5"));
  EXPECT_THAT(Drawn({{2, 8}, {7, 8}, {8, 7}, {9, 7}}), ElementsAre("7", "├─ 8", "│  └─ 2", "└─ 9"))
      << "what hangs on a circle isn't its root, though it has the lowest pid";
}

TEST(ProcessTree, APidThatIsListedTwiceIsDrawnTwice) {
  EXPECT_EQ(Drawn({{4, {}}, {4, {}}, {5, 4}}).size(), 3U);
}

TEST(ProcessTree, AMillionGenerationsNeedNoStack) {
  std::vector<TreeNode> nodes;
  for (std::uint32_t pid = 0; pid < 1'000'000; ++pid) nodes.push_back({.pid = pid + 1, .parentPid = pid});
  std::uint32_t last = 0;
  WalkTree(nodes, [&](std::size_t index, const std::string& branches) {
    EXPECT_EQ(nodes[index].pid, ++last);
    return !branches.empty() || last == 1;
  });
  EXPECT_EQ(last, 1'000'000U);
}

TEST(ProcessTree, EndsWhenNobodyListensAnyMore) {
  int visits = 0;
  WalkTree({{1, {}}, {2, 1}, {3, 1}}, [&](std::size_t, const std::string&) { return ++visits < 2; });
  EXPECT_EQ(visits, 2);
}

// Whatever the parents are, each node is visited once.
TEST(ProcessTree, AnyParentsAreDrawnOnce) {
  for (std::uint32_t parents = 0; parents < 6 * 6 * 6 * 6 * 6; ++parents) {
    std::vector<TreeNode> nodes;
    std::uint32_t rest = parents;
    for (std::uint32_t pid = 1; pid <= 5; ++pid, rest /= 6)
      nodes.push_back({.pid = pid, .parentPid = rest % 6});
    std::multiset<std::size_t> visited;
    WalkTree(nodes, [&](std::size_t index, const std::string&) {
      visited.insert(index);
      return true;
    });
    ASSERT_THAT(visited, ElementsAre(0, 1, 2, 3, 4)) << parents;
  }
}

}  // namespace
}  // namespace pmhost
