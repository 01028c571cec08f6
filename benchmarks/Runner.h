#pragma once

#include <functional>
#include <memory>

namespace bench {

class LatencyHistogram;

// What is measured: does the same items of work in every pass. What is slow to make is made by its
// constructor. Made, used and destroyed on one thread.
class Runner {
 public:
  virtual ~Runner() = default;
  // Before each pass; not measured.
  virtual void Prepare() {}
  // One pass, all of its items. Notes what each item took, from start to end, unless null. Throws
  // std::runtime_error if an item fails or comes short.
  virtual void Pass(LatencyHistogram* latencies) = 0;
};

using RunnerFactory = std::function<std::unique_ptr<Runner>()>;

}  // namespace bench
