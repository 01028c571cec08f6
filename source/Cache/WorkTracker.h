// Which parts of a transaction are still to be handed out, which are done, and whether it is over.
#pragma once

#include <cstdint>
#include <memory>

#include "Cache/RangeList.h"
#include "CacheSource.h"
#include "MTPrimitives.h"
#include "OSServices/LockClass.h"

namespace Orvane {

// What a completion and a tracker say, instead of a Result_t.
//
// | code            | Result_t that becomes it        | Result_t it is reported as |
// |-----------------|---------------------------------|----------------------------|
// | kWorkPending    | kResultNone, kResultPending     | kResultPending             |
// | kWorkDone       | kResultOK                       | kResultOK                  |
// | kWorkPartial    | kResultPartial                  | kResultPartial             |
// | kWorkFailed     | kResultFailed                   | kResultFailed              |
// | kWorkOutOfRange | kResultOutOfRange               | kResultOutOfRange          |
// | kWorkError      | every other number              | kResultError               |
enum WorkCode : std::uint32_t {
  kWorkPending = 0,
  kWorkDone = 1,
  kWorkPartial = 2,
  kWorkFailed = 3,
  kWorkOutOfRange = 4,
  kWorkError = 5,
};
WorkCode ToWorkCode(CacheSource::Result_t result);
CacheSource::Result_t ToResult(WorkCode code);

// The bookkeeping of one CacheTransaction, which owns it; its blocks and workers call it at once
// from several threads. All offsets are relative to the start of the transaction, all numbers are
// bytes.
//
// A range is pending until it is handed out (GetNextRange, Reserve) or completed; it may be
// returned and is pending again. It is done when it was completed with kWorkDone or kWorkPartial.
//
// The end of the data is the total size until a completion says that it comes earlier: kWorkPartial
// at the end of its range, kWorkOutOfRange at its start; the lowest of them counts, in whatever
// order they come. Nothing is said about the data by a completion behind the total size.
//
// | state    | meaning                                          | left by                     |
// |----------|--------------------------------------------------|-----------------------------|
// | open     | ranges come and go                               | a finish                    |
// | finished | the result stands; every operation changes nothing | Reset                     |
//
// Finishes: kWorkFailed and kWorkError, at once; else the completion after which the done ranges
// reach from 0 to the end of the data. If that is 0, because a completion said so, no byte is valid
// whatever else is done: it finishes when nothing is done, or byte 0 is, or at least nobody is left
// who could do it, byte 0 having been handed out.
// The result is kWorkDone if nobody spoke of the end of the data; kWorkPartial with the leading
// bytes if there are any before it; without any, what the completion that set it said, kWorkPartial
// if there were both.
//
// A finish is reported once: at once when nothing is borrowed, else by the last Return.
//
// Safe from any thread: one lock guards everything, and the report runs inside it.
class WorkTracker {
 public:
  class WorkResultCallback {
   public:
    virtual ~WorkResultCallback();
    // Inside the tracker's lock; at most once between two resets. `bytesDone`: the valid leading
    // bytes; 0 unless the code is kWorkDone or kWorkPartial. May call the tracker, Reset too, and
    // must not throw or wait for another thread that does.
    virtual void OnWorkResult(WorkCode code, WorkTracker* tracker, std::uint64_t bytesDone) = 0;
  };

  // Stands for no limit.
  static constexpr std::uint64_t kNoLimit = ByteRange::kLargestOffset;

  // One pending range, [0, total). A total of 0: none, and no completion of a range finishes it.
  explicit WorkTracker(std::uint64_t total, LockClass lockClass = LockClass::kTracker);
  virtual ~WorkTracker();
  WorkTracker(const WorkTracker&) = delete;
  WorkTracker& operator=(const WorkTracker&) = delete;

