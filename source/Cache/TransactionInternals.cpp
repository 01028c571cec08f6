#include "Cache/TransactionInternals.h"

#include "Cache/CacheTransactionWorkResultCallback.h"
#include "Cache/WorkTracker.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/ReportScope.h"

namespace Orvane {

bool TransactionInternals::SetupForPreRead(CacheTransaction* transaction, CacheSource* source,
                                           std::uint64_t offset, std::uint64_t size,
                                           std::uint32_t dueTime, MTThread::MTPriority priority) {
  return transaction->SetupForPreRead(source, offset, size, dueTime, priority);
}

void TransactionInternals::MarkAsBatch(CacheTransaction* transaction) {
  transaction->workTracker_ = new WorkTracker(0, LockClass::kBatchTracker);
}

bool TransactionInternals::SetCacheInUseBy(CacheTransaction* transaction, Cache* cache) {
  return transaction->SetCacheInUseBy(cache);
}

void TransactionInternals::ClearCacheInUseBy(CacheTransaction* transaction, Cache* cache) {
  transaction->ClearCacheInUseBy(cache);
}

void TransactionInternals::FinishWithoutData(CacheTransaction* transaction) {
  SharedObjectAutoRef keep(transaction);
  if (!transaction->MakeTracker()) {
    CacheTransactionWorkResultCallback(transaction).OnWorkResult(kWorkOutOfRange, nullptr, 0);
    return;
  }
  WorkTracker* const tracker = transaction->workTracker_;
  CritSecLock lock(tracker->GetLock());
  tracker->SetResultCallback(transaction->workResultCallback_);
  // Without a list the tracker was not in charge.
  if (!transaction->bufferList_) tracker->Reset(0);
  tracker->Complete(0, 0, kWorkOutOfRange);
}

std::uint32_t TransactionInternals::GetGeneration(CacheTransaction* transaction) {
  WorkTracker* const tracker = transaction->workTracker_;
  if (!tracker) return transaction->stateWord_;
  CritSecLock lock(tracker->GetLock());
  return transaction->stateWord_;
}

bool TransactionInternals::IsOver(CacheTransaction* transaction, std::uint32_t generation) {
  WorkTracker* const tracker = transaction->workTracker_;
  if (!tracker) return transaction->stateWord_ != generation;
  CritSecLock lock(tracker->GetLock());
  return transaction->stateWord_ != generation || tracker->GetResult(nullptr) != kWorkPending;
}

bool TransactionInternals::PeekRange(CacheTransaction* transaction, std::uint64_t from,
                                     std::uint64_t* offset, std::uint64_t* size) {
  WorkTracker* const tracker = transaction->workTracker_;
  const std::uint64_t start = transaction->offset_;
  if (!tracker || !tracker->PeekRange(from > start ? from - start : 0, offset, size)) {
    *offset = *size = 0;
    return false;
  }
  *offset += start;
  return true;
}

void TransactionInternals::ReleaseSource(CacheTransaction* transaction) {
  CacheSource* const source = transaction->source_;
  transaction->source_ = nullptr;
  ReportScope::Release(source, "source/Cache/TransactionInternals",
                       "Orvane::TransactionInternals::ReleaseSource", __LINE__);
}

bool TransactionInternals::Borrow(CacheTransaction* transaction, std::uint32_t generation) {
  WorkTracker* const tracker = transaction->workTracker_;
  return tracker && tracker->Borrow(&transaction->stateWord_, generation);
}

void TransactionInternals::Return(CacheTransaction* transaction) {
  transaction->workTracker_->Return();
}

}  // namespace Orvane
