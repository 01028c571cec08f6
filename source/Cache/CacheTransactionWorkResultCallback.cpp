#include "Cache/CacheTransactionWorkResultCallback.h"

#include "CacheTransaction.h"
#include "MTInterface.h"

namespace Orvane {

CacheTransactionWorkResultCallback::CacheTransactionWorkResultCallback(
    CacheTransaction* transaction)
    : transaction_(transaction) {}

void CacheTransactionWorkResultCallback::OnWorkResult(WorkCode code, WorkTracker*,
                                                      std::uint64_t bytesDone) {
  MTAtomicPointer* const cacheInUseBy = transaction_->cacheInUseBy_;
  if (void* const cache = cacheInUseBy->Get()) cacheInUseBy->CompareAndSwap(cache, nullptr);
  CacheTransaction::StatusCallback* const callback = transaction_->statusCallback_;
  if (!callback) return;
  SharedObjectAutoRef keepCallback(callback);
  try {
    callback->Callback(ToResult(code), transaction_, bytesDone);
  } catch (...) {
    MTInterface::DebugString("Unhandled Exception In Transaction Callback\n");
  }
}

}  // namespace Orvane
