// The library, used in the ways that are measured.
#pragma once

#include <memory>

#include "Job.h"
#include "Runner.h"

namespace bench {

// Asynchronous lists, `depth` in flight; each callback starts the next.
std::unique_ptr<Runner> NewOrvaneAsync(const CachedJob& job);
// One synchronous list after another on each of `threads` threads, which share the items.
std::unique_ptr<Runner> NewOrvaneSync(const CachedJob& job, unsigned threads = 1);

struct ScanJob : CachedJob {
  std::uint64_t windowBytes = 0;  // asked for ahead of the reader
  double microsPerItem = 0;       // that the reader computes with each item before the next
};

// One synchronous read after another with pre-reads ahead of them. Each pass begins with nothing in
// the cache.
std::unique_ptr<Runner> NewOrvaneScan(const ScanJob& job);

// Keeps a processor busy.
void Compute(double micros);

}  // namespace bench
