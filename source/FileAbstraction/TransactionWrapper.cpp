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

// There is no other completion to come: whatever the source says ends the transaction. With one
// call, because its owner may load it anew as soon as it has ended.
void TransactionWrapper::CompleteTransaction(CacheSource::Result_t result, std::uint64_t offset,
                                             std::uint64_t bytes) {
  const std::uint64_t size = transaction_->GetSize();
  bytes = std::min(bytes, size);
  // Fewer bytes than asked for: the data ended there.
  if (result == CacheSource::kResultOK && bytes < size) result = CacheSource::kResultPartial;
  if (result == CacheSource::kResultPartial && bytes == 0) result = CacheSource::kResultOutOfRange;
  if (result == CacheSource::kResultOutOfRange) bytes = 0;
  const bool isOfTheData = result == CacheSource::kResultOK ||
                           result == CacheSource::kResultPartial ||
                           result == CacheSource::kResultOutOfRange;
  if (isOfTheData && offset == transaction_->GetOffset()) {
    transaction_->Complete(offset, bytes, result);
  } else {
    transaction_->SetResult(result == CacheSource::kResultFailed ? result
                                                                 : CacheSource::kResultError);
  }
}

}  // namespace Orvane
