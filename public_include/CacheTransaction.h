// One read or pre-read request on its way through a cache.
#pragma once

#include <cstddef>
#include <cstdint>

#include "CacheSource.h"
#include "Export.h"
#include "MTPrimitives.h"
#include "SharedObject.h"

namespace Orvane {

class Buffer;
class BufferList;
class Cache;
class CacheTransactionWorkResultCallback;
class WorkTracker;

// A request against one source: a range of it, and either a buffer list to fill or, for a pre-read,
// nothing but a size. FileSource makes one for every cached read; applications that read a source
// of their own through Cache::Read make them themselves and may use one again and again.
//
// States:
//
// | state    | meaning                                     | left by                            |
// |----------|---------------------------------------------|------------------------------------|
// | empty    | no source                                   | Setup                              |
// | loaded   | source, range, list and callback are set    | Cache::Read, Cleanup, Setup        |
// | in use   | a cache works on it; Setup, Cleanup refuse  | the report                         |
// | finished | reported; the result can be asked for       | Cleanup, Setup                     |
//
// Ownership: one reference each on source, list and callback, from Setup to Cleanup, the next Setup
// or destruction.
//
// The cache hands out ranges of the request to its blocks and workers, which may complete them in
// any order and at once; when everything, or everything before the end of the data, is done, or
// something failed, the request is finished and the callback is told, exactly once. From then on
// the library touches neither the list nor its buffers.
//
// Offsets are bytes of the source unless said otherwise, sizes are bytes. Safe from any thread
// while in use; otherwise one thread at a time.
class ORVANE_EXPORT CacheTransaction : public SharedObject {
 public:
  // Told when a transaction finishes. Runs on the thread that finished it, inside the lock of the
  // transaction: it must not block or wait for another thread, and reads nothing on. Exceptions are
  // swallowed.
  class ORVANE_EXPORT StatusCallback : public SharedObject {
   public:
    // `bytesDone`: the valid leading bytes; 0 unless the result is kResultOK or kResultPartial.
    virtual void Callback(CacheSource::Result_t result, CacheTransaction* transaction,
                          std::uint64_t bytesDone) = 0;

   protected:
    StatusCallback();
    ~StatusCallback() override;
  };

  CacheTransaction();
  // The same and Setup with normal priority; its result is lost.
  CacheTransaction(CacheSource* source, std::uint64_t offset, BufferList* list,
                   StatusCallback* callback, std::uint32_t dueTime);

  // Loads the transaction. List and callback may be null. False, with nothing changed, while a
  // cache uses it, when memory is short, and for a range that would wrap; false for a null source,
  // which leaves the transaction empty. Without a list there is nothing to transfer: GetResult
  // answers kResultError.
  bool Setup(CacheSource* source, std::uint64_t offset, BufferList* list, StatusCallback* callback,
             std::uint32_t dueTime, MTThread::MTPriority priority);
  // Releases source, list and callback. False, with nothing changed, while a cache uses it.
  bool Cleanup();

  CacheSource* GetSource() const { return source_; }
  std::uint64_t GetOffset() const { return offset_; }
  BufferList* GetBufferList() const { return bufferList_; }
  // The size of a pre-read, else the total size of the list, else 0.
  std::uint64_t GetSize() const;
  // Milliseconds on the clock of MTInterface::GetCurrentTimeMilli; CacheSource::kDueASAP: as soon
  // as possible.
  std::uint32_t GetDueTime() const { return dueTime_; }
  MTThread::MTPriority GetPriority() const { return priority_; }
  bool IsPreReadTransaction() const { return preReadSize_ != 0; }

  // The buffer that holds the byte of the source at `offset`, without a reference for the caller;
  // null without a list and outside of the transaction. See BufferList::GetBufferAtOffset.
  Buffer* GetBufferAtOffset(std::uint64_t offset, std::uint64_t* offsetInBuffer,
                            std::uint64_t* bytesThere);

