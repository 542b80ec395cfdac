// A bounded table by pid that forgets what was touched longest ago.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "process_manager/types.h"

namespace qor::process_manager {

// An intrusive hash table with a list through the same nodes, from hot to cold. There are as many buckets as
// the capacity, made once: it never rehashes, and its memory is bounded by the capacity and what the values
// own.
template <class Value>
class ProcessCacheTable {
 public:
  explicit ProcessCacheTable(std::size_t capacity) : m_buckets(capacity, nullptr) {}
  ~ProcessCacheTable() { Clear(); }
  ProcessCacheTable(const ProcessCacheTable&) = delete;
  ProcessCacheTable& operator=(const ProcessCacheTable&) = delete;

  [[nodiscard]] std::size_t Size() const noexcept { return m_size; }
  [[nodiscard]] std::size_t Capacity() const noexcept { return m_buckets.size(); }

  // The value of `key`, which becomes the hottest; null if there is none. Valid until the next change.
  Value* Find(PidType key) noexcept {
    Node* const node = FindNode(key);
    if (node == nullptr) return nullptr;
    Unlink(*node);
    LinkHot(*node);
    return &node->value;
  }

  // Replaces what `key` had; a full table drops its coldest value first.
  Value& Insert(PidType key, Value value) {
    auto owned = std::make_unique<Node>(key, std::move(value));
    Erase(key);
    if (m_size >= Capacity()) EraseNode(*m_cold);
    Node& node = *owned.release();
    Node*& bucket = BucketOf(key);
    node.nextInBucket = std::exchange(bucket, &node);
    LinkHot(node);
    ++m_size;
    return node.value;
  }

  bool Erase(PidType key) noexcept {
    Node* const node = FindNode(key);
    if (node != nullptr) EraseNode(*node);
    return node != nullptr;
  }

  void Clear() noexcept {
    while (m_cold != nullptr) EraseNode(*m_cold);
  }

 private:
  struct Node {
    Node(PidType key_, Value value_) : key(key_), value(std::move(value_)) {}

    PidType key;
    Node* nextInBucket = nullptr;
    Node* hotter = nullptr;
    Node* colder = nullptr;
    Value value;
  };

  Node*& BucketOf(PidType key) noexcept { return m_buckets[key % m_buckets.size()]; }

  Node* FindNode(PidType key) noexcept {
    Node* node = BucketOf(key);
    while (node != nullptr && node->key != key) node = node->nextInBucket;
    return node;
  }

  void LinkHot(Node& node) noexcept {
    node.hotter = nullptr;
    node.colder = std::exchange(m_hot, &node);
    (node.colder != nullptr ? node.colder->hotter : m_cold) = &node;
  }

  void Unlink(Node& node) noexcept {
    (node.hotter != nullptr ? node.hotter->colder : m_hot) = node.colder;
    (node.colder != nullptr ? node.colder->hotter : m_cold) = node.hotter;
  }

  void EraseNode(Node& node) noexcept {
    Node** link = &BucketOf(node.key);
    while (*link != &node) link = &(*link)->nextInBucket;
    *link = node.nextInBucket;
    Unlink(node);
    --m_size;
    delete &node;
  }

  std::vector<Node*> m_buckets;
  Node* m_hot = nullptr;
  Node* m_cold = nullptr;
  std::size_t m_size = 0;
};

}  // namespace qor::process_manager
