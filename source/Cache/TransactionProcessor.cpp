#include "Cache/TransactionProcessor.h"

#include "Cache/CacheBlockList.h"
#include "Cache/CacheCommands.h"
#include "Cache/CacheStatistics.h"
#include "Cache/CommandProcessor.h"
#include "Cache/PreReadTransactionList.h"
#include "Cache/TransactionInternals.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/TransactionProcessor";
// Adjacent pre-reads are read together up to this size: far enough for the device to run at full
// rate, and the first of them need not wait long for the last.
constexpr std::uint64_t kPreReadBatchBytes = 1 << 20;

// The next command, if it is a pre-read that goes on where a batch ends.
class AdjacentPreReadFinder : public CommandFinder {
 public:
  AdjacentPreReadFinder(const CacheSource* source, std::uint64_t offset)
      : source_(source), offset_(offset) {}
  bool Matches(Command* command, std::uint32_t kind) override {
    if (kind != kCommandRead) return false;
    auto* const read = static_cast<ReadCommand*>(command);
    return read->GetSource() == source_ && read->IsPreReadAt(offset_);
  }

 private:
  const CacheSource* const source_;
  const std::uint64_t offset_;
};

}  // namespace

// The batch that missed blocks are added to; it is dispatched when a block does not fit, and at the
// end.
class TransactionProcessor::OpenBatch {
 public:
  OpenBatch(const BatchContext& context, CacheTransaction* transaction)
      : context_(context),
        source_(transaction->GetSource()),
        dueTime_(transaction->GetDueTime()),
        gathers_(source_->CanGatherReads()) {
    // A pre-read gives up its source before the batch is dispatched.
    source_->AddRef(kFile, "Orvane::TransactionProcessor::OpenBatch", __LINE__);
  }
  ~OpenBatch() {
    Dispatch();
    ReportScope::Release(source_, kFile, "Orvane::TransactionProcessor::OpenBatch", __LINE__);
  }
  OpenBatch(const OpenBatch&) = delete;
  OpenBatch& operator=(const OpenBatch&) = delete;

  // Takes a block that is being filled.
  void Add(CacheBlock* block) {
    try {
      if (!callback_ || !callback_->Append(block)) {
        Dispatch();
        callback_ = new DispatchedReadCallback(context_, source_, dueTime_);
        callback_->Append(block);
      }
    } catch (...) {
      // Memory is short. Without a reader it would wait for ever.
      block->CompleteReadInto(0, CacheSource::kResultError);
      block->ProcessPendingTransactions(nullptr);
    }
    if (!gathers_) Dispatch();
  }
  bool IsOpen() const { return callback_ != nullptr; }
  std::uint64_t GetEnd() const { return callback_->GetEnd(); }
  std::uint64_t GetSize() const { return callback_->GetSize(); }
  CacheSource* GetSource() const { return source_; }

 private:
  void Dispatch() {
    if (callback_) std::exchange(callback_, nullptr)->Dispatch();
  }

  const BatchContext& context_;
  CacheSource* const source_;  // one reference
  const std::uint32_t dueTime_;
  const bool gathers_;
  DispatchedReadCallback* callback_ = nullptr;  // its own reference
};

TransactionProcessor::TransactionProcessor(const BatchContext& context,
                                           CommandProcessor* readProcessor, CacheBlockList* blocks,
                                           PreReadTransactionList* preReads,
                                           CacheStatistics* statistics)
    : context_(context),
      readProcessor_(readProcessor),
      blocks_(blocks),
      preReads_(preReads),
      statistics_(statistics) {}

bool TransactionProcessor::Process(CacheTransaction* transaction) {
  if (!transaction->GetSource()) return true;
  if (transaction->IsPreReadTransaction()) {
    ProcessPreReads(transaction);
    return true;
  }
  return !ServeHits(transaction) || ReadMisses(transaction);
}

// Whether anything is left.
bool TransactionProcessor::ServeHits(CacheTransaction* transaction) {
  const bool isPreRead = transaction->IsPreReadTransaction();
  std::unique_ptr<DispatchedCopyCommand, FinishUnused> command;
  std::uint64_t cursor = 0;
  bool alreadyServed = false;
  while (transaction->StillRangesToComplete()) {
    // Made before the transaction is attached: nothing can fail between that and its copy.
    if (!isPreRead && !command)
      command.reset(new DispatchedCopyCommand(context_.cache, transaction));
    CacheBlock* const block = blocks_->FindBlockToCopyOutOf(transaction, &alreadyServed, &cursor);
    if (!block) break;
    if (isPreRead) continue;
    statistics_->Add(CacheStatistics::kHits, 1);
    if (alreadyServed) continue;
    command->SetBlock(block);
    try {
      context_.copyProcessor->Add(command.get());
      command.release();
    } catch (...) {
      block->ProcessPendingTransactions(nullptr);  // memory is short: here and now, then
    }
  }
  return transaction->StillRangesToComplete();
}

bool TransactionProcessor::ReadMisses(CacheTransaction* transaction) {
  OpenBatch batch(context_, transaction);
  bool isFirst = true;
  while (transaction->StillRangesToComplete()) {
    CacheBlock* const block = blocks_->FindBlockToReadInto(transaction);
    if (!block) break;
    statistics_->Add(CacheStatistics::kMisses, 1);
    statistics_->Add(CacheStatistics::kDirectReads, 1);
    if (isFirst) preReads_->CompletePreReadsForRange(transaction);
    isFirst = false;
    batch.Add(block);
  }
  return !transaction->StillRangesToComplete();
}

void TransactionProcessor::ProcessPreReads(CacheTransaction* first) {
  OpenBatch batch(context_, first);
  ProcessPreRead(first, &batch);
  while (batch.IsOpen() && batch.GetSize() < kPreReadBatchBytes) {
    AdjacentPreReadFinder finder(batch.GetSource(), batch.GetEnd());
    const std::unique_ptr<ReadCommand, FinishUnused> next(
        static_cast<ReadCommand*>(readProcessor_->TakeNext(&finder)));
    if (!next) return;
    const std::uint64_t before = batch.GetEnd();
    {
      TransactionBorrow borrow(next->GetTransaction(), next->GetGeneration());
      if (borrow.IsHeld()) ProcessPreRead(next->GetTransaction(), &batch);
    }
    // It was there already, or no block was free: what follows is another read.
    if (!batch.IsOpen() || batch.GetEnd() == before) return;
  }
}

void TransactionProcessor::ProcessPreRead(CacheTransaction* transaction, OpenBatch* batch) {
  if (!ServeHits(transaction)) return;
  if (preReads_->FindPendingPreRead(transaction)) {
    transaction->Complete(transaction->GetOffset(), transaction->GetSize(), CacheSource::kResultOK);
    return;
  }
  if (transaction->SupportsPreReads()) {
    transaction->PreReadDirect();
    preReads_->AddPreReadTransaction(transaction);
    return;
  }
  // Dropped when no block is free for it: whoever needs the data will read it.
  CacheBlock* const block = blocks_->FindBlockToReadInto(transaction);
  if (!block) return;
  statistics_->Add(CacheStatistics::kPreReads, 1);
  batch->Add(block);
  preReads_->AddPreReadTransaction(transaction);
}

}  // namespace Orvane
