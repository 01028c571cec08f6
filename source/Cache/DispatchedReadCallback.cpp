#include "Cache/DispatchedReadCallback.h"

#include <algorithm>
#include <limits>

#include "Buffer.h"
#include "BufferFactory.h"
#include "BufferList.h"
#include "Cache/BatchRegistry.h"
#include "Cache/CacheBlock.h"
#include "Cache/CacheCommands.h"
#include "Cache/CommandProcessor.h"
#include "Cache/TransactionInternals.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/DispatchedReadCallback";
constexpr const char* kCallback = "Orvane::DispatchedReadCallback::Callback";
constexpr std::size_t kUsualBlocks = 4;

}  // namespace

DispatchedReadCallback::DispatchedReadCallback(const BatchContext& context, CacheSource* source,
                                               std::uint32_t dueTime)
    : context_(context), lock_(NewCritSec(LockClass::kBatch)), source_(source), dueTime_(dueTime) {
  blocks_.reserve(kUsualBlocks);
  list_ = new BufferList(kUsualBlocks);
}

DispatchedReadCallback::~DispatchedReadCallback() {
  list_->DecRef(kFile, "Orvane::DispatchedReadCallback::~DispatchedReadCallback", __LINE__);
}

bool DispatchedReadCallback::Append(CacheBlock* block) {
  CritSecLock lock(lock_.get());
  const std::uint64_t offset = block->GetSourceOffset();
  // The last block of all, which passes 2^64, is read by itself.
  const bool passesTheEnd =
      block->GetCapacity() > std::numeric_limits<std::uint64_t>::max() - offset;
  if (!blocks_.empty() && (offset != end_ || passesTheEnd || end_ == 0)) return false;
  if (blocks_.size() == blocks_.capacity()) blocks_.reserve(2 * blocks_.size());
  list_->AddBuffer(block->GetBuffer(), /*adoptReference=*/false);
  if (blocks_.empty()) start_ = offset;
  end_ = offset + block->GetCapacity();
  blocks_.push_back(block);
  return true;
}

void DispatchedReadCallback::Dispatch() {
  // The end may come before this returns.
  SharedObjectAutoRef keep(this);
  if (list_->GetNumberOfBuffers() == 0) {
    DecRef(kFile, "Orvane::DispatchedReadCallback::Dispatch", __LINE__);
    return;
  }
  context_.registry->Add(this);
  try {
    // No data reaches up to the last offset of all, where the last block does not fit.
    if (!QueueRead()) {
      EndWith(end_ < start_ ? CacheSource::kResultOutOfRange : CacheSource::kResultError, 0);
    }
  } catch (...) {
    EndWith(CacheSource::kResultError, 0);
  }
}

bool DispatchedReadCallback::QueueRead() {
  transaction_ = new CacheTransaction;
  TransactionInternals::MarkAsBatch(transaction_);
  if (!transaction_->Setup(source_, start_, list_, this, dueTime_, MTThread::kPriorityNormal)) {
    return false;
  }
  std::unique_ptr<DispatchedReadCommand, FinishUnused> command(
      new DispatchedReadCommand(context_.cache, transaction_));
  context_.dispatchedReadProcessor->Add(command.get());
  command.release();
  return true;
}

void DispatchedReadCallback::Callback(CacheSource::Result_t result, CacheTransaction*,
                                      std::uint64_t bytesDone) {
  EndWith(result, bytesDone);
}

void DispatchedReadCallback::EndWith(CacheSource::Result_t result, std::uint64_t bytes) {
  CommandProcessor* waiting = nullptr;
  {
    CritSecLock lock(lock_.get());
    if (orphansFactory_) {
      for (std::size_t k = 0; k < list_->GetNumberOfBuffers(); ++k) {
        orphansFactory_->ReturnBufferToFactory(list_->GetBuffer(k));
      }
      ReportScope::Release(orphansFactory_, kFile, kCallback, __LINE__);
      orphansFactory_ = nullptr;
    }
    if (!blocks_.empty()) {
      waiting = context_.dispatchedReadProcessor;
      RefuseMoreWhereNothingCame(result, bytes);
      for (CacheBlock* const block : blocks_) {
        const std::uint64_t share = std::min(bytes, block->GetCapacity());
        CompleteBlock(block, result, share);
        bytes -= share;
      }
      blocks_.clear();
      // The source has room for another.
      waiting->WakeIfWaiting();
      context_.registry->Remove(this);
    }
  }
  // Not here: this runs inside the transaction's lock.
  if (transaction_) {
    ReportScope::Release(std::exchange(transaction_, nullptr), kFile, kCallback, __LINE__);
  }
  ReportScope::Release(this, kFile, kCallback, __LINE__);
}

// Before anybody hears of the outcome: who reads again upon it shall not meet another block of the
// same read.
void DispatchedReadCallback::RefuseMoreWhereNothingCame(CacheSource::Result_t result,
                                                        std::uint64_t bytes) {
  const bool good = result == CacheSource::kResultOK || result == CacheSource::kResultPartial;
  for (CacheBlock* const block : blocks_) {
    const std::uint64_t share = std::min(bytes, block->GetCapacity());
    if (!good || share == 0) block->RefuseMore();
    bytes -= share;
  }
}

// A failed block is invalidated first: released, it may be claimed for another range at once.
void DispatchedReadCallback::CompleteBlock(CacheBlock* block, CacheSource::Result_t result,
                                           std::uint64_t bytes) {
  if (result == CacheSource::kResultFailed) {
    block->InvalidateBySource(source_);
    block->CompleteReadInto(bytes, result);
    return;
  }
  block->CompleteReadInto(bytes, result);
  if (block->HasOnlyPreReads()) {
    // Nothing is to be copied: the copying thread need not wake for it.
    block->ProcessPendingTransactions(nullptr);
    return;
  }
  try {
    std::unique_ptr<DispatchedCopyCommand, FinishUnused> command(
        new DispatchedCopyCommand(dueTime_, context_.cache, source_, block));
    context_.copyProcessor->Add(command.get());
    command.release();
  } catch (...) {
    // Memory is short: here and now, then.
    block->ProcessPendingTransactions(nullptr);
  }
}

void DispatchedReadCallback::Orphan() {
  CritSecLock lock(lock_.get());
  if (blocks_.empty()) return;
  orphansFactory_ = context_.factory;
  orphansFactory_->AddRef(kFile, "Orvane::DispatchedReadCallback::Orphan", __LINE__);
  for (CacheBlock* const block : blocks_) {
    block->InvalidateBySource(source_);
    block->CompleteReadInto(0, CacheSource::kResultFailed);
    // The device may still write into it; it stays with the list.
    block->ReleaseBuffer();
  }
  blocks_.clear();
  context_.registry->Remove(this);
}

}  // namespace Orvane
