// One source read for a batch of missed blocks that follow each other.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "CacheTransaction.h"
#include "MTPrimitives.h"

namespace Orvane {

class BatchRegistry;
class BufferFactory;
class BufferList;
class Cache;
class CacheBlock;
class CommandProcessor;

// What a batch works with. Outlives every batch that is not orphaned.
struct BatchContext {
  Cache* cache;
  CommandProcessor* dispatchedReadProcessor;
  CommandProcessor* copyProcessor;
  BufferFactory* factory;
  BatchRegistry* registry;
};

// Gathers blocks that are locked for reading into, then reads them with one transaction over their
// buffers. When that ends, on whatever thread, the blocks are completed and their copies queued.
//
// Lives by references: its own, given up when the read has ended, and that of its transaction. In
// the registry from the dispatch to the end.
//
// A cache that is destroyed meanwhile orphans it: the blocks are completed with kResultFailed, and
// their buffers stay here, with a reference on the factory, until the source lets go of them.
//
// Locks: the end of the read runs inside the lock of the batch's transaction; lock_ keeps it and
// the orphaning apart and is held before those of blocks.
class DispatchedReadCallback : public CacheTransaction::StatusCallback {
 public:
  DispatchedReadCallback(const BatchContext& context, CacheSource* source, std::uint32_t dueTime);

  // Takes a block that begins where the last one ends. False, with nothing changed, for another.
  // Throws when memory is short, with nothing changed.
  bool Append(CacheBlock* block);
  // Queues the read. Afterwards the batch may be gone. When memory is short for it the blocks are
  // completed with kResultError.
  void Dispatch();

  void Callback(CacheSource::Result_t result, CacheTransaction* transaction,
                std::uint64_t bytesDone) override;

  // From the destruction of the cache. REQUIRES: a reference of the caller's.
  void Orphan();

  std::uint64_t GetEnd() const { return end_; }
  std::uint64_t GetSize() const { return end_ - start_; }

 protected:
  ~DispatchedReadCallback() override;

 private:
  friend class BatchRegistry;

  // False if the source can not be asked for this range, or memory is short. Throws likewise.
  bool QueueRead();
  void EndWith(CacheSource::Result_t result, std::uint64_t bytes);
  void RefuseMoreWhereNothingCame(CacheSource::Result_t result, std::uint64_t bytes)
      ORVANE_REQUIRES(lock_);
  void CompleteBlock(CacheBlock* block, CacheSource::Result_t result, std::uint64_t bytes);

  const BatchContext context_;
  const std::unique_ptr<MTCritSec> lock_;
  CacheSource* const source_;  // alive as long as the transaction
  const std::uint32_t dueTime_;
  BufferList* list_ = nullptr;  // one reference
  std::uint64_t start_ = 0;
  std::uint64_t end_ = ~std::uint64_t{0};
  CacheTransaction* transaction_ = nullptr;  // one reference, from Dispatch to the end

  std::vector<CacheBlock*> blocks_ ORVANE_GUARDED_BY(lock_);          // none once ended
  BufferFactory* orphansFactory_ ORVANE_GUARDED_BY(lock_) = nullptr;  // one reference, or null

  // The registry's.
  DispatchedReadCallback* previous_ = nullptr;
  DispatchedReadCallback* next_ = nullptr;
};

}  // namespace Orvane
