// From the tracker of a transaction to whoever is told of its end.
#pragma once

#include "Cache/WorkTracker.h"

namespace Orvane {

class CacheTransaction;

// Owned by its transaction, on which it holds no reference.
class CacheTransactionWorkResultCallback : public WorkTracker::WorkResultCallback {
 public:
  explicit CacheTransactionWorkResultCallback(CacheTransaction* transaction);

  // Takes the transaction from the cache that uses it, so that it can be set up and cleaned from
  // now on, then tells its status callback, whose exceptions it swallows.
  void OnWorkResult(WorkCode code, WorkTracker* tracker, std::uint64_t bytesDone) override;

 private:
  CacheTransaction* const transaction_;
};

}  // namespace Orvane
