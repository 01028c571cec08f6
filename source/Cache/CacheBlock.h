// One block-sized slot of a cache.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Cache/BlockGroup.h"
#include "Cache/BlockOrder.h"
#include "Cache/BlockQueue.h"
#include "Cache/CacheClock.h"
#include "CacheSource.h"
#include "OSServices/CritSecLock.h"

namespace Orvane {

class Buffer;
class CacheTransaction;

// A buffer, the range of a source that it holds, a count of holders, and the transactions that wait
// to be served from it. Made and owned by a CacheBlockList; used by the cache's workers, the I/O
// thread and, for invalidation and resident reads, by callers' threads.
//
// | state         | means                                           | left by                         |
// |---------------|-------------------------------------------------|---------------------------------|
// | empty         | no source key, no valid bytes, no holders       | LockForReadInto                 |
// | filling       | a reading transaction, state kResultNone        | CompleteReadInto                |
// | valid, locked | holders: transactions queued or being copied    | the last unlock                 |
// | valid, free   | no holders, data kept, stamp set                | a lock (hit, eviction), invali- |
// |               |                                                 | dation                          |
// | doomed        | serves its holders, takes no new transaction    | the last unlock: empty          |
// | dead          | no buffer; refuses every lock                   | -                               |
//
// Doomed are blocks whose fill failed, gave nothing or was overtaken by a write. The buffer is
// locked exactly while there are holders. Whoever is found by the list's index is neither empty nor
// doomed.
//
// Locks: the fields belong to the lock of the group. What a block holds (key, offset) and whether
// it is doomed changes only with the list's lock held as well, list lock first: so who holds the
// list's lock sees it stand still. The bytes are copied without any lock: the holders keep them in
// place.
//
// Finishing a transaction runs its callback, so it never happens under the lock of the group or the
// list's: queued transactions are taken out first. Transactions are released through ReportScope.
//
// A large cache has its blocks all over memory, and whoever comes for one waits for each of its
// cache lines: so it takes as much room as two of them.
class CacheBlock {
 public:
  // Takes a reference on the buffer.
  CacheBlock(BlockGroup* group, Buffer* buffer);
  ~CacheBlock();
  CacheBlock(const CacheBlock&) = delete;
  CacheBlock& operator=(const CacheBlock&) = delete;

  // Claims a free block for the transaction's next range, at most one block of it, and makes the
  // transaction both the one that is read for and the first that waits. False if the block is busy
  // or dead, the transaction has nothing left, or it is a pre-read and the block is wanted later
  // than now. Throws when memory is short, with nothing changed.
  // REQUIRES: the list's lock, if there is a list.
  bool LockForReadInto(CacheTransaction* transaction);
  // The read into the block has ended; nothing changes without one. kResultFailed fails those that
  // wait; otherwise ProcessPendingTransactions must be called.
  bool CompleteReadInto(std::uint64_t bytesRead, CacheSource::Result_t result);
  // Attaches a transaction that wants something of what the block holds or will hold. True when it
  // was; a pre-read has been completed then. *alreadyServed tells whether somebody will call
  // ProcessPendingTransactions anyhow. Throws when memory is short, with nothing changed.
  // REQUIRES: the list's lock, if there is a list.
  bool LockForCopyOutOf(CacheTransaction* transaction, bool* alreadyServed);
  // Serves all that wait, unless a read is in progress. *becameFree (may be null) becomes false:
  // who frees the block tells the cache.
  void ProcessPendingTransactions(bool* becameFree);
  // Whether nothing needs to be copied for those that wait.
  bool HasOnlyPreReads();
  // Fails all that wait, with kResultFailed. *becameFree (may be null): whether that freed it.
  void CancelPendingTransactions(bool* becameFree);
  // Reads the result of each transaction that waits.
  void DumpPendingTransactions();

  // Forgets the data if it is the source's and, with a range, meets it; those that wait fail.
  // REQUIRES: the list's lock is not held.
  void InvalidateBySource(CacheSource* source);
  void InvalidateByRange(CacheSource* source, std::uint64_t offset, std::uint64_t size);
  // From now on takes no new transaction and is empty when the last holder leaves. Those that wait
  // are served. REQUIRES: the list's lock.
  void Doom();

  // The same, for one who holds the block and no lock.
  void RefuseMore();

  // A holder that copies on its own thread: the address of the byte at `offset`, if the block is of
  // this source and has all bytes from there to the end of the range, else null. REQUIRES: the
  // list's lock.
  const char* LockForResidentRead(std::uint32_t sourceKey, std::uint64_t offset,
                                  std::uint64_t size);
  // Whether it would; without becoming a holder.
  bool HoldsResident(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size);
  // Has `copy(address)` copy the range, in the block's lock, as a use of the block that is over
  // when this returns. For few bytes: it takes half of what a hold takes. False if `copy` answers
  // false, or was not called: the block does not hold all of the range, or its buffer must be
  // locked to have an address. REQUIRES: the list's lock is not held.
  template <typename Copy>
  bool CopyResident(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size,
                    std::uint32_t dueTime, Copy copy) {
    const CacheTime now = CacheTime::Now();
    bool mustSettle = false;
    {
      CritSecLock lock(group_->lock.get());
      if (!hasFixedAddress_ || !HoldsOf(sourceKey, offset, size)) return false;
      if (!copy(dataAddress_ + (offset - sourceOffset_))) return false;
      if (lockCount_ == 0) mustSettle = Stamp(dueTime, now);
    }
    if (mustSettle) SettleIfFree();
    return true;
  }
  // The end of a hold; the due time (0: now) becomes the stamp, unless the block is wanted later by
  // up to an hour. True if the block became free: the cache has been told.
  bool Unlock(std::uint32_t dueTime);
  // The same for one who knows the time.
  bool Unlock(std::uint32_t dueTime, const CacheTime& now);

