#include "Cache/ForgottenRanges.h"

#include <algorithm>

#include "MTInterface.h"

namespace Orvane {

ForgottenRanges::ForgottenRanges() : number_(MTInterface::NewAtomicUnsigned32(0)) {}

void ForgottenRanges::Add(std::uint32_t sourceKey, std::uint64_t first, std::uint64_t last) {
  ranges_[number_->Get() % kKept] = {first, last, sourceKey};
  number_->Increment();
}

bool ForgottenRanges::HasSince(std::uint32_t number, std::uint32_t sourceKey, std::uint64_t first,
                               std::uint64_t last) const {
  const std::uint32_t end = number_->Get();
  const std::uint32_t count = std::min<std::uint32_t>(end - number, kKept);
  for (std::uint32_t k = 1; k <= count; ++k) {
    const Range& range = ranges_[(end - k) % kKept];
    if (range.sourceKey == sourceKey && range.first <= last && first <= range.last) return true;
  }
  return false;
}

}  // namespace Orvane