  // Not owned; may be null.
  void SetResultCallback(WorkResultCallback* callback);
  // As made anew, with the same callback. REQUIRES: nothing is borrowed. A finish that waits for a
  // Return all the same is reported first; the Return is still expected.
  void Reset(std::uint64_t total);
  // Takes the first pending range, at most maxSize bytes of it. False, with both 0, when finished
  // or nothing is pending. KEPT: with a maxSize of 0 takes nothing and answers true.
  bool GetNextRange(std::uint64_t& offset, std::uint64_t& size, std::uint64_t maxSize);
  // Takes up to maxSize bytes at `offset`, see RangeList::Take; `size` becomes the bytes taken.
  // False if there are none. KEPT: does not tell when they start behind `offset`.
  // Throws as RangeList::Take with nothing changed.
  bool Reserve(std::uint64_t offset, std::uint64_t& size, std::uint64_t maxSize);
  // What lies behind the total size is left out. Throws as RangeList::Add with nothing changed.
  void ReturnRange(std::uint64_t offset, std::uint64_t size);
  bool HasRangesToComplete();
  // A range has come to an end. kWorkPending does nothing. Throws as RangeList::Add with nothing
  // changed; not for the codes that finish at once.
  void Complete(std::uint64_t offset, std::uint64_t size, WorkCode code);
  // kWorkPending until finished, then the result, reported or not. *bytes (may be null): as in the
  // report.
  WorkCode GetResult(std::uint64_t* bytes);

  // The first pending range that ends behind `from`, less what lies before it; takes nothing.
  // False, with both 0, when finished or there is none.
  bool PeekRange(std::uint64_t from, std::uint64_t* offset, std::uint64_t* size);
  // Keeps a finish from being reported until Return. False when finished, or when *generation
  // (guarded by this lock) is not `expected`.
  bool Borrow(const std::uint32_t* generation, std::uint32_t expected);
  // Reports a finish that waited if this was the last one. One for each Borrow that answered true.
  void Return();
  bool IsBorrowed();
  // Ranges that were returned in all.
  std::uint64_t GetReturnCount();
  MTCritSec* GetLock() { return lock_.get(); }

 private:
  void MarkDoneLocked(ByteRange range) ORVANE_REQUIRES(lock_);
  void LowerDataEndLocked(ByteRange range, WorkCode code) ORVANE_REQUIRES(lock_);
  void FinishIfCompleteLocked() ORVANE_REQUIRES(lock_);
  void FinishLocked(WorkCode result, std::uint64_t bytes) ORVANE_REQUIRES(lock_);
  void ReportLocked() ORVANE_REQUIRES(lock_);
  void StartLocked(std::uint64_t total) ORVANE_REQUIRES(lock_);

  const std::unique_ptr<MTCritSec> lock_;
  RangeList pending_ ORVANE_GUARDED_BY(lock_);
  RangeList done_ ORVANE_GUARDED_BY(lock_);
  std::uint64_t total_ ORVANE_GUARDED_BY(lock_) = 0;
  std::uint64_t dataEnd_ ORVANE_GUARDED_BY(lock_) = 0;  // at most total_
  // Who has set dataEnd_: kWorkPartial, kWorkOutOfRange, or kWorkPending for nobody.
  WorkCode dataEndCode_ ORVANE_GUARDED_BY(lock_) = kWorkPending;
  bool finished_ ORVANE_GUARDED_BY(lock_) = false;
  bool reportDue_ ORVANE_GUARDED_BY(lock_) = false;          // finished, waits for the last Return
  WorkCode result_ ORVANE_GUARDED_BY(lock_) = kWorkPending;  // kWorkPending until finished
  std::uint64_t bytesDone_ ORVANE_GUARDED_BY(lock_) = 0;
  std::uint32_t borrows_ ORVANE_GUARDED_BY(lock_) = 0;
  std::uint64_t returnCount_ ORVANE_GUARDED_BY(lock_) = 0;
  WorkResultCallback* callback_ ORVANE_GUARDED_BY(lock_) = nullptr;  // not owned
};

}  // namespace Orvane
