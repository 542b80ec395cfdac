// Processes as a tree of parents and children.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace pmhost {

struct TreeNode {
  std::uint32_t pid = 0;
  std::optional<std::uint32_t> parentPid;
};

// Calls `visit` with the index of each node, and with what is to be drawn in front of it: a parent before
// its children, roots and children by pid. A node whose parent isn't among them is a root. Parents that go in
// a circle, which pids can make that are used again between two looks, are cut at the lowest pid. Any
// depth; ends when `visit` returns false.
void WalkTree(const std::vector<TreeNode>& nodes,
              const std::function<bool(std::size_t index, const std::string& branches)>& visit);

}  // namespace pmhost
