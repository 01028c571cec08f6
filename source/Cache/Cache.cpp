#include "Cache.h"

#include <algorithm>
#include <limits>

#include "Buffer.h"
#include "BufferList.h"
#include "Cache/CacheCommands.h"
#include "Cache/CacheParts.h"
#include "Cache/CacheReaper.h"
#include "Cache/TransactionInternals.h"
#include "CoreClasses/ScopedRelease.h"
#include "OSServices/LibraryThread.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/Cache";

bool PassesTheEnd(std::uint64_t offset, std::uint64_t size) {
  return size > std::numeric_limits<std::uint64_t>::max() - offset;
}

std::uint64_t ClampSize(std::uint64_t offset, std::uint64_t size) {
  return std::min(size, std::numeric_limits<std::uint64_t>::max() - offset);
}

void Store(MTAtomicPointer* pointer, void* value) {
  // The exchange reports success by 32 bits.
  while (pointer->Get() != value) pointer->CompareAndSwap(pointer->Get(), value);
}

// While a source is being cancelled new reads of it are refused. Nests.
class CancellingSource {
 public:
  CancellingSource(MTAtomicPointer* pointer, CacheSource* source)
      : pointer_(pointer), outer_(pointer->Get()) {
    Store(pointer_, source);
  }
  ~CancellingSource() { Store(pointer_, outer_); }
  CancellingSource(const CancellingSource&) = delete;
  CancellingSource& operator=(const CancellingSource&) = delete;

 private:
  MTAtomicPointer* const pointer_;
  void* const outer_;
};

}  // namespace

Cache::Cache(BufferFactory* factory) {
  parts_ = new CacheParts(this, factory);
}

Cache::~Cache() {
  ReportScope scope;
  delete parts_;
}

long Cache::DecRef(const char* file, const char* function, unsigned long line) {
  if (!LibraryThreadMark::IsSetOnThisThread()) return SharedObject::DecRef(file, function, line);
  const long count = ReleaseReference();
  if (count == 0) CacheReaper::Destroy(this);
  return count;
}

CacheSource::Result_t Cache::Read(CacheTransaction* transaction) {
  ReportScope scope;
  SharedObjectAutoRef keep(transaction);
  bool isInUse = false;
  const CacheSource::Result_t result = Start(transaction, &isInUse);
  if (isInUse) return result;
  switch (result) {
    case CacheSource::kResultFailed:
    case CacheSource::kResultError:
      transaction->SetResult(result);
      break;
    case CacheSource::kResultOutOfRange:
      TransactionInternals::FinishWithoutData(transaction);
      break;
    default:
      break;
  }
  return result;
}

CacheSource::Result_t Cache::Start(CacheTransaction* transaction, bool* isInUse) {
  *isInUse = false;
  if (!transaction || !transaction->GetSource()) return CacheSource::kResultNotSupported;
  if (PassesTheEnd(transaction->GetOffset(), transaction->GetSize())) {
    return CacheSource::kResultNotSupported;
  }
  if (!TransactionInternals::SetCacheInUseBy(transaction, this)) {
    *isInUse = true;
    return CacheSource::kResultError;
  }
  CacheSource::Result_t result = CacheSource::kResultError;
  if (IsCancelling(transaction->GetSource())) {
    result = CacheSource::kResultFailed;
  } else if (transaction->GetSize() == 0) {
    result = CacheSource::kResultOutOfRange;
  } else if (TransactionInternals::IsOver(transaction,
                                          TransactionInternals::GetGeneration(transaction))) {
    // Nothing would ever report it, and it would stay in use.
    *isInUse = true;
  } else if (parts_->CanRead()) {
    try {
      std::unique_ptr<ReadCommand, FinishUnused> command(new ReadCommand(this, transaction));
      parts_->readProcessor_->Add(command.get());
      command.release();
      return CacheSource::kResultPending;
    } catch (...) {
      // Memory is short.
    }
  }
  TransactionInternals::ClearCacheInUseBy(transaction, this);
  return result;
}

void Cache::PreRead(CacheSource* source, std::uint64_t offset, std::uint64_t size,
                    std::uint32_t dueTime, MTThread::MTPriority priority) {
  const std::uint64_t blockSize = GetBlockSize();
  if (!source || blockSize == 0 || !parts_->CanRead() || IsCancelling(source)) return;
  ReportScope scope;
  parts_->preReads_->AlignRange(offset, size);
  // More than all blocks can hold is not worth reading ahead.
  std::uint64_t count = std::min(size / blockSize, parts_->blocks_->GetBlockCount());
  for (; count > 0; --count, offset += blockSize) {
    try {
      QueuePreRead(source, offset, dueTime, priority);
    } catch (...) {
      break;  // memory is short: the reads will have to do without
    }
  }
  parts_->readProcessor_->Wake();
}

void Cache::QueuePreRead(CacheSource* source, std::uint64_t offset, std::uint32_t dueTime,
                         MTThread::MTPriority priority) {
  CacheTransaction* const transaction = new CacheTransaction;
  ScopedRelease<CacheTransaction> release(transaction, kFile, "Orvane::Cache::PreRead", __LINE__);
  if (!TransactionInternals::SetupForPreRead(transaction, source, offset, GetBlockSize(), dueTime,
                                             priority)) {
    return;
  }
  std::unique_ptr<ReadCommand, FinishUnused> command(new ReadCommand(this, transaction));
  parts_->readProcessor_->AddQuietly(command.get());
  command.release();
}

