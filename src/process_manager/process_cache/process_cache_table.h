// A bounded table by pid that forgets what was touched longest ago.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "process_manager/types.h"

namespace qor::process_manager {

// A hash table and a list from hot to cold through the same nodes. There are as many buckets as the capacity,
// a bucket is the key modulo their number, and all memory for nodes is taken at construction: the table never
// rehashes, and a value stays where it was made until it is erased. The links of the nodes lie apart from the
// values, 16 bytes each, so that a walk along a bucket and a move to the hot end stay in the processor's
// cache although the values don't; the pages of values that were never made are never touched.
//
// No thread safety of its own.
template <class Value>
class ProcessCacheTable {
 public:
  // `capacity`: at least 1.
  explicit ProcessCacheTable(std::uint32_t capacity)
      : m_buckets(capacity, kNone), m_links(capacity + 1), m_values(Allocate(m_links.size())) {}
  ~ProcessCacheTable() {
    Clear();
    std::allocator<Value>().deallocate(m_values, m_links.size());
  }
  ProcessCacheTable(const ProcessCacheTable&) = delete;
  ProcessCacheTable& operator=(const ProcessCacheTable&) = delete;

  [[nodiscard]] std::size_t Size() const noexcept { return m_size; }
  [[nodiscard]] std::size_t Capacity() const noexcept { return m_buckets.size(); }

  // The value of `key`, which becomes the hottest; null if there is none. Valid until it is erased.
  Value* Find(PidType key) noexcept {
    const Index node = FindNode(key);
    if (node == kNone) return nullptr;
    if (node != m_hot) {
      Unlink(node);
      LinkHot(node);
    }
    return &m_values[node];
  }

  // Makes the value of `key`, the hottest, in place of what `key` had; a table that is full without that one
  // drops its coldest value. The arguments may refer to values of the table. When the constructor throws, the
  // table is as it was.
  template <class... Args>
  Value& Emplace(PidType key, Args&&... args) {
    // There is one node more than the capacity, so that the new value is made before an old one goes.
    const bool fresh = m_free == kNone;
    const Index node = fresh ? m_used : m_free;
    std::construct_at(&m_values[node], std::forward<Args>(args)...);
    if (fresh)
      ++m_used;
    else
      m_free = m_links[node].nextInBucket;

    Erase(key);
    if (m_size >= Capacity()) EraseNode(m_cold);
    m_links[node].key = key;
    m_links[node].nextInBucket = std::exchange(BucketOf(key), node);
    LinkHot(node);
    ++m_size;
    return m_values[node];
  }

  // False: there was none.
  bool Erase(PidType key) noexcept {
    const Index node = FindNode(key);
    if (node != kNone) EraseNode(node);
    return node != kNone;
  }

  void Clear() noexcept {
    while (m_cold != kNone) EraseNode(m_cold);
  }

 private:
  using Index = std::uint32_t;  // of a node: its links and its value
  static constexpr Index kNone = 0xffffffff;

  struct Links {
    PidType key = 0;
    Index nextInBucket = kNone;  // of a free node: the next free one
    Index hotter = kNone;
    Index colder = kNone;
  };

  static Value* Allocate(std::size_t count) { return std::allocator<Value>().allocate(count); }

  Index& BucketOf(PidType key) noexcept {
    return m_buckets[key % static_cast<std::uint32_t>(m_buckets.size())];
  }

  Index FindNode(PidType key) noexcept {
    Index node = BucketOf(key);
    while (node != kNone && m_links[node].key != key) node = m_links[node].nextInBucket;
    return node;
  }

  void LinkHot(Index node) noexcept {
    m_links[node].hotter = kNone;
    m_links[node].colder = std::exchange(m_hot, node);
    const Index colder = m_links[node].colder;
    (colder != kNone ? m_links[colder].hotter : m_cold) = node;
  }

  void Unlink(Index node) noexcept {
    const auto [key, nextInBucket, hotter, colder] = m_links[node];
    (hotter != kNone ? m_links[hotter].colder : m_hot) = colder;
    (colder != kNone ? m_links[colder].hotter : m_cold) = hotter;
  }

  void EraseNode(Index node) noexcept {
    Index* link = &BucketOf(m_links[node].key);
    while (*link != node) link = &m_links[*link].nextInBucket;
    *link = m_links[node].nextInBucket;
    Unlink(node);
    --m_size;
    std::destroy_at(&m_values[node]);
    m_links[node].nextInBucket = std::exchange(m_free, node);
  }

  std::vector<Index> m_buckets;
  std::vector<Links> m_links;
  Value* const m_values;  // as many as links; those of nodes in use are alive
  Index m_free = kNone;   // the first of the nodes that were in use before
  Index m_used = 0;       // nodes from here on were never in use
  Index m_hot = kNone;
  Index m_cold = kNone;
  std::size_t m_size = 0;
};

}  // namespace qor::process_manager
