#include "Cache/CacheBlock.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "Buffer.h"
#include "Cache.h"
#include "Cache/CacheBlockList.h"
#include "Cache/CacheClock.h"
#include "Cache/TransactionInternals.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/CacheBlock";
constexpr std::uint64_t kKeptAheadMs = 3600000;
// Transactions that wait for one block are few; a block that once had more gives the room back.
constexpr std::size_t kRoomKept = 4;

}  // namespace

CacheBlock::CacheBlock(Cache* cache, CacheBlockList* list, Buffer* buffer)
    : cache_(cache),
      list_(list),
      capacity_(buffer->GetSize()),
      lock_(NewCritSec(LockClass::kBlock)),
      buffer_(buffer) {
  buffer_->AddRef(kFile, "Orvane::CacheBlock::CacheBlock", __LINE__);
}

CacheBlock::~CacheBlock() {
  CancelPendingTransactions(nullptr);
  if (reading_.transaction) DropEntry(reading_, "Orvane::CacheBlock::~CacheBlock");
  ReleaseBuffer();
}

bool CacheBlock::LockForReadInto(CacheTransaction* transaction) {
  constexpr const char* kFunction = "Orvane::CacheBlock::LockForReadInto";
  if (!buffer_ || !transaction || !transaction->GetSource() || transaction->GetSize() == 0) {
    return false;
  }
  {
    CritSecLock lock(lock_.get());
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
  if (list_) list_->MakeWay(this, key, place);

  CritSecLock lock(lock_.get());
  if (lockCount_ >= 1) {
    transaction->ReturnRangeToComplete(offset, size);
    return false;
  }
  if (doomed_) {
    // Its last holder has not come to settle it yet. It must be placed anew all the same.
    Forget();
    doomed_ = false;
    parked_ = true;
  }
  LockInner();
  if (list_) list_->Unlink(this);
  sourceKey_ = key;
  sourceOffset_ = place;
  validBytes_ = capacity_;
  state_ = CacheSource::kResultNone;
  if (list_) writesSeen_ = list_->Link(this, sourceKey_, sourceOffset_);

  const std::uint64_t blockSpace = capacity_ - (offset - sourceOffset_);
  if (size > blockSpace) {
    transaction->ReturnRangeToComplete(offset + blockSpace, size - blockSpace);
  }
  reading_ = {transaction, TransactionInternals::GetGeneration(transaction), sourceKey_,
              transaction->GetDueTime(), transaction->IsPreReadTransaction()};
  LockInner();
  transaction->AddRef(kFile, kFunction, __LINE__);
  transaction->AddRef(kFile, kFunction, __LINE__);
  pending_.push_back(reading_);
  return true;
}

bool CacheBlock::CompleteReadInto(std::uint64_t bytesRead, CacheSource::Result_t result) {
  const bool good = result == CacheSource::kResultOK || result == CacheSource::kResultPartial;
  const bool whole = good && bytesRead >= capacity_;
  Entry reader{};
  {
    // For a block that will hold less than it is indexed for.
    CacheBlockList::Lock listLock(whole ? nullptr : list_);
    CritSecLock lock(lock_.get());
    if (!buffer_ || !reading_.transaction) return false;
    if (sourceKey_ != CacheSource::kInvalidKey) validBytes_ = std::min(bytesRead, capacity_);
    std::swap(reader, reading_);
    state_ = whole && validBytes_ == capacity_ ? CacheSource::kResultOK : result;
    if (!whole && !doomed_) {
      // A write that came meanwhile may have moved the end of the data.
      const bool overtaken = list_ && list_->HasSeenWritesSince(sourceKey_, writesSeen_);
      if (!good || validBytes_ == 0 || overtaken) {
        Doom();
      } else if (list_) {
        list_->AddShortBlock(this);
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
    CritSecLock lock(lock_.get());
    if (IsAttached(transaction, generation)) return false;
    if (sourceKey_ == CacheSource::kInvalidKey || sourceKey_ != key || doomed_) return false;
    // A fill that began before a write ended may show where the data ended then.
    if (reading_.transaction && list_ && list_->HasSeenWritesSince(key, writesSeen_)) return false;
    MakeRoomForPending();
    if (!CacheSource::GetRangeIntersection(offset, size, sourceOffset_, capacity_)) return false;
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
  CritSecLock lock(lock_.get());
  *alreadyServed = reading_.transaction != nullptr || pendingHead_ < pending_.size();
  transaction->AddRef(kFile, kFunction, __LINE__);
  pending_.push_back({transaction, generation, key, transaction->GetDueTime(),
                      /*isPreRead=*/false});
  return true;
}

void CacheBlock::ProcessPendingTransactions(bool* becameFree) {
  for (;;) {
    Entry entry{};
    Content content{};
    {
      CritSecLock lock(lock_.get());
      if (!buffer_ || reading_.transaction || !PopPending(&entry)) break;
      content = {state_, dataAddress_, validBytes_, sourceKey_, sourceOffset_};
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
  CritSecLock lock(lock_.get());
  return std::all_of(pending_.begin() + static_cast<std::ptrdiff_t>(pendingHead_), pending_.end(),
                     [](const Entry& entry) { return entry.isPreRead; });
}

void CacheBlock::CancelPendingTransactions(bool* becameFree) {
  bool freed = false;
  for (;;) {
    Entry entry{};
    {
      CritSecLock lock(lock_.get());
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
  CritSecLock lock(lock_.get());
  for (std::size_t k = pendingHead_; k < pending_.size(); ++k) {
    std::uint64_t bytes = 0;
    pending_[k].transaction->GetResult(&bytes);
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
  std::size_t next = 0;
  {
    CacheBlockList::Lock listLock(list_);
    CritSecLock lock(lock_.get());
    if (sourceKey_ != source->GetSourceKey()) return;
    if (withRange && (validBytes_ == 0 || !MeetsRange(offset, size))) return;
    Doom();
    Forget();
    waiting.swap(pending_);
    next = std::exchange(pendingHead_, 0);
  }
  for (; next < waiting.size(); ++next) FailEntry(waiting[next]);
}

void CacheBlock::Doom() {
  CritSecLock lock(lock_.get());
  if (list_) list_->Unlink(this);
  doomed_ = true;
  if (lockCount_ == 0) Settle();
}

void CacheBlock::RefuseMore() {
  CacheBlockList::Lock listLock(list_);
  Doom();
}

const char* CacheBlock::LockForResidentRead(std::uint64_t offset, std::uint64_t size) {
  CritSecLock lock(lock_.get());
  if (!HoldsResidentLocked(offset, size)) return nullptr;
  LockInner();
  if (dataAddress_) return dataAddress_ + (offset - sourceOffset_);
  --lockCount_;  // nothing was locked
  return nullptr;
}

bool CacheBlock::HoldsResident(std::uint64_t offset, std::uint64_t size) {
  CritSecLock lock(lock_.get());
  return HoldsResidentLocked(offset, size);
}

bool CacheBlock::HoldsResidentLocked(std::uint64_t offset, std::uint64_t size) {
  if (!buffer_ || reading_.transaction || doomed_) return false;
  if (state_ != CacheSource::kResultOK && state_ != CacheSource::kResultPartial) return false;
  return offset - sourceOffset_ + size <= validBytes_;
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
    CritSecLock lock(lock_.get());
    if (!buffer_ || --lockCount_ >= 1) return false;
    if (dataAddress_) {
      dataAddress_ = nullptr;
      buffer_->Unlock();
    }
    const std::uint64_t before = stamp_;
    if (dueTime && !doomed_) SetStamp(*dueTime, now ? *now : CacheTime::Now());
    // The list finds out by itself that a block was used since it was placed, but not that it
    // belongs further to the front.
    mustSettle = doomed_ || parked_ || stamp_ < before;
  }
  if (mustSettle) {
    CacheBlockList::Lock listLock(list_);
    CritSecLock lock(lock_.get());
    if (lockCount_ == 0) Settle();
  }
  if (cache_) cache_->NotifySomethingChanged();
  return true;
}

void CacheBlock::ReleaseBuffer() {
  CritSecLock lock(lock_.get());
  if (!buffer_) return;
  if (dataAddress_) buffer_->Unlock();
  lockCount_ = 0;
  dataAddress_ = nullptr;
  buffer_->DecRef(kFile, "Orvane::CacheBlock::ReleaseBuffer", __LINE__);
  buffer_ = nullptr;
}

std::uint64_t CacheBlock::GetSourceOffset() {
  CritSecLock lock(lock_.get());
  return sourceOffset_;
}

std::uint32_t CacheBlock::GetSourceKey() {
  CritSecLock lock(lock_.get());
  return sourceKey_;
}

std::uint64_t CacheBlock::GetValidBytes() {
  CritSecLock lock(lock_.get());
  return validBytes_;
}

CacheSource::Result_t CacheBlock::GetState() {
  CritSecLock lock(lock_.get());
  return state_;
}

std::int32_t CacheBlock::GetLockCount() {
  CritSecLock lock(lock_.get());
  return lockCount_;
}

std::uint64_t CacheBlock::GetStamp() {
  CritSecLock lock(lock_.get());
  return stamp_;
}

std::size_t CacheBlock::GetNumberOfPendingTransactions() {
  CritSecLock lock(lock_.get());
  return pending_.size() - pendingHead_;
}

bool CacheBlock::HasReadingTransaction() {
  CritSecLock lock(lock_.get());
  return reading_.transaction != nullptr;
}

void CacheBlock::LockInner() {
  if (lockCount_ == 0 && buffer_->Lock() == Buffer::kBufferLocked) {
    dataAddress_ = static_cast<char*>(buffer_->GetAddress());
    if (!dataAddress_) buffer_->Unlock();
  }
  ++lockCount_;
}

bool CacheBlock::IsAttached(CacheTransaction* transaction, std::uint32_t generation) {
  const auto is = [=](const Entry& entry) {
    return entry.transaction == transaction && entry.generation == generation;
  };
  return is(reading_) || std::any_of(pending_.begin() + static_cast<std::ptrdiff_t>(pendingHead_),
                                     pending_.end(), is);
}

void CacheBlock::MakeRoomForPending() {
  if (pending_.size() < pending_.capacity()) return;
  // As many were served as wait, at least: their room will do.
  if (pendingHead_ > 0 && pendingHead_ >= pending_.size() / 2) {
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(pendingHead_));
    pendingHead_ = 0;
    return;
  }
  pending_.reserve(std::max<std::size_t>(2, 2 * pending_.size()));
}

bool CacheBlock::PopPending(Entry* entry) {
  if (pendingHead_ == pending_.size()) return false;
  *entry = pending_[pendingHead_++];
  if (pendingHead_ == pending_.size()) {
    pendingHead_ = 0;
    pending_.clear();
    // Not the room of one who holds the block and is about to wait.
    if (pending_.capacity() > kRoomKept && lockCount_ <= 1) std::vector<Entry>().swap(pending_);
  }
  return true;
}

void CacheBlock::SetStamp(std::uint32_t dueTime, const CacheTime& now) {
  const std::uint64_t due = dueTime == 0 ? now.Milli() : now.Extend(dueTime);
  if (due <= stamp_ && stamp_ - due <= kKeptAheadMs) return;
  stamp_ = due;
  tie_ = now.micro;
}

// Nobody holds the block: what it is shows in its place again. With the list's lock.
void CacheBlock::Settle() {
  if (doomed_) Forget();
  doomed_ = parked_ = false;
  placedStamp_ = stamp_;
  placedTie_ = tie_;
  Resort();
}

void CacheBlock::Forget() {
  sourceKey_ = CacheSource::kInvalidKey;
  validBytes_ = 0;
  stamp_ = tie_ = 0;
}

void CacheBlock::DropEntry(const Entry& entry, const char* function) {
  ReportScope::Release(entry.transaction, kFile, function, __LINE__);
}

}  // namespace Orvane