void Cache::Invalidate(CacheSource* source, std::uint64_t offset, std::uint64_t size) {
  if (!source || !parts_->blocks_) return;
  ReportScope scope;
  // What it takes out of its block a cancel does not find there any more.
  ReportRegistry::Pending pending(&parts_->reports_, source->GetSourceKey());
  parts_->blocks_->InvalidateRange(source, offset, ClampSize(offset, size));
}

void Cache::InvalidateWritten(CacheSource* source, std::uint64_t offset, std::uint64_t size) {
  if (!parts_->blocks_) return;
  ReportScope scope;
  parts_->blocks_->InvalidateWritten(source, offset, ClampSize(offset, size));
}

void Cache::Cancel(CacheSource* source) {
  if (source) CancelAndReport(source, /*purge=*/false);
}

void Cache::Purge(CacheSource* source) {
  if (source) CancelAndReport(source, /*purge=*/true);
}

void Cache::CancelAndReport(CacheSource* source, bool purge) {
  const bool awaitsOthers = ReportScope::IsFarFromAny();
  const std::uint32_t sourceKey = source->GetSourceKey();
  // A report may give up the last reference, on the source too.
  SharedObjectAutoRef keep(this);
  {
    ReportScope scope;
    CancelMutex::Lock oneAtATime(&parts_->cancelMutex_);
    CancelSource(source);
    if (purge && parts_->blocks_) parts_->blocks_->PurgeSource(source);
  }
  // Those of other threads. Inside a callback they could be waiting for this one.
  if (awaitsOthers) parts_->reports_.AwaitAllOf(sourceKey);
}

void Cache::CancelSource(CacheSource* source) {
  ProcessorHold holdReads(parts_->readProcessor_.get());
  ProcessorHold holdDispatchedReads(parts_->dispatchedReadProcessor_.get());
  ProcessorHold holdCopies(parts_->copyProcessor_.get());
  CancellingSource cancelling(parts_->cancellingSource_.get(), source);
  source->CancelAllTransactions();
  if (!parts_->blocks_) return;
  CacheCommandFinder finder(source);
  parts_->readProcessor_->Remove(&finder);
  parts_->dispatchedReadProcessor_->Remove(&finder);
  parts_->copyProcessor_->Remove(&finder);
  parts_->blocks_->CancelSource(source);
  parts_->preReads_->RemoveSource(source);
}

void Cache::NotifySomethingChanged() {
  if (parts_ && parts_->readProcessor_) parts_->readProcessor_->WakeIfWaiting();
}

std::uint64_t Cache::GetBlockSize() const {
  return parts_->blocks_ ? parts_->blocks_->GetBlockSize() : 0;
}

void Cache::CollectCacheStats(bool on) {
  parts_->statistics_.Collect(on);
}

void Cache::ResetCacheStats() {
  parts_->statistics_.Reset();
}

std::uint32_t Cache::GetCacheHits() {
  return parts_->statistics_.Get(CacheStatistics::kHits);
}

std::uint32_t Cache::GetCacheMisses() {
  return parts_->statistics_.Get(CacheStatistics::kMisses);
}

std::uint32_t Cache::GetCacheDirectReads() {
  return parts_->statistics_.Get(CacheStatistics::kDirectReads);
}

std::uint32_t Cache::GetCachePreReads() {
  return parts_->statistics_.Get(CacheStatistics::kPreReads);
}

void Cache::Dump() {
  if (parts_->blocks_) parts_->blocks_->Dump();
}

bool Cache::ProcessTransaction(CacheTransaction* transaction) {
  return parts_->processor_->Process(transaction);
}

ReportRegistry* Cache::GetReports() {
  return &parts_->reports_;
}

bool Cache::IsCancelling(CacheSource* source) {
  return parts_->cancellingSource_->Get() == source;
}

bool Cache::ReadResident(CacheSource* source, std::uint64_t offset, Buffer* buffer,
                         BufferList* list, std::uint64_t size, std::uint32_t dueTime) {
  if (!parts_->CanRead() || size == 0 || PassesTheEnd(offset, size) || IsCancelling(source)) {
    return false;
  }
  return parts_->resident_->Read(source->GetSourceKey(), offset, size, buffer, list, dueTime);
}

bool Cache::HoldsResident(CacheSource* source, std::uint64_t offset, std::uint64_t size,
                          std::uint32_t* number) {
  if (!parts_->CanRead() || PassesTheEnd(offset, size) || IsCancelling(source)) return false;
  *number = parts_->blocks_->GetForgottenNumber();
  return parts_->blocks_->HoldsResident(source->GetSourceKey(), offset, size);
}

bool Cache::WasForgotten(CacheSource* source, std::uint64_t offset, std::uint64_t size,
                         std::uint32_t number) {
  return parts_->blocks_->WasForgotten(source->GetSourceKey(), offset, size, number);
}

void Cache::QueueCopy(CacheCommand* command) {
  parts_->copyProcessor_->Add(command);
}

}  // namespace Orvane
