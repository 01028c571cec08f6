#include "Cache/CacheStatistics.h"

#include <algorithm>
#include <iterator>

#include "MTInterface.h"
#include "OSServices/AtomicValue.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {

CacheStatistics::CacheStatistics()
    : lock_(NewCritSec(LockClass::kStatistics)), collects_(MTInterface::NewAtomicUnsigned32(0)) {}

CacheStatistics::~CacheStatistics() = default;

void CacheStatistics::Collect(bool on) {
  CritSecLock lock(lock_.get());
  if (on == exists_) return;
  std::fill(std::begin(counts_), std::end(counts_), 0);
  exists_ = on;
  AtomicExchange(collects_.get(), on ? 1 : 0);
}

void CacheStatistics::Reset() {
  CritSecLock lock(lock_.get());
  std::fill(std::begin(counts_), std::end(counts_), 0);
}

void CacheStatistics::Add(Counter counter, std::uint32_t count) {
  if (collects_->Get() == 0) return;
  CritSecLock lock(lock_.get());
  if (exists_) counts_[counter] += count;
}

std::uint32_t CacheStatistics::Get(Counter counter) {
  CritSecLock lock(lock_.get());
  return counts_[counter];
}

}  // namespace Orvane