  // Drops the buffer: the block is dead.
  void ReleaseBuffer();

  Buffer* GetBuffer() const { return buffer_; }
  std::uint64_t GetCapacity() const { return capacity_; }
  std::uint64_t GetSourceOffset();
  std::uint32_t GetSourceKey();
  std::uint64_t GetValidBytes();
  CacheSource::Result_t GetState();
  std::int32_t GetLockCount();
  // Milliseconds; 0: never used.
  std::uint64_t GetStamp();
  std::size_t GetNumberOfPendingTransactions();
  bool HasReadingTransaction();

 private:
  friend class BlockIndex;
  friend class BlockOrder;
  friend class CacheBlockList;

  using Entry = BlockQueue::Entry;
  // What a transaction is served from.
  struct Content {
    CacheSource::Result_t state;
    char* address;
    std::uint64_t validBytes;
    std::uint32_t sourceKey;
    std::uint64_t sourceOffset;
  };

  void ChangePlace(std::uint32_t sourceKey, std::uint64_t sourceOffset)
      ORVANE_REQUIRES(group_->lock);
  bool HasSeenWrites() const ORVANE_REQUIRES(group_->lock);
  void LockInner() ORVANE_REQUIRES(group_->lock);
  void UnlockBuffer() ORVANE_REQUIRES(group_->lock);
  bool UnlockInner(const std::uint32_t* dueTime, const CacheTime* now);
  bool IsAttached(CacheTransaction* transaction, std::uint32_t generation)
      ORVANE_REQUIRES(group_->lock);
  bool IsBeingFilled() const ORVANE_REQUIRES(group_->lock) {
    return queue_ && queue_->reading.transaction;
  }
  void MakeRoomForPending() ORVANE_REQUIRES(group_->lock);
  bool PopPending(Entry* entry) ORVANE_REQUIRES(group_->lock);
  void GiveBackQueue() ORVANE_REQUIRES(group_->lock);
  void SetStamp(std::uint32_t dueTime, const CacheTime& now) ORVANE_REQUIRES(group_->lock);
  bool HoldsResidentLocked(std::uint64_t offset, std::uint64_t size) ORVANE_REQUIRES(group_->lock);
  bool HoldsOf(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size)
      ORVANE_REQUIRES(group_->lock) {
    return sourceKey_ == sourceKey && offset - sourceOffset_ < capacity_ &&
           HoldsResidentLocked(offset, size);
  }
  bool Stamp(std::uint32_t dueTime, const CacheTime& now) ORVANE_REQUIRES(group_->lock);
  void SettleIfFree();
  void ServeEntry(const Entry& entry, const Content& content);
  void ServeTransaction(const Entry& entry, const Content& content);
  bool FailEntry(const Entry& entry);
  void DropEntry(const Entry& entry, const char* function);
  void Invalidate(CacheSource* source, bool withRange, std::uint64_t offset, std::uint64_t size);
  bool MeetsRange(std::uint64_t offset, std::uint64_t size) const ORVANE_REQUIRES(group_->lock);
  void Forget() ORVANE_REQUIRES(group_->lock);
  void Settle() ORVANE_REQUIRES(group_->lock);
  void Place() ORVANE_REQUIRES(group_->lock);

  BlockGroup* const group_;
  const std::uint64_t capacity_;  // bytes
  Buffer* buffer_;  // one reference; null when dead. Changes only when nobody else uses the block

  // The list's lock, and that of its part of the index.
  CacheBlock* indexNext_ = nullptr;

  // The list's lock.
  CacheBlock* orderPrevious_ = nullptr;
  CacheBlock* orderNext_ = nullptr;
  std::uint64_t orderAt_ = 0;  // used: the time of use; other: the place in the heap
  BlockOrder::Place orderPlace_ = BlockOrder::Place::kNone;
  bool isIndexed_ = false;
  bool isShort_ = false;  // among the list's short blocks

  // Changes with both locks held: either will do to look at it. While the block is in the index it
  // does not change.
  std::uint32_t sourceKey_ = CacheSource::kInvalidKey;
  std::uint64_t sourceOffset_ = 0;

  // The group's lock, see above.
  std::unique_ptr<BlockQueue> queue_ ORVANE_GUARDED_BY(group_->lock);  // null: nobody waits
  // Of the buffer while it is locked; always, if it is the same all the time.
  char* dataAddress_ ORVANE_GUARDED_BY(group_->lock);
  std::uint64_t validBytes_ ORVANE_GUARDED_BY(group_->lock) = 0;
  std::uint64_t stamp_ ORVANE_GUARDED_BY(group_->lock) = 0;  // milliseconds, CacheTime
  std::uint64_t tie_ ORVANE_GUARDED_BY(group_->lock) = 0;    // microseconds, when the stamp was set
  std::int32_t lockCount_ ORVANE_GUARDED_BY(group_->lock) = 0;
  CacheSource::Result_t state_ ORVANE_GUARDED_BY(group_->lock) = CacheSource::kResultNone;
  std::uint32_t writesSeen_ ORVANE_GUARDED_BY(group_->lock) = 0;  // by the list, at the claim
  const bool hasFixedAddress_;
  bool isBufferLocked_ ORVANE_GUARDED_BY(group_->lock) = false;
  bool doomed_ ORVANE_GUARDED_BY(group_->lock) = false;
  // Not in the list's order: it must be put there when it is free.
  bool parked_ : 1 ORVANE_GUARDED_BY(group_->lock) = false;
  // The stamp is another than the one that it has in the order.
  bool isRestamped_ : 1 ORVANE_GUARDED_BY(group_->lock) = false;
};

}  // namespace Orvane
