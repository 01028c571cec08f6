// All blocks of a cache, and the questions that are asked of all of them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "Cache/BlockGroup.h"
#include "Cache/BlockIndex.h"
#include "Cache/BlockOrder.h"
#include "Cache/CacheBlock.h"
#include "Cache/ForgottenRanges.h"
#include "MTPrimitives.h"

namespace Orvane {

class BufferFactory;
class Cache;

// Takes every free buffer of the factory for life and makes a block of each. Owned by the cache.
//
// Three views of the same blocks, all guarded by lock_: the array of all; the index of those that
// hold or will hold something, by source key and offset; and the order of replacement, oldest stamp
// first. The order is put right when it is looked at: a block that was used since it was placed is
// placed anew, one that is busy leaves it until it is free. So a hit moves nothing, and a search
// for a free block passes over a busy one only once.
//
// To look something up in the index does not take lock_; to become a holder of a block does, since a
// free one may be about to be claimed. lock_ comes before the locks of the blocks and of transactions.
// Nothing that may finish a transaction is called with it.
class CacheBlockList {
 public:
  // Takes a reference on the factory. Memory shortage while the blocks are made leaves fewer.
  CacheBlockList(Cache* cache, BufferFactory* factory);
  // REQUIRES: nobody uses a block. Gives the buffers back.
  virtual ~CacheBlockList();

  // The block to serve the next of what the transaction still wants, attached to it; null if there
  // is none. Looks from *cursor on, an offset of the source, and moves it. See LockForCopyOutOf.
  CacheBlock* FindBlockToCopyOutOf(CacheTransaction* transaction, bool* alreadyServed,
                                   std::uint64_t* cursor);
  // The oldest free block, claimed for the transaction; null if there is none for it.
  CacheBlock* FindBlockToReadInto(CacheTransaction* transaction);

  // Fails the transactions that wait for blocks of the source.
  void CancelSource(CacheSource* source);
  // The same, and forgets all data of the source.
  void PurgeSource(CacheSource* source);
  // The same for the blocks that meet the range.
  void InvalidateRange(CacheSource* source, std::uint64_t offset, std::uint64_t size);
  // A write to the range has ended: what blocks hold of it, and what they hold of the end of the
  // data, takes no new transaction and is forgotten when the last holder leaves.
  void InvalidateWritten(CacheSource* source, std::uint64_t offset, std::uint64_t size);
  void Dump();

  // The block in the index for the place that `offset` is in, or null. It may hold something else
  // as soon as this returns.
  CacheBlock* FindBlock(std::uint32_t sourceKey, std::uint64_t offset);
  // Whether blocks hold the whole range; each of them when it was looked at.
  bool HoldsResident(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size);
  // A number for WasForgotten.
  std::uint32_t GetForgottenNumber() const { return forgotten_.GetNumber(); }
  // Whether blocks of the range were invalidated since, as far back as is known; a write that has
  // ended counts as invalidated when it began. REQUIRES: size > 0, and no range past 2^64.
  bool WasForgotten(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size,
                    std::uint32_t since);
  // What one block has of a range, for its holder.
  struct ResidentPiece {
    CacheBlock* block;
    const char* address;
    std::uint64_t bytes;
  };
  // Holds the blocks of a range, from `offset` on, up to `most` of them, and answers how many; 0,
  // with nothing held, unless each has its whole piece of the range. The caller unlocks them.
  std::size_t LockResident(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size,
                           ResidentPiece* pieces, std::size_t most);

  std::uint64_t GetBlockSize() const { return blockSize_; }
  std::uint64_t GetBlockCount() const { return blocks_.size(); }
  // The block at a place of the array, in tests.
  CacheBlock* GetBlock(std::size_t index) { return &blocks_[index]; }

  // For the blocks, which call them with the lock held.
  // Dooms whatever else is in the index for a place that `block` is about to hold.
  // REQUIRES: no lock of a block is held.
  void MakeWay(CacheBlock* block, std::uint32_t sourceKey, std::uint64_t sourceOffset);
  // Enters a block that is being filled; answers the number of writes seen so far.
  std::uint32_t Link(CacheBlock* block, std::uint32_t sourceKey, std::uint64_t sourceOffset);
  void Unlink(CacheBlock* block);
  // Into the order of replacement, from whatever place in it, and out of it.
  void Place(CacheBlock* block, std::uint64_t stamp, std::uint64_t setAt) {
    order_.Put(block, stamp, setAt);
  }
  void Park(CacheBlock* block) { order_.TakeOut(block); }
  void AddShortBlock(CacheBlock* block);
  bool HasSeenWritesSince(std::uint32_t sourceKey, std::uint32_t writes) const {
    return writes_[sourceKey % kWriteCounters] != writes;
  }

  // Holds the lock of a list for the length of a block; of none, for null.
  class ORVANE_SCOPED_CAPABILITY Lock {
   public:
    explicit Lock(CacheBlockList* list) ORVANE_NO_THREAD_SAFETY_ANALYSIS
        : section_(list ? list->lock_.get() : nullptr) {
      if (section_) section_->Enter();
    }
    ~Lock() ORVANE_RELEASE() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
      if (section_) section_->Leave();
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    MTCritSec* const section_;
  };

 private:
  void MakeBlocks(Cache* cache);
  BlockGroup* GetGroupOfNext(Cache* cache);
  CacheBlock* FindCandidate(bool* goesOn);
  void NoteForgotten(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size);
  // Calls visit(block) for each block that holds something of the range; with no lock held.
  template <typename Visit>
  void VisitBlocksOfRange(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size,
                          Visit visit);

  BufferFactory* const factory_;  // one reference
  const std::uint64_t blockSize_;
  const std::unique_ptr<MTCritSec> lock_;
  // Constant once constructed.
  std::vector<std::unique_ptr<BlockGroup>> groups_;
  std::deque<CacheBlock> blocks_;

  BlockOrder order_;
  BlockIndex index_;
  ForgottenRanges forgotten_;
  // By source key: those in the index whose fill told where the data ends.
  std::set<std::pair<std::uint32_t, CacheBlock*>> shortBlocks_;
  // Writes that have ended. Sources share counters, at the price of a fill now and then that is
  // thought to be overtaken.
  static constexpr std::size_t kWriteCounters = 64;
  std::array<std::uint32_t, kWriteCounters> writes_{};
};

}  // namespace Orvane