  // Takes a range, clipped to the transaction, out of what is still to be handed out; the range may
  // shrink. False if nothing of it was left.
  // KEPT: `offset` becomes the start of the clipped range, also when nothing was left there and the
  // bytes taken lie further up.
  bool Reserve(std::uint64_t& offset, std::uint64_t& size);
  // Takes the first range that is still to be handed out, at most maxSize bytes of it (all bits
  // set: no limit). False, with both 0, if there is none.
  bool GetRangeToComplete(std::uint64_t& offset, std::uint64_t& size, std::uint64_t maxSize);
  // Gives a range back to be handed out again. These operations and Complete finish the transaction
  // with kResultError when there is no memory to keep account of its ranges.
  void ReturnRangeToComplete(std::uint64_t offset, std::uint64_t size);
  bool StillRangesToComplete();

  // A range has come to an end. May finish the transaction: when everything is done, or everything
  // before the lowest end of the data that a completion has named (kResultPartial at the end of its
  // range, kResultOutOfRange at its start), or at once with a failure.
  void Complete(std::uint64_t offset, std::uint64_t size, CacheSource::Result_t result);
  // The overall result, without completing bytes; a failure finishes the transaction.
  void SetResult(CacheSource::Result_t result);
  // kResultPending until finished, then the result; kResultError before the first Setup with
  // something to transfer. *bytes (not null) becomes the valid leading bytes.
  CacheSource::Result_t GetResult(std::uint64_t* bytes);

  // Copies what lies inside the transaction of `data`, which holds [offset, offset + size) of the
  // source, into the list and completes it with `result`. For a pre-read nothing is copied.
  // *copiedOffset and *copiedSize (may be null) become the range that was copied. Answers
  // kResultOutOfRange when the two do not meet; the overall result when all that met was copied;
  // kResultLockFailed or kResultError when a buffer did not take the bytes.
  CacheSource::Result_t CopyInto(void* data, std::uint64_t offset, std::uint64_t size,
                                 CacheSource::Result_t result, std::uint64_t* copiedOffset,
                                 std::uint64_t* copiedSize);

  // Hands the whole transaction to its source, past the cache. See CacheSource::ReadTransaction.
  CacheSource::Result_t ReadDirect();
  void PreReadDirect();
  bool SupportsPreReads();

 protected:
  ~CacheTransaction() override;
  // KEPT: member-wise. A live transaction must not be copied.
  CacheTransaction(const CacheTransaction&) = default;
  CacheTransaction& operator=(const CacheTransaction&) = default;

 private:
  friend class CacheTransactionWorkResultCallback;
  friend class TransactionInternals;

  bool SetupForPreRead(CacheSource* source, std::uint64_t offset, std::uint64_t size,
                       std::uint32_t dueTime, MTThread::MTPriority priority);
  bool Load(CacheSource* source, std::uint64_t offset, BufferList* list, StatusCallback* callback,
            std::uint64_t preReadSize, std::uint32_t dueTime, MTThread::MTPriority priority);
  bool BeginReload();
  bool MakeTracker();
  void StartTracker(bool hasData, std::uint64_t size);
  void ReleaseFields();
  bool ClipToRange(std::uint64_t& offset, std::uint64_t& size) const;
  std::uint32_t CopyToBuffers(std::byte* data, std::uint64_t offset, std::uint64_t count,
                              std::uint64_t* copied);
  bool SetCacheInUseBy(Cache* cache);
  bool ClearCacheInUseBy(Cache* cache);

  std::uint32_t stateWord_;  // counts the loads; guarded by the tracker's lock once there is one
  CacheSource* source_;      // one reference, or null
  std::uint64_t offset_;
  BufferList* bufferList_;          // one reference, or null
  StatusCallback* statusCallback_;  // one reference, or null
  MTAtomicPointer* cacheInUseBy_;   // owned
  WorkTracker* workTracker_;        // owned; null until first needed, then kept
  std::uint32_t dueTime_;
  MTThread::MTPriority priority_;
  std::uint64_t preReadSize_;
  CacheTransactionWorkResultCallback* workResultCallback_;  // owned; null until first needed
};

}  // namespace Orvane
