#include "CacheTransaction.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <utility>

#include "Buffer.h"
#include "BufferList.h"
#include "Cache/CacheTransactionWorkResultCallback.h"
#include "Cache/WorkTracker.h"
#include "MTInterface.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/CacheTransaction";
constexpr std::uint64_t kLargestOffset = ByteRange::kLargestOffset;

template <typename Object>
void AddRefUnlessSame(Object* object, const Object* old, const char* function, unsigned long line) {
  if (object && object != old) object->AddRef(kFile, function, line);
}

}  // namespace

CacheTransaction::StatusCallback::StatusCallback() = default;
CacheTransaction::StatusCallback::~StatusCallback() = default;

CacheTransaction::CacheTransaction()
    : stateWord_(0),
      source_(nullptr),
      offset_(0),
      bufferList_(nullptr),
      statusCallback_(nullptr),
      cacheInUseBy_(MTInterface::NewAtomicPointer(nullptr)),
      workTracker_(nullptr),
      dueTime_(CacheSource::kDueASAP),
      priority_(MTThread::kPriorityNormal),
      preReadSize_(0),
      workResultCallback_(nullptr) {}

CacheTransaction::CacheTransaction(CacheSource* source, std::uint64_t offset, BufferList* list,
                                   StatusCallback* callback, std::uint32_t dueTime)
    : CacheTransaction() {
  Setup(source, offset, list, callback, dueTime, MTThread::kPriorityNormal);
}

CacheTransaction::~CacheTransaction() {
  ReleaseFields();
  delete workTracker_;
  delete cacheInUseBy_;
  delete workResultCallback_;
}

bool CacheTransaction::Setup(CacheSource* source, std::uint64_t offset, BufferList* list,
                             StatusCallback* callback, std::uint32_t dueTime,
                             MTThread::MTPriority priority) {
  return Load(source, offset, list, callback, /*preReadSize=*/0, dueTime, priority);
}

bool CacheTransaction::SetupForPreRead(CacheSource* source, std::uint64_t offset,
                                       std::uint64_t size, std::uint32_t dueTime,
                                       MTThread::MTPriority priority) {
  if (size == 0) return false;
  return Load(source, offset, nullptr, nullptr, size, dueTime, priority);
}

bool CacheTransaction::Cleanup() {
  if (cacheInUseBy_->Get() || !BeginReload()) return false;
  ReleaseFields();
  return true;
}

std::uint64_t CacheTransaction::GetSize() const {
  if (preReadSize_ != 0) return preReadSize_;
  return bufferList_ ? bufferList_->GetTotalSizeOfBuffers() : 0;
}

Buffer* CacheTransaction::GetBufferAtOffset(std::uint64_t offset, std::uint64_t* offsetInBuffer,
                                            std::uint64_t* bytesThere) {
  if (!bufferList_ || offset < offset_) return nullptr;
  const std::uint64_t inList = offset - offset_;
  if (inList > std::numeric_limits<std::size_t>::max()) return nullptr;
  std::size_t inBuffer = 0;
  std::size_t left = 0;
  Buffer* const buffer =
      bufferList_->GetBufferAtOffset(static_cast<std::size_t>(inList), &inBuffer, &left);
  if (!buffer) return nullptr;
  if (offsetInBuffer) *offsetInBuffer = inBuffer;
  if (bytesThere) *bytesThere = left;
  return buffer;
}

bool CacheTransaction::Reserve(std::uint64_t& offset, std::uint64_t& size) {
  if (!workTracker_ || !ClipToRange(offset, size)) return false;
  try {
    return workTracker_->Reserve(offset - offset_, size, size);
  } catch (...) {
    SetResult(CacheSource::kResultError);
    return false;
  }
}

bool CacheTransaction::GetRangeToComplete(std::uint64_t& offset, std::uint64_t& size,
                                          std::uint64_t maxSize) {
  if (!workTracker_) {
    offset = size = 0;
    return false;
  }
  if (!workTracker_->GetNextRange(offset, size, maxSize)) return false;
  offset += offset_;
  return true;
}

// KEPT in part: each transaction counts the ranges that come back to it, in its tracker. A count
// for the process would be a word that all workers write and that nobody reads.
void CacheTransaction::ReturnRangeToComplete(std::uint64_t offset, std::uint64_t size) {
  if (!workTracker_ || offset < offset_) return;
  try {
    workTracker_->ReturnRange(offset - offset_, size);
  } catch (...) {
    SetResult(CacheSource::kResultError);
  }
}

