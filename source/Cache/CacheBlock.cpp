#include "Cache/CacheBlock.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "Buffer.h"
#include "Cache.h"
#include "Cache/CacheBlockList.h"
#include "Cache/CacheClock.h"
#include "Cache/TransactionInternals.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/PlainBuffer.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/CacheBlock";
constexpr std::uint64_t kKeptAheadMs = 3600000;

}  // namespace

CacheBlock::CacheBlock(BlockGroup* group, Buffer* buffer)
    : group_(group),
      capacity_(buffer->GetSize()),
      buffer_(buffer),
      dataAddress_(IsPlainBuffer(buffer) ? static_cast<char*>(buffer->GetAddress()) : nullptr),
      hasFixedAddress_(dataAddress_ != nullptr) {
  buffer_->AddRef(kFile, "Orvane::CacheBlock::CacheBlock", __LINE__);
}

CacheBlock::~CacheBlock() {
  CancelPendingTransactions(nullptr);
  Entry reader{};
  {
    CritSecLock lock(group_->lock.get());
    if (queue_) reader = queue_->reading;
  }
  if (reader.transaction) DropEntry(reader, "Orvane::CacheBlock::~CacheBlock");
  ReleaseBuffer();
}

bool CacheBlock::LockForReadInto(CacheTransaction* transaction) {
  constexpr const char* kFunction = "Orvane::CacheBlock::LockForReadInto";
  if (!buffer_ || !transaction || !transaction->GetSource() || transaction->GetSize() == 0) {
    return false;
  }
  {
    CritSecLock lock(group_->lock.get());
    if (lockCount_ >= 1) return false;
    // An ordinary read may evict any free block.
    const bool wantedLater = stamp_ != 0 && CacheTime::Now().Milli() < stamp_;
    if (transaction->IsPreReadTransaction() && wantedLater) return false;
    MakeRoomForPending();
  }
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  if (!transaction->GetRangeToComplete(offset, size, capacity_)) return false;
  const std::uint32_t key = transaction->GetSource()->GetSourceKey();
  const std::uint64_t place = capacity_ >= 2 ? offset - offset % capacity_ : offset;
  // Before this block is locked: it locks the other one.
  if (group_->list) group_->list->MakeWay(this, key, place);

  CritSecLock lock(group_->lock.get());
  if (doomed_) {
    // Its last holder has not come to settle it yet. It must be placed anew all the same.
    Forget();
    doomed_ = false;
    parked_ = true;
  }
  LockInner();
  ChangePlace(key, place);
  validBytes_ = capacity_;
  state_ = CacheSource::kResultNone;

  const std::uint64_t blockSpace = capacity_ - (offset - sourceOffset_);
  if (size > blockSpace) {
    transaction->ReturnRangeToComplete(offset + blockSpace, size - blockSpace);
  }
  queue_->reading = {transaction, TransactionInternals::GetGeneration(transaction), sourceKey_,
                     transaction->GetDueTime(), transaction->IsPreReadTransaction()};
  LockInner();
  transaction->AddRef(kFile, kFunction, __LINE__);
  transaction->AddRef(kFile, kFunction, __LINE__);
  queue_->Push(queue_->reading);
  return true;
}

// Of a block that is being claimed.
void CacheBlock::ChangePlace(std::uint32_t sourceKey, std::uint64_t sourceOffset) {
  CacheBlockList* const list = group_->list;
  if (!list) {
    sourceKey_ = sourceKey;
    sourceOffset_ = sourceOffset;
    return;
  }
  list->Unlink(this);
  writesSeen_ = list->Link(this, sourceKey, sourceOffset);
}

bool CacheBlock::CompleteReadInto(std::uint64_t bytesRead, CacheSource::Result_t result) {
  const bool good = result == CacheSource::kResultOK || result == CacheSource::kResultPartial;
  const bool whole = good && bytesRead >= capacity_;
  Entry reader{};
  {
    // For a block that will hold less than it is indexed for.
    CacheBlockList::Lock listLock(whole ? nullptr : group_->list);
    CritSecLock lock(group_->lock.get());
    if (!buffer_ || !IsBeingFilled()) return false;
    if (sourceKey_ != CacheSource::kInvalidKey) validBytes_ = std::min(bytesRead, capacity_);
    std::swap(reader, queue_->reading);
    state_ = whole && validBytes_ == capacity_ ? CacheSource::kResultOK : result;
    if (!whole && !doomed_) {
      // A write that came meanwhile may have moved the end of the data.
      if (!good || validBytes_ == 0 || HasSeenWrites()) {
        Doom();
      } else if (group_->list) {
        group_->list->AddShortBlock(this);
      }
    }
  }
  if (result == CacheSource::kResultFailed) CancelPendingTransactions(nullptr);
  Unlock(reader.dueTime);
  DropEntry(reader, "Orvane::CacheBlock::CompleteReadInto");
  return true;
}

