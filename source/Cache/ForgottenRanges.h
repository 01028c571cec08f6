// What a cache forgot lately.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "MTPrimitives.h"

namespace Orvane {

// The ranges that were last invalidated, for reads that wait for what is in memory without being
// attached to a block: at their turn they find out whether what they wait for was evicted, or
// forgotten because it is not true any more. Guarded by the lock of the block list, but for
// GetNumber.
class ForgottenRanges {
 public:
  ForgottenRanges();

  // Changes with each range that is added. Of any thread: who sees what an Add came before sees its
  // number too.
  std::uint32_t GetNumber() const { return number_->Get(); }
  // REQUIRES: first <= last, both in bytes.
  void Add(std::uint32_t sourceKey, std::uint64_t first, std::uint64_t last);
  // Whether something of the range was added after the number was got; of very many, only the last
  // are known.
  bool HasSince(std::uint32_t number, std::uint32_t sourceKey, std::uint64_t first,
                std::uint64_t last) const;

 private:
  struct Range {
    std::uint64_t first;
    std::uint64_t last;
    std::uint32_t sourceKey;
  };
  static constexpr std::size_t kKept = 256;

  std::array<Range, kKept> ranges_{};  // that with number n at n % kKept
  const std::unique_ptr<MTAtomicUnsigned32> number_;
};

}  // namespace Orvane