bool CacheTransaction::StillRangesToComplete() {
  return workTracker_ && workTracker_->HasRangesToComplete();
}

// The references here and below: the callback may give up the last one, inside the tracker's lock.
// The scopes: a source may complete its transactions on any thread of its own.
void CacheTransaction::Complete(std::uint64_t offset, std::uint64_t size,
                                CacheSource::Result_t result) {
  if (!workTracker_ || offset < offset_) return;
  SharedObjectAutoRef keep(this);
  ReportScope scope;
  try {
    workTracker_->Complete(offset - offset_, size, ToWorkCode(result));
  } catch (...) {
    workTracker_->Complete(0, 0, kWorkError);
  }
}

void CacheTransaction::SetResult(CacheSource::Result_t result) {
  if (!workTracker_) return;
  SharedObjectAutoRef keep(this);
  ReportScope scope;
  workTracker_->Complete(0, 0, ToWorkCode(result));
}

CacheSource::Result_t CacheTransaction::GetResult(std::uint64_t* bytes) {
  if (workTracker_) return ToResult(workTracker_->GetResult(bytes));
  if (bytes) *bytes = 0;
  return CacheSource::kResultError;
}

CacheSource::Result_t CacheTransaction::CopyInto(void* data, std::uint64_t offset,
                                                 std::uint64_t size, CacheSource::Result_t result,
                                                 std::uint64_t* copiedOffset,
                                                 std::uint64_t* copiedSize) {
  SharedObjectAutoRef keep(this);
  if (!bufferList_) {
    if (preReadSize_ == 0) return CacheSource::kResultOutOfRange;
    // KEPT: completed also when the two do not meet; the tracker ignores what it does not have.
    ClipToRange(offset, size);
    Complete(offset, size, CacheSource::kResultOK);
    return CacheSource::kResultOK;
  }
  const std::uint64_t end = ByteRange{offset, size}.End();
  const std::uint64_t rangeEnd = ByteRange{offset_, bufferList_->GetTotalSizeOfBuffers()}.End();
  if (end <= offset_ || offset >= rangeEnd) return CacheSource::kResultOutOfRange;
  const std::uint64_t from = std::max(offset, offset_);
  const std::uint64_t count = std::min(end, rangeEnd) - from;
  if (count == 0) {
    Complete(from, 0, result);
    return result;
  }
  std::uint64_t copied = 0;
  const std::uint32_t last =
      CopyToBuffers(static_cast<std::byte*>(data) + (from - offset), from, count, &copied);
  if (copied > 0) {
    // The data does not end where a buffer refused it.
    Complete(from, copied, copied == count ? result : CacheSource::kResultOK);
    if (copiedOffset) *copiedOffset = from;
    if (copiedSize) *copiedSize = copied;
    if (last == Buffer::kBufferOK) return GetResult(nullptr);
  }
  return last == Buffer::kBufferLockFailed ? CacheSource::kResultLockFailed
                                           : CacheSource::kResultError;
}

CacheSource::Result_t CacheTransaction::ReadDirect() {
  return source_ ? source_->ReadTransaction(this) : CacheSource::kResultNotSupported;
}

void CacheTransaction::PreReadDirect() {
  if (source_) source_->PreReadTransaction(this);
}

bool CacheTransaction::SupportsPreReads() {
  return source_ && source_->SupportsPreReadTransactions();
}

bool CacheTransaction::Load(CacheSource* source, std::uint64_t offset, BufferList* list,
                            StatusCallback* callback, std::uint64_t preReadSize,
                            std::uint32_t dueTime, MTThread::MTPriority priority) {
  constexpr const char* kFunction = "Orvane::CacheTransaction::Setup";
  if (cacheInUseBy_->Get()) return false;
  const bool hasData = source && (list || preReadSize != 0);
  const std::uint64_t size = list ? list->GetTotalSizeOfBuffers() : preReadSize;
  if (hasData && (size > kLargestOffset - offset || !MakeTracker())) return false;
  if (!BeginReload()) return false;
  if (!source) {
    list = nullptr;
    callback = nullptr;
  }
  // Before the old ones go: one of them may hold the last other reference of a new one.
  AddRefUnlessSame(source, source_, kFunction, 170);
  AddRefUnlessSame(list, bufferList_, kFunction, 172);
  AddRefUnlessSame(callback, statusCallback_, kFunction, 174);
  CacheSource* const oldSource = std::exchange(source_, source);
  BufferList* const oldList = std::exchange(bufferList_, list);
  StatusCallback* const oldCallback = std::exchange(statusCallback_, callback);
  preReadSize_ = source ? preReadSize : 0;
  offset_ = source ? offset : 0;
  if (source) {
    dueTime_ = dueTime;
    priority_ = priority;
    StartTracker(hasData, size);
  }
  if (oldSource != source) ReportScope::Release(oldSource, kFile, kFunction, 161);
  if (oldList && oldList != list) oldList->DecRef(kFile, kFunction, 163);
  if (oldCallback && oldCallback != callback) oldCallback->DecRef(kFile, kFunction, 165);
  return source != nullptr;
}