bool CacheBlock::LockForCopyOutOf(CacheTransaction* transaction, bool* alreadyServed) {
  constexpr const char* kFunction = "Orvane::CacheBlock::LockForCopyOutOf";
  if (!buffer_ || !transaction || !transaction->GetSource() || transaction->GetSize() == 0) {
    return false;
  }
  const std::uint32_t generation = TransactionInternals::GetGeneration(transaction);
  const std::uint32_t key = transaction->GetSource()->GetSourceKey();
  std::uint64_t offset = transaction->GetOffset();
  std::uint64_t size = transaction->GetSize();
  {
    CritSecLock lock(group_->lock.get());
    if (IsAttached(transaction, generation)) return false;
    if (sourceKey_ == CacheSource::kInvalidKey || sourceKey_ != key || doomed_) return false;
    // A fill that began before a write ended may show where the data ended then.
    if (IsBeingFilled() && HasSeenWrites()) return false;
    if (!CacheSource::GetRangeIntersection(offset, size, sourceOffset_, capacity_)) return false;
    MakeRoomForPending();
    LockInner();
  }
  // Outside of the lock: the hold keeps the block as it is.
  if (!transaction->Reserve(offset, size)) {
    UnlockInner(nullptr, nullptr);
    return false;
  }
  if (transaction->IsPreReadTransaction()) {
    // There is nothing to copy.
    Unlock(transaction->GetDueTime());
    transaction->Complete(offset, size, CacheSource::kResultOK);
    return true;
  }
  CritSecLock lock(group_->lock.get());
  *alreadyServed = IsBeingFilled() || !queue_->GetWaiting().empty();
  transaction->AddRef(kFile, kFunction, __LINE__);
  queue_->Push({transaction, generation, key, transaction->GetDueTime(),
                /*isPreRead=*/false});
  return true;
}

void CacheBlock::ProcessPendingTransactions(bool* becameFree) {
  for (;;) {
    Entry entry{};
    Content content{};
    {
      CritSecLock lock(group_->lock.get());
      if (!buffer_ || IsBeingFilled() || !PopPending(&entry)) break;
      content = {state_, isBufferLocked_ ? dataAddress_ : nullptr, validBytes_, sourceKey_,
                 sourceOffset_};
    }
    ServeEntry(entry, content);
  }
  if (becameFree) *becameFree = false;
}

void CacheBlock::ServeEntry(const Entry& entry, const Content& content) {
  {
    TransactionBorrow borrow(entry.transaction, entry.generation);
    // Not held: it was reported already, and what it was is not ours any more.
    if (borrow.IsHeld()) ServeTransaction(entry, content);
  }
  Unlock(entry.dueTime);
  DropEntry(entry, "Orvane::CacheBlock::ProcessPendingTransactions");
}

// A failed fill passes on what failed it. Data that ends before the transaction begins puts all of
// it out of range; data that ends inside of it is its last.
void CacheBlock::ServeTransaction(const Entry& entry, const Content& content) {
  CacheTransaction* const transaction = entry.transaction;
  if (content.sourceKey == CacheSource::kInvalidKey) {
    transaction->SetResult(CacheSource::kResultFailed);  // invalidated
    return;
  }
  if (entry.sourceKey != content.sourceKey || !content.address) {
    transaction->SetResult(CacheSource::kResultError);
    return;
  }
  const std::uint64_t begin = transaction->GetOffset();
  const std::uint64_t end = begin + transaction->GetSize();
  const std::uint64_t dataEnd = content.sourceOffset + content.validBytes;
  const bool good =
      content.state == CacheSource::kResultOK || content.state == CacheSource::kResultPartial;
  if (!good && content.state != CacheSource::kResultOutOfRange) {
    transaction->SetResult(content.state < CacheSource::kResultNone ? content.state
                                                                    : CacheSource::kResultError);
    return;
  }
  if (transaction->IsPreReadTransaction()) {
    // Nothing is copied: what there is has been read.
    transaction->Complete(begin, end - begin, CacheSource::kResultOK);
    return;
  }
  if (dataEnd <= begin) {
    transaction->Complete(begin, 0, CacheSource::kResultOutOfRange);
    return;
  }
  if (content.validBytes == 0) {
    transaction->Complete(content.sourceOffset, 0, CacheSource::kResultPartial);
    return;
  }
  // Short of its block, but not of what is asked of it.
  const bool hasAll = content.validBytes == capacity_ || end <= dataEnd;
  const CacheSource::Result_t copied = transaction->CopyInto(
      content.address, content.sourceOffset, content.validBytes,
      hasAll ? CacheSource::kResultOK : CacheSource::kResultPartial, nullptr, nullptr);
  if (copied == CacheSource::kResultLockFailed || copied < CacheSource::kResultNone) {
    transaction->SetResult(copied);
  }
}

