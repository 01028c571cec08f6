#include "Cache/WorkTracker.h"

#include <algorithm>

#include "OSServices/CritSecLock.h"

namespace Orvane {

WorkCode ToWorkCode(CacheSource::Result_t result) {
  switch (result) {
    case CacheSource::kResultNone:
    case CacheSource::kResultPending:
      return kWorkPending;
    case CacheSource::kResultOK:
      return kWorkDone;
    case CacheSource::kResultPartial:
      return kWorkPartial;
    case CacheSource::kResultFailed:
      return kWorkFailed;
    case CacheSource::kResultOutOfRange:
      return kWorkOutOfRange;
    default:
      return kWorkError;
  }
}

CacheSource::Result_t ToResult(WorkCode code) {
  switch (code) {
    case kWorkPending:
      return CacheSource::kResultPending;
    case kWorkDone:
      return CacheSource::kResultOK;
    case kWorkPartial:
      return CacheSource::kResultPartial;
    case kWorkFailed:
      return CacheSource::kResultFailed;
    case kWorkOutOfRange:
      return CacheSource::kResultOutOfRange;
    default:
      return CacheSource::kResultError;
  }
}

WorkTracker::WorkResultCallback::~WorkResultCallback() = default;

WorkTracker::WorkTracker(std::uint64_t total, LockClass lockClass) : lock_(NewCritSec(lockClass)) {
  CritSecLock lock(lock_.get());
  StartLocked(total);
}

WorkTracker::~WorkTracker() = default;

void WorkTracker::SetResultCallback(WorkResultCallback* callback) {
  CritSecLock lock(lock_.get());
  callback_ = callback;
}

void WorkTracker::Reset(std::uint64_t total) {
  CritSecLock lock(lock_.get());
  if (reportDue_) ReportLocked();
  StartLocked(total);
}

bool WorkTracker::GetNextRange(std::uint64_t& offset, std::uint64_t& size, std::uint64_t maxSize) {
  CritSecLock lock(lock_.get());
  offset = size = 0;
  if (finished_ || pending_.IsEmpty()) return false;
  const ByteRange first = pending_.At(0);
  const std::uint64_t most = maxSize == kNoLimit ? total_ : maxSize;
  offset = first.offset;
  size = pending_.Take({first.offset, std::min(most, first.size)}).size;
  return true;
}

bool WorkTracker::Reserve(std::uint64_t offset, std::uint64_t& size, std::uint64_t maxSize) {
  CritSecLock lock(lock_.get());
  size = 0;
  if (finished_) return false;
  size = pending_.Take({offset, maxSize == kNoLimit ? total_ : maxSize}).size;
  return size > 0;
}

void WorkTracker::ReturnRange(std::uint64_t offset, std::uint64_t size) {
  CritSecLock lock(lock_.get());
  ++returnCount_;
  if (finished_ || offset >= total_) return;
  pending_.Add({offset, std::min(size, total_ - offset)});
}

bool WorkTracker::HasRangesToComplete() {
  CritSecLock lock(lock_.get());
  return !finished_ && !pending_.IsEmpty();
}

void WorkTracker::Complete(std::uint64_t offset, std::uint64_t size, WorkCode code) {
  CritSecLock lock(lock_.get());
  if (finished_) return;
  switch (code) {
    case kWorkFailed:
    case kWorkError:
      FinishLocked(code, 0);
      return;
    case kWorkDone:
      MarkDoneLocked({offset, size});
      break;
    case kWorkPartial:
      MarkDoneLocked({offset, size});
      LowerDataEndLocked({offset, size}, code);
      break;
    case kWorkOutOfRange:
      LowerDataEndLocked({offset, 0}, code);
      break;
    default:
      return;
  }
  FinishIfCompleteLocked();
}

WorkCode WorkTracker::GetResult(std::uint64_t* bytes) {
  CritSecLock lock(lock_.get());
  if (bytes) *bytes = bytesDone_;
  return result_;
}

bool WorkTracker::PeekRange(std::uint64_t from, std::uint64_t* offset, std::uint64_t* size) {
  CritSecLock lock(lock_.get());
  *offset = *size = 0;
  const ByteRange* const range = finished_ ? nullptr : pending_.FindEndingBehind(from);
  if (!range) return false;
  *offset = std::max(from, range->offset);
  *size = range->End() - *offset;
  return true;
}

bool WorkTracker::Borrow(const std::uint32_t* generation, std::uint32_t expected) {
  CritSecLock lock(lock_.get());
  if (finished_ || *generation != expected) return false;
  ++borrows_;
  return true;
}

void WorkTracker::Return() {
  CritSecLock lock(lock_.get());
  if (--borrows_ == 0 && reportDue_) ReportLocked();
}

bool WorkTracker::IsBorrowed() {
  CritSecLock lock(lock_.get());
  return borrows_ != 0;
}

std::uint64_t WorkTracker::GetReturnCount() {
  CritSecLock lock(lock_.get());
  return returnCount_;
}

// With the strong guarantee: what was taken goes back into the room that it left.
void WorkTracker::MarkDoneLocked(ByteRange range) {
  if (range.offset >= total_) return;
  range.size = std::min(range.size, total_ - range.offset);
  const ByteRange taken = pending_.Take(range);
  try {
    done_.Add(range);
  } catch (...) {
    pending_.Add(taken);
    throw;
  }
}

void WorkTracker::LowerDataEndLocked(ByteRange range, WorkCode code) {
  // What lies behind the tracked range says nothing about it.
  if (range.offset >= total_ && range.End() > 0) return;
  const std::uint64_t end = std::min(range.End(), total_);
  if (dataEndCode_ == kWorkPending || end < dataEnd_ || (end == dataEnd_ && code == kWorkPartial)) {
    dataEndCode_ = code;
  }
  dataEnd_ = std::min(dataEnd_, end);
}

void WorkTracker::FinishIfCompleteLocked() {
  const bool startIsDone = !done_.IsEmpty() && done_.At(0).offset == 0;
  const std::uint64_t leading = startIsDone ? done_.At(0).size : 0;
  if (dataEnd_ > 0) {
    if (leading < dataEnd_) return;
  } else {
    if (dataEndCode_ == kWorkPending) return;  // a total of 0
    // Whoever is still going to do byte 0 is waited for; if nobody is, nothing else ends it.
    const bool startIsPending = !pending_.IsEmpty() && pending_.At(0).offset == 0;
    if (!startIsDone && !done_.IsEmpty() && startIsPending) return;
  }
  const bool hasBytes = dataEnd_ > 0;
  FinishLocked(dataEndCode_ == kWorkPending ? kWorkDone
               : hasBytes                   ? kWorkPartial
                                            : dataEndCode_,
               dataEnd_);
}

void WorkTracker::FinishLocked(WorkCode result, std::uint64_t bytes) {
  finished_ = true;
  result_ = result;
  bytesDone_ = bytes;
  reportDue_ = true;
  if (borrows_ == 0) ReportLocked();
}

// The last thing done to the tracker by whoever calls it: the callback may have reset it.
void WorkTracker::ReportLocked() {
  reportDue_ = false;
  if (callback_) callback_->OnWorkResult(result_, this, bytesDone_);
}

void WorkTracker::StartLocked(std::uint64_t total) {
  pending_.Clear();
  done_.Clear();
  pending_.Add({0, total});
  total_ = dataEnd_ = total;
  dataEndCode_ = result_ = kWorkPending;
  bytesDone_ = 0;
  finished_ = reportDue_ = false;
}

}  // namespace Orvane
