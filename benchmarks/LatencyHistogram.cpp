#include "LatencyHistogram.h"

#include <algorithm>
#include <cmath>

namespace bench {
namespace {

constexpr double kLowestNanos = 10;
constexpr double kHighestNanos = 1e11;
constexpr unsigned kBins = 1000;

}  // namespace

LatencyHistogram::LatencyHistogram()
    : histogram_(std::make_tuple(Axis(kBins, kLowestNanos, kHighestNanos))) {}

void LatencyHistogram::Record(Clock::time_point start, Clock::time_point end) {
  histogram_(std::chrono::duration<double, std::nano>(end - start).count());
}

double LatencyHistogram::GetQuantile(double share) const {
  const auto wanted =
      static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(GetCount())));
  std::uint64_t seen = 0;
  for (const Bin& bin : GetBins()) {
    seen += bin.count;
    if (seen >= wanted) return bin.upperMicros;
  }
  return 0;
}

std::uint64_t LatencyHistogram::GetCount() const {
  std::uint64_t count = 0;
  for (const Bin& bin : GetBins()) count += bin.count;
  return count;
}

std::vector<LatencyHistogram::Bin> LatencyHistogram::GetBins() const {
  std::vector<Bin> bins;
  // With what is shorter than the first and longer than the last.
  for (int k = -1; k <= static_cast<int>(kBins); ++k) {
    const std::uint64_t count = histogram_.at(k).value();
    const double upper = histogram_.axis(0).value(std::min<double>(k + 1, kBins));
    if (count > 0) bins.push_back({upper / 1000, count});
  }
  return bins;
}

}  // namespace bench