bool CacheBlock::HasOnlyPreReads() {
  CritSecLock lock(group_->lock.get());
  return !queue_ || std::ranges::all_of(queue_->GetWaiting(), &Entry::isPreRead);
}

void CacheBlock::CancelPendingTransactions(bool* becameFree) {
  bool freed = false;
  for (;;) {
    Entry entry{};
    {
      CritSecLock lock(group_->lock.get());
      if (!PopPending(&entry)) break;
    }
    freed = FailEntry(entry) || freed;
  }
  if (becameFree) *becameFree = freed;
}

bool CacheBlock::FailEntry(const Entry& entry) {
  {
    TransactionBorrow borrow(entry.transaction, entry.generation);
    if (borrow.IsHeld()) entry.transaction->SetResult(CacheSource::kResultFailed);
  }
  const bool freed = UnlockInner(nullptr, nullptr);
  DropEntry(entry, "Orvane::CacheBlock::CancelPendingTransactions");
  return freed;
}

void CacheBlock::DumpPendingTransactions() {
  CritSecLock lock(group_->lock.get());
  if (!queue_) return;
  for (const Entry& entry : queue_->GetWaiting()) {
    std::uint64_t bytes = 0;
    entry.transaction->GetResult(&bytes);
  }
}

void CacheBlock::InvalidateBySource(CacheSource* source) {
  Invalidate(source, /*withRange=*/false, 0, 0);
}

void CacheBlock::InvalidateByRange(CacheSource* source, std::uint64_t offset, std::uint64_t size) {
  Invalidate(source, /*withRange=*/true, offset, size);
}

bool CacheBlock::MeetsRange(std::uint64_t offset, std::uint64_t size) const {
  // The end of the last block of all cannot be named.
  constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();
  if (sourceOffset_ > kTop - capacity_) {
    return offset >= sourceOffset_ || sourceOffset_ - offset < size;
  }
  return CacheSource::GetRangeIntersection(offset, size, sourceOffset_, capacity_);
}

void CacheBlock::Invalidate(CacheSource* source, bool withRange, std::uint64_t offset,
                            std::uint64_t size) {
  if (!buffer_ || !source) return;
  // Those that wait now. A block that is free may wait for other data as soon as the locks are
  // left.
  std::vector<Entry> waiting;
  {
    CacheBlockList::Lock listLock(group_->list);
    CritSecLock lock(group_->lock.get());
    if (sourceKey_ != source->GetSourceKey()) return;
    if (withRange && (validBytes_ == 0 || !MeetsRange(offset, size))) return;
    Doom();
    Forget();
    if (queue_) waiting = queue_->TakeAll();
  }
  for (const Entry& entry : waiting) FailEntry(entry);
}

void CacheBlock::Doom() {
  CritSecLock lock(group_->lock.get());
  if (group_->list) group_->list->Unlink(this);
  doomed_ = true;
  if (lockCount_ == 0) Settle();
}

void CacheBlock::RefuseMore() {
  CacheBlockList::Lock listLock(group_->list);
  Doom();
}

bool CacheBlock::Unlock(std::uint32_t dueTime) {
  return UnlockInner(&dueTime, nullptr);
}

bool CacheBlock::Unlock(std::uint32_t dueTime, const CacheTime& now) {
  return UnlockInner(&dueTime, &now);
}

// Without a due time the stamp stays; without the time it is asked for.
bool CacheBlock::UnlockInner(const std::uint32_t* dueTime, const CacheTime* now) {
  bool mustSettle = false;
  {
    CritSecLock lock(group_->lock.get());
    if (!buffer_ || --lockCount_ >= 1) return false;
    UnlockBuffer();
    mustSettle = doomed_ || parked_;
    if (dueTime && !doomed_) mustSettle |= Stamp(*dueTime, now ? *now : CacheTime::Now());
    GiveBackQueue();
  }
  if (mustSettle) SettleIfFree();
  if (group_->cache) group_->cache->NotifySomethingChanged();
  return true;
}

// Of a block that is free. True if it must be settled: the list finds out by itself that a block
// was used since it was placed, but not that it belongs further to the front.
bool CacheBlock::Stamp(std::uint32_t dueTime, const CacheTime& now) {
  const std::uint64_t before = stamp_;
  SetStamp(dueTime, now);
  return parked_ || stamp_ < before;
}

