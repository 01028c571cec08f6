#include "Cache/CacheCommands.h"

#include "Cache.h"
#include "Cache/CacheBlock.h"
#include "Cache/CacheClock.h"
#include "Cache/TransactionInternals.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/CacheCommands";

}  // namespace

Command::Command(CommandKind kind, std::uint32_t dueTime)
    : kind_(kind),
      dueTime_(dueTime),
      sortKey_(dueTime == CacheSource::kDueASAP ? 0 : CacheTime::Now().Extend(dueTime)) {}

TransactionCommand::TransactionCommand(CommandKind kind, Cache* cache,
                                       CacheTransaction* transaction)
    : CacheCommand(kind, transaction->GetDueTime(), cache, transaction->GetSource()),
      transaction_(transaction),
      generation_(TransactionInternals::GetGeneration(transaction)) {
  transaction_->AddRef(kFile, "Orvane::TransactionCommand::TransactionCommand", __LINE__);
}

TransactionCommand::~TransactionCommand() {
  ReportScope::Release(transaction_, kFile, "Orvane::TransactionCommand::~TransactionCommand",
                       __LINE__);
}

void TransactionCommand::FailTransaction() {
  TransactionBorrow borrow(transaction_, generation_);
  if (borrow.IsHeld()) transaction_->SetResult(CacheSource::kResultFailed);
}

ReadCommand::ReadCommand(Cache* cache, CacheTransaction* transaction)
    : TransactionCommand(kCommandRead, cache, transaction),
      isPreRead_(transaction->IsPreReadTransaction()),
      offset_(transaction->GetOffset()) {}

bool ReadCommand::IsPreReadAt(std::uint64_t offset) const {
  return isPreRead_ && offset_ == offset;
}

bool ReadCommand::Execute() {
  if (!cache_) return true;
  TransactionBorrow borrow(transaction_, generation_);
  return !borrow.IsHeld() || cache_->ProcessTransaction(transaction_);
}

void ReadCommand::Finish(bool cancelled) {
  if (cancelled) FailTransaction();
  delete this;
}

DispatchedReadCommand::DispatchedReadCommand(Cache* cache, CacheTransaction* transaction)
    : TransactionCommand(kCommandDispatchedRead, cache, transaction) {}

bool DispatchedReadCommand::Execute() {
  // Not borrowed meanwhile: the batch may be reported from inside the call.
  if (TransactionInternals::IsOver(transaction_, generation_)) return true;
  const CacheSource::Result_t result = transaction_->ReadDirect();
  if (result == CacheSource::kResultBusy) return false;
  if (result == CacheSource::kResultOK) {
    transaction_->Complete(transaction_->GetOffset(), transaction_->GetSize(), result);
  } else if (result != CacheSource::kResultPending) {
    // Nothing follows. Positive answers make no sense here.
    transaction_->SetResult(result < CacheSource::kResultNone ? result : CacheSource::kResultError);
  }
  return true;
}

void DispatchedReadCommand::Finish(bool cancelled) {
  if (cancelled) FailTransaction();
  delete this;
}

DispatchedCopyCommand::DispatchedCopyCommand(std::uint32_t dueTime, Cache* cache,
                                             CacheSource* source, CacheBlock* block)
    : CacheCommand(kCommandDispatchedCopy, dueTime, cache, source),
      sourceKey_(source->GetSourceKey()),
      block_(block) {}

DispatchedCopyCommand::DispatchedCopyCommand(Cache* cache, CacheTransaction* transaction)
    : DispatchedCopyCommand(transaction->GetDueTime(), cache, transaction->GetSource(), nullptr) {}

bool DispatchedCopyCommand::Execute() {
  block_->ProcessPendingTransactions(nullptr);
  return true;
}

void DispatchedCopyCommand::Finish(bool cancelled) {
  bool becameFree = false;
  // Another command may have served those that it was made for: then others may wait by now, for
  // what another source has.
  if (cancelled && block_->GetSourceKey() == sourceKey_) {
    block_->CancelPendingTransactions(&becameFree);
  }
  if (becameFree && cache_) cache_->NotifySomethingChanged();
  delete this;
}

}  // namespace Orvane
