// The block cache: reads through it are served from memory where they can, pre-reads fill it ahead
// of need.
#pragma once

#include <cstdint>

#include "CacheSource.h"
#include "Export.h"
#include "MTPrimitives.h"
#include "SharedObject.h"

namespace Orvane {

class Buffer;
class BufferFactory;
class BufferList;
class CacheCommand;
class CacheParts;
class CacheTransaction;
class ReportRegistry;

// Keeps blocks of the sources that are attached to it (CacheSource::UseCache), each in one buffer
// of a buffer factory. File sources use it by themselves: their reads and pre-reads go through it,
// and their writes make it forget what they overwrite. Applications with sources of their own, or
// with transactions of their own, call Read.
//
// Blocks are filled from the source when they are missed, adjacent ones with one list read; the
// free block that was used longest ago, or whose latest due time is the oldest, is evicted first.
// Work is done in order of due time by three threads per cache; a source read that takes its time
// does not hold up what is in memory. Nothing runs while nothing is asked for.
//
// Due times are milliseconds on the clock of MTInterface::GetCurrentTimeMilli; kDueASAP goes before
// all others.
//
// Callbacks of cached requests run once per request that was started, possibly before the start has
// returned: on the I/O thread, on a thread of the cache, or inside a Cancel, Purge, Invalidate,
// Close, write or last release on the thread that called it. No lock of the library is held.
// Asynchronous reads and writes, PreRead, Invalidate, Cancel, Purge, Close, statistics and any
// release, the last one of source or cache too, work inside; synchronous reads and writes answer
// kResultError on threads of the library. Never block there: others wait meanwhile. Outside
// callbacks, hold no lock that a callback takes while calling something that may report.
//
// A cache is safe from any thread. When its last reference is given up on a thread of the library
// it is destroyed a little later, by a helper thread, otherwise inside that DecRef; then its
// threads have ended. Source reads that are still under way are not waited for: requests that wait
// for them fail with kResultFailed, and their buffers go back to the factory when they end. A
// process that was forked from one with caches must not use or release them.
class ORVANE_EXPORT Cache : public SharedObject {
 public:
  // As soon as possible; equal to CacheSource::kDueASAP.
  static constexpr std::uint32_t kDueASAP = 0;

  // Takes every free buffer of the factory, for life, and a reference on the factory. Native files
  // need buffers of whole, aligned pages: a BufferFactoryPhysMem. Without a factory, or without
  // free buffers, every read answers kResultError. Throws when memory or threads are short; nothing
  // is left behind.
  explicit Cache(BufferFactory* factory);

  // Starts a read. kResultPending: the outcome comes through the transaction's callback, exactly
  // once. Refused, with nothing changed and no callback: kResultNotSupported for no transaction,
  // one without a source and one whose range passes 2^64; kResultError for one that is in use, or
  // over and not set up again. Refused with the answer as the transaction's result, so that its
  // callback has run when this returns: kResultFailed while the source is being cancelled,
  // kResultError without blocks or memory, kResultOutOfRange for one of size 0.
  CacheSource::Result_t Read(CacheTransaction* transaction);

  // Has the blocks that the range meets (bytes) filled, in order of due time, unless they are there
  // or on their way; at most as many as the cache has, from the start of the range. Neither
  // reported nor repeated: a pre-read that finds no free block is dropped, and so are all while the
  // source is being cancelled. Never evicts a block that is wanted later than now: give pre-reads
  // due times at which the data is really needed, or kDueASAP. A source that supports pre-reads
  // itself is asked to make them instead.
  void PreRead(CacheSource* source, std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime,
               MTThread::MTPriority priority);

  // Forgets what blocks hold of the range (bytes); reads that wait for them fail with
  // kResultFailed.
  void Invalidate(CacheSource* source, std::uint64_t offset, std::uint64_t size);
  // Cancels all reads and pre-reads of the source, with kResultFailed, and all other requests of
  // the source as well, writes included. Each is reported before it returns, and so is what has
  // ended just before; inside a callback it does not wait for reports that other threads make.
  // REQUIRES: a reference on the source that stays until it returns; reports may give up others.
  void Cancel(CacheSource* source);
  // Cancel, and forgets all blocks of the source.
  void Purge(CacheSource* source);

  // Has the cache look again for what could not be done before. Does nothing if nothing waits.
  void NotifySomethingChanged();

  // Bytes; 0 without a factory.
  std::uint64_t GetBlockSize() const;

  // Counts blocks: read from memory, missed, read from the source, filled by pre-reads. Off at
  // first, when all answers are 0; turning it on while it is on keeps the counts, turning it off
  // discards them. A block that is being filled by a pre-read counts as a hit.
  void CollectCacheStats(bool on);
  void ResetCacheStats();
  std::uint32_t GetCacheHits();
  std::uint32_t GetCacheMisses();
  std::uint32_t GetCacheDirectReads();
  std::uint32_t GetCachePreReads();

  // Visits what waits for blocks, for a debugger to look on.
  void Dump();

  // On a thread of the library the last reference only starts the destruction.
  long DecRef(const char* file, const char* function, unsigned long line) override;

 protected:
  ~Cache() override;
  // KEPT: member-wise. A live cache must not be copied.
  Cache(const Cache&) = default;
  Cache& operator=(const Cache&) = default;

 private:
  friend class CacheReaper;
  friend class FileSource;
  friend class ReadCommand;
  friend class ResidentReadCommand;
  friend class ResultBufferListWrapper;
  friend class WriteCallbackWrapper;

  // Read, without making refusals the transaction's result.
  CacheSource::Result_t Start(CacheTransaction* transaction, bool* isInUse);
  void QueuePreRead(CacheSource* source, std::uint64_t offset, std::uint32_t dueTime,
                    MTThread::MTPriority priority);
  void CancelAndReport(CacheSource* source, bool purge);
  void CancelSource(CacheSource* source);
  bool ProcessTransaction(CacheTransaction* transaction);
  void InvalidateWritten(CacheSource* source, std::uint64_t offset, std::uint64_t size);
  // Copies the range into the buffer, or into the list for null, if blocks hold all of it; false,
  // with nothing to be relied on in the memory, otherwise.
  bool ReadResident(CacheSource* source, std::uint64_t offset, Buffer* buffer, BufferList* list,
                    std::uint64_t size, std::uint32_t dueTime);
  // Whether ReadResident would, now. The number is for WasForgotten.
  bool HoldsResident(CacheSource* source, std::uint64_t offset, std::uint64_t size,
                     std::uint32_t* number);
  // Whether blocks of the range were invalidated after HoldsResident gave the number.
  bool WasForgotten(CacheSource* source, std::uint64_t offset, std::uint64_t size,
                    std::uint32_t number);
  // Hands a command to the thread for copies. Throws when memory is short.
  void QueueCopy(CacheCommand* command);
  ReportRegistry* GetReports();
  bool IsCancelling(CacheSource* source);

  CacheParts* parts_ = nullptr;  // owned; null while it is constructed
  Cache* nextToReap_ = nullptr;  // CacheReaper's
};

}  // namespace Orvane
