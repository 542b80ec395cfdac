#include "host/output/process_tree.h"

#include <algorithm>
#include <map>
#include <numeric>

namespace pmhost {
namespace {

class Tree {
 public:
  explicit Tree(const std::vector<TreeNode>& nodes)
      : m_nodes(nodes), m_parents(nodes.size()), m_children(nodes.size()), m_byPid(nodes.size()) {
    std::iota(m_byPid.begin(), m_byPid.end(), std::size_t{0});
    std::ranges::stable_sort(m_byPid, {}, [&](std::size_t index) { return nodes[index].pid; });
    std::map<std::uint32_t, std::size_t> places;
    for (const std::size_t index : m_byPid) places.emplace(nodes[index].pid, index);
    for (const std::size_t index : m_byPid) {
      const TreeNode& node = nodes[index];
      if (!node.parentPid || *node.parentPid == node.pid) continue;
      const auto parent = places.find(*node.parentPid);
      if (parent == places.end()) continue;
      m_parents[index] = parent->second;
      m_children[parent->second].push_back(index);
    }
  }

  // Cuts the circles.
  std::vector<std::size_t> TakeRoots() {
    std::vector<std::size_t> roots;
    std::vector<bool> reached(m_parents.size(), false);
    for (const std::size_t index : m_byPid) {
      if (m_parents[index]) continue;
      roots.push_back(index);
      Reach(index, reached);
    }
    for (const std::size_t index : m_byPid) {
      if (reached[index]) continue;
      const std::size_t root = LowestOfCircle(index);
      std::erase(m_children[*m_parents[root]], root);
      m_parents[root].reset();
      roots.push_back(root);
      Reach(root, reached);
    }
    return roots;
  }

  [[nodiscard]] const std::vector<std::size_t>& ChildrenOf(std::size_t index) const {
    return m_children[index];
  }

 private:
  // What no root leads to is on a circle, or hangs on one: so many steps up are on it for sure.
  [[nodiscard]] std::size_t LowestOfCircle(std::size_t index) const {
    for (std::size_t steps = 0; steps < m_parents.size(); ++steps) index = *m_parents[index];
    std::size_t lowest = index;
    for (std::size_t other = *m_parents[index]; other != index; other = *m_parents[other])
      if (m_nodes[other].pid < m_nodes[lowest].pid) lowest = other;
    return lowest;
  }

  void Reach(std::size_t root, std::vector<bool>& reached) const {
    std::vector<std::size_t> pending{root};
    while (!pending.empty()) {
      const std::size_t index = pending.back();
      pending.pop_back();
      if (reached[index]) continue;
      reached[index] = true;
      pending.insert(pending.end(), m_children[index].begin(), m_children[index].end());
    }
  }

  const std::vector<TreeNode>& m_nodes;
  std::vector<std::optional<std::size_t>> m_parents;
  std::vector<std::vector<std::size_t>> m_children;  // by pid
  std::vector<std::size_t> m_byPid;
};

// One level of the way down to where the walk is.
struct Level {
  const std::vector<std::size_t>* nodes = nullptr;
  std::size_t next = 0;
  std::size_t indentation = 0;  // bytes of the branches that all its nodes have
};

}  // namespace

void WalkTree(const std::vector<TreeNode>& nodes,
              const std::function<bool(std::size_t index, const std::string& branches)>& visit) {
  Tree tree(nodes);
  const std::vector<std::size_t> roots = tree.TakeRoots();
  std::string branches;
  std::vector<Level> levels{{.nodes = &roots}};
  while (!levels.empty()) {
    Level& level = levels.back();
    branches.resize(level.indentation);
    if (level.next == level.nodes->size()) {
      levels.pop_back();
      continue;
    }
    const std::size_t index = (*level.nodes)[level.next++];
    const bool isRoot = levels.size() == 1;
    const bool isLast = level.next == level.nodes->size();
    if (!isRoot) branches += isLast ? "└─ " : "├─ ";
    if (!visit(index, branches)) return;
    branches.resize(level.indentation);
    if (!isRoot) branches += isLast ? "   " : "│  ";
    levels.push_back({.nodes = &tree.ChildrenOf(index), .indentation = branches.size()});
  }
}

}  // namespace pmhost
