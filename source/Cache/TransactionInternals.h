// What the cache needs of a transaction and nobody else may use.
#pragma once

#include <cstdint>

#include "CacheTransaction.h"

namespace Orvane {

class TransactionInternals {
 public:
  static bool SetupForPreRead(CacheTransaction* transaction, CacheSource* source,
                              std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime,
                              MTThread::MTPriority priority);
  // Before the first Setup of a transaction that is finished while blocks are completed inside its
  // lock. Throws when memory is short.
  static void MarkAsBatch(CacheTransaction* transaction);
  // True when the transaction was not in use and is now; judged by a second look, because the
  // exchange itself reports success by 32 bits.
  static bool SetCacheInUseBy(CacheTransaction* transaction, Cache* cache);
  static void ClearCacheInUseBy(CacheTransaction* transaction, Cache* cache);
  // Ends a transaction of size 0 with kResultOutOfRange; makes the tracker if there is none.
  static void FinishWithoutData(CacheTransaction* transaction);
  // Counts the loads of the transaction: whoever keeps a pointer to it beyond its report notices
  // that it has been loaded anew.
  static std::uint32_t GetGeneration(CacheTransaction* transaction);
  // True once finished, or loaded anew since.
  static bool IsOver(CacheTransaction* transaction, std::uint32_t generation);
  // The first range still to be handed out that ends behind `from` (offsets of the source), less
  // what lies before it; takes nothing.
  static bool PeekRange(CacheTransaction* transaction, std::uint64_t from, std::uint64_t* offset,
                        std::uint64_t* size);
  // Gives up the reference on the source early; list, callback and range stay.
  static void ReleaseSource(CacheTransaction* transaction);

 private:
  friend class TransactionBorrow;
  static bool Borrow(CacheTransaction* transaction, std::uint32_t generation);
  static void Return(CacheTransaction* transaction);
};

// Uses a transaction for the length of a block: its fields, list and buffers stay as they are,
// since a finish is reported only when nothing is borrowed. Not held when the transaction is
// finished or was loaded anew: then nothing of it may be touched. Holds no reference; its maker
// does.
class TransactionBorrow {
 public:
  TransactionBorrow(CacheTransaction* transaction, std::uint32_t generation)
      : transaction_(TransactionInternals::Borrow(transaction, generation) ? transaction
                                                                           : nullptr) {}
  ~TransactionBorrow() {
    if (transaction_) TransactionInternals::Return(transaction_);
  }
  TransactionBorrow(const TransactionBorrow&) = delete;
  TransactionBorrow& operator=(const TransactionBorrow&) = delete;

  bool IsHeld() const { return transaction_ != nullptr; }

 private:
  CacheTransaction* const transaction_;
};

}  // namespace Orvane
