// The transactions that a block is read for and that wait for it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Orvane {

class CacheTransaction;

// A block has one only while it has holders: at most times most blocks have none. Owns no
// references; the block does. Guarded by the lock of the block.
class BlockQueue {
 public:
  // What is needed of a transaction after its report is kept here.
  struct Entry {
    CacheTransaction* transaction;  // one reference
    std::uint32_t generation;
    std::uint32_t sourceKey;
    std::uint32_t dueTime;
    bool isPreRead;
  };

  // For one more. Throws when memory is short, with nothing changed.
  void MakeRoom() {
    if (waiting_.size() < waiting_.capacity()) return;
    // As many were served as wait, at least: their room will do.
    if (head_ > 0 && head_ >= waiting_.size() / 2) return DropServed();
    waiting_.reserve(std::max<std::size_t>(2, 2 * waiting_.size()));
  }
  // REQUIRES: there is room.
  void Push(const Entry& entry) { waiting_.push_back(entry); }
  // The one that has waited longest; false if there is none.
  bool Pop(Entry* entry) {
    if (head_ == waiting_.size()) return false;
    *entry = waiting_[head_++];
    if (head_ == waiting_.size()) DropServed();
    return true;
  }
  // All, the one that has waited longest first.
  std::vector<Entry> TakeAll() {
    DropServed();
    std::vector<Entry> all;
    all.swap(waiting_);
    return all;
  }
  std::span<const Entry> GetWaiting() const { return std::span(waiting_).subspan(head_); }
  // Gives back what a queue seldom needs. REQUIRES: nobody waits.
  void GiveBackRoom() {
    if (waiting_.capacity() > kRoomKept) std::vector<Entry>().swap(waiting_);
  }

  Entry reading{};  // one reference, or null

 private:
  static constexpr std::size_t kRoomKept = 4;

  void DropServed() {
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }

  std::vector<Entry> waiting_;  // from head_ on; first in, first out
  std::size_t head_ = 0;
};

}  // namespace Orvane
