#include "FileAbstraction/TransactionWrapper.h"

#include <algorithm>

#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/FileAbstraction/FileSource";

}  // namespace

TransactionWrapper::TransactionWrapper(CacheTransaction* transaction, FileSource* source)
    : transaction_(transaction), source_(source) {
  transaction_->AddRef(kFile, "TransactionWrapper::TransactionWrapper", 136);
  source_->AddRef(kFile, "TransactionWrapper::TransactionWrapper", 137);
}

TransactionWrapper::~TransactionWrapper() {
  transaction_->DecRef(kFile, "TransactionWrapper::~TransactionWrapper", 160);
  source_->DecRef(kFile, "TransactionWrapper::~TransactionWrapper", 161);
}

void TransactionWrapper::Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList*,
                                  std::uint64_t bytes) {
  ReportScope::LibrarysCode librarysCode;
  ReportScope scope;
  CompleteTransaction(result, offset, bytes);
  // Not before every lock was left: the source may go with it.
  ReportScope::Release(this, kFile, "TransactionWrapper::Callback", 154);
}

// There is no other completion to come: whatever the source says ends the transaction.
void TransactionWrapper::CompleteTransaction(CacheSource::Result_t result, std::uint64_t offset,
                                             std::uint64_t bytes) {
  bytes = std::min(bytes, transaction_->GetSize());
  if (result == CacheSource::kResultPartial && bytes == 0) result = CacheSource::kResultOutOfRange;
  if (result == CacheSource::kResultOutOfRange) bytes = 0;
  transaction_->Complete(offset, bytes, result);
  std::uint64_t done = 0;
  if (transaction_->GetResult(&done) != CacheSource::kResultPending) return;
  if (result == CacheSource::kResultOK && offset == transaction_->GetOffset()) {
    // Fewer bytes than asked for: the data ended there.
    transaction_->Complete(
        offset, bytes, bytes > 0 ? CacheSource::kResultPartial : CacheSource::kResultOutOfRange);
  } else {
    transaction_->SetResult(CacheSource::kResultError);
  }
}

}  // namespace Orvane