bool CacheTransaction::MakeTracker() {
  try {
    if (!workResultCallback_) workResultCallback_ = new CacheTransactionWorkResultCallback(this);
    if (!workTracker_) workTracker_ = new WorkTracker(0);
    return true;
  } catch (...) {
    return false;
  }
}

void CacheTransaction::StartTracker(bool hasData, std::uint64_t size) {
  if (!workTracker_) return;
  workTracker_->SetResultCallback(hasData ? workResultCallback_ : nullptr);
  workTracker_->Reset(size);
  // The tracker of an earlier use has nothing to wait for: neither its old result nor "pending".
  if (!hasData) workTracker_->Complete(0, 0, kWorkError);
}

// From here on nobody borrows what was loaded before. False while somebody has: he looks at the
// fields.
bool CacheTransaction::BeginReload() {
  if (!workTracker_) {
    ++stateWord_;
    return true;
  }
  CritSecLock lock(workTracker_->GetLock());
  if (workTracker_->IsBorrowed()) return false;
  ++stateWord_;
  return true;
}

// The source with no lock held: its destructor cancels, and a transaction may go under a lock.
void CacheTransaction::ReleaseFields() {
  constexpr const char* kFunction = "Orvane::CacheTransaction::Cleanup";
  CacheSource* const source = std::exchange(source_, nullptr);
  BufferList* const list = std::exchange(bufferList_, nullptr);
  StatusCallback* const callback = std::exchange(statusCallback_, nullptr);
  preReadSize_ = 0;
  offset_ = 0;
  ReportScope::Release(source, kFile, kFunction, 236);
  if (list) list->DecRef(kFile, kFunction, 237);
  if (callback) callback->DecRef(kFile, kFunction, 238);
}

bool CacheTransaction::SetCacheInUseBy(Cache* cache) {
  if (!cache || cacheInUseBy_->Get()) return false;
  // Reports success by 32 bits: any pointer that is a multiple of 4 GiB looks like null.
  return cacheInUseBy_->CompareAndSwap(nullptr, cache) && cacheInUseBy_->Get() == cache;
}

bool CacheTransaction::ClearCacheInUseBy(Cache* cache) {
  return cache && cacheInUseBy_->CompareAndSwap(cache, nullptr);
}

bool CacheTransaction::ClipToRange(std::uint64_t& offset, std::uint64_t& size) const {
  std::uint64_t clippedSize = ByteRange{offset, size}.End() - offset;
  if (!CacheSource::GetRangeIntersection(offset, clippedSize, offset_, GetSize())) return false;
  size = clippedSize;
  return true;
}

// Answers what the last copy reported, a BufferResult_t.
std::uint32_t CacheTransaction::CopyToBuffers(std::byte* data, std::uint64_t offset,
                                              std::uint64_t count, std::uint64_t* copied) {
  Buffer::BufferResult_t last = Buffer::kBufferOutOfRange;
  while (*copied < count) {
    std::uint64_t inBuffer = 0;
    std::uint64_t there = 0;
    Buffer* const buffer = GetBufferAtOffset(offset + *copied, &inBuffer, &there);
    if (!buffer || there == 0) break;
    const std::size_t part = static_cast<std::size_t>(std::min(count - *copied, there));
    std::size_t moved = 0;
    last = buffer->CopyInto(data + *copied, part, static_cast<std::size_t>(inBuffer), &moved);
    *copied += std::min(moved, part);
    if (moved == 0 || last != Buffer::kBufferOK) break;
  }
  return last;
}

}  // namespace Orvane
