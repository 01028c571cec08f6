#pragma once

#include <boost/histogram/accumulators/count.hpp>
#include <boost/histogram/axis/regular.hpp>
#include <boost/histogram/histogram.hpp>
#include <boost/histogram/storage_adaptor.hpp>
#include <chrono>
#include <cstdint>
#include <tuple>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

// Times of single items, from 10 ns to 100 s in steps of 2.3 %. Any thread may record.
class LatencyHistogram {
 public:
  struct Bin {
    double upperMicros;
    std::uint64_t count;
  };

  LatencyHistogram();

  void Record(Clock::time_point start, Clock::time_point end);
  void RecordSince(Clock::time_point start) { Record(start, Clock::now()); }

  // The time in microseconds that this share of all items did not exceed; 0 without items.
  double GetQuantile(double share) const;
  std::uint64_t GetCount() const;
  // Those that are not empty, shortest times first.
  std::vector<Bin> GetBins() const;

 private:
  using Axis = boost::histogram::axis::regular<double, boost::histogram::axis::transform::log>;
  using Count = boost::histogram::accumulators::count<std::uint64_t, /*ThreadSafe=*/true>;
  using Histogram =
      boost::histogram::histogram<std::tuple<Axis>, boost::histogram::dense_storage<Count>>;

  Histogram histogram_;
};

}  // namespace bench
