// The order in which blocks are replaced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Orvane {

class CacheBlock;

// Blocks by stamp, the oldest first; of equal stamps by the time at which they were set; of those
// that agree in this too by the order in which they were placed. Guarded by the lock of the block
// list.
//
// | place | who stands there                                     | order                          |
// |-------|------------------------------------------------------|--------------------------------|
// | empty | blocks without a stamp, before all others            | first in, first out            |
// | used  | stamped with the time of their use, no sooner than   | first in, first out            |
// |       | any that came here before                            |                                |
// | other | wanted at another time, or placed after their turn   | a heap by stamp, time and turn |
//
// Blocks are mostly used and placed in one order, so that placing one and taking out the first
// touch a block and its neighbour, however many there are. The heap is logarithmic.
class BlockOrder {
 public:
  enum class Place : std::uint8_t { kNone, kEmpty, kUsed, kOther };

  // For so many blocks; nothing else allocates. Throws when memory is short.
  void Reserve(std::size_t blocks);
  // Puts the block behind its equals, whether it was in the order or not. The stamp in
  // milliseconds, the time at which it was set in microseconds; 0 and 0 for none.
  void Put(CacheBlock* block, std::uint64_t stamp, std::uint64_t setAt);
  // Does nothing for a block that is not in the order.
  void TakeOut(CacheBlock* block);
  // Null if there is none.
  CacheBlock* GetFirst() const;

 private:
  struct Queue {
    CacheBlock* first = nullptr;
    CacheBlock* last = nullptr;
  };
  struct Entry {
    std::uint64_t stamp;
    std::uint64_t setAt;
    std::uint64_t turn;
    CacheBlock* block;
  };

  static void Append(Queue* queue, CacheBlock* block);
  static void Unlink(Queue* queue, CacheBlock* block);
  static bool IsBefore(const Entry& a, const Entry& b);
  void PutIntoHeap(const Entry& entry);
  void TakeOutOfHeap(std::size_t place);
  void MoveUp(std::size_t place, const Entry& entry);
  void MoveDown(std::size_t place, const Entry& entry);
  void SetEntry(std::size_t place, const Entry& entry);

  Queue empty_;
  Queue used_;
  std::uint64_t latestUse_ = 0;  // of all that ever stood in used_
  std::vector<Entry> heap_;      // each has four children
  std::uint64_t turns_ = 0;
};

}  // namespace Orvane