void CacheBlock::SettleIfFree() {
  CacheBlockList::Lock listLock(group_->list);
  CritSecLock lock(group_->lock.get());
  if (lockCount_ == 0) Settle();
}

void CacheBlock::ReleaseBuffer() {
  CritSecLock lock(group_->lock.get());
  if (!buffer_) return;
  UnlockBuffer();
  lockCount_ = 0;
  dataAddress_ = nullptr;
  buffer_->DecRef(kFile, "Orvane::CacheBlock::ReleaseBuffer", __LINE__);
  buffer_ = nullptr;
}

std::uint64_t CacheBlock::GetSourceOffset() {
  CritSecLock lock(group_->lock.get());
  return sourceOffset_;
}

std::uint32_t CacheBlock::GetSourceKey() {
  CritSecLock lock(group_->lock.get());
  return sourceKey_;
}

std::uint64_t CacheBlock::GetValidBytes() {
  CritSecLock lock(group_->lock.get());
  return validBytes_;
}

CacheSource::Result_t CacheBlock::GetState() {
  CritSecLock lock(group_->lock.get());
  return state_;
}

std::int32_t CacheBlock::GetLockCount() {
  CritSecLock lock(group_->lock.get());
  return lockCount_;
}

std::uint64_t CacheBlock::GetStamp() {
  CritSecLock lock(group_->lock.get());
  return stamp_;
}

std::size_t CacheBlock::GetNumberOfPendingTransactions() {
  CritSecLock lock(group_->lock.get());
  return queue_ ? queue_->GetWaiting().size() : 0;
}

bool CacheBlock::HasReadingTransaction() {
  CritSecLock lock(group_->lock.get());
  return IsBeingFilled();
}

void CacheBlock::LockInner() {
  if (lockCount_ == 0 && buffer_->Lock() == Buffer::kBufferLocked) {
    if (!hasFixedAddress_) dataAddress_ = static_cast<char*>(buffer_->GetAddress());
    isBufferLocked_ = true;
    if (!dataAddress_) UnlockBuffer();
  }
  ++lockCount_;
}

void CacheBlock::UnlockBuffer() {
  if (!isBufferLocked_) return;
  isBufferLocked_ = false;
  if (!hasFixedAddress_) dataAddress_ = nullptr;
  buffer_->Unlock();
}

// Since the fill began.
bool CacheBlock::HasSeenWrites() const {
  return group_->list && group_->list->HasSeenWritesSince(sourceKey_, writesSeen_);
}

bool CacheBlock::IsAttached(CacheTransaction* transaction, std::uint32_t generation) {
  const auto is = [=](const Entry& entry) {
    return entry.transaction == transaction && entry.generation == generation;
  };
  return queue_ && (is(queue_->reading) || std::ranges::any_of(queue_->GetWaiting(), is));
}

void CacheBlock::MakeRoomForPending() {
  if (!queue_) {
    queue_ = group_->spareQueue ? std::move(group_->spareQueue) : std::make_unique<BlockQueue>();
  }
  queue_->MakeRoom();
}

bool CacheBlock::PopPending(Entry* entry) {
  return queue_ && queue_->Pop(entry);
}

// Nobody holds the block, so nobody waits for it.
void CacheBlock::GiveBackQueue() {
  if (queue_ && !group_->spareQueue) {
    queue_->GiveBackRoom();
    group_->spareQueue = std::move(queue_);
  }
  queue_.reset();
}

void CacheBlock::SetStamp(std::uint32_t dueTime, const CacheTime& now) {
  const std::uint64_t due = dueTime == 0 ? now.Milli() : now.Extend(dueTime);
  if (due <= stamp_ && stamp_ - due <= kKeptAheadMs) return;
  stamp_ = due;
  tie_ = now.micro;
  isRestamped_ = true;
}

// Nobody holds the block: what it is shows in its place again. With the list's lock.
void CacheBlock::Settle() {
  if (doomed_) Forget();
  doomed_ = parked_ = false;
  Place();
}

void CacheBlock::Place() {
  isRestamped_ = false;
  if (group_->list) group_->list->Place(this, stamp_, tie_);
}

void CacheBlock::Forget() {
  sourceKey_ = CacheSource::kInvalidKey;
  validBytes_ = 0;
  stamp_ = tie_ = 0;
}

void CacheBlock::DropEntry(const Entry& entry, const char* function) {
  ReportScope::Release(entry.transaction, kFile, function, __LINE__);
}

static_assert(sizeof(CacheBlock) <= 128, "two cache lines");

}  // namespace Orvane
