#include "ItemMemory.h"

#include <cstring>
#include <random>

namespace bench {
namespace {

// Between two pieces, so that they are not one by chance.
constexpr std::uint64_t kGapBytes = 4096;

void FillWithRandom(const iovec& piece, std::mt19937_64* random) {
  auto* const words = static_cast<std::uint64_t*>(piece.iov_base);
  for (std::size_t k = 0; k < piece.iov_len / sizeof *words; ++k) words[k] = (*random)();
}

}  // namespace

ItemMemory::ItemMemory(const Job& job, unsigned slots)
    : parts_(job.parts),
      blocks_(job.itemBytes / job.parts + (job.parts > 1 ? kGapBytes : 0),
              std::size_t{slots} * job.parts),
      pieces_(std::size_t{slots} * job.parts) {
  std::mt19937_64 random(11);
  for (std::size_t k = 0; k < pieces_.size(); ++k) {
    pieces_[k] = {blocks_[k], job.itemBytes / job.parts};
    if (job.write) FillWithRandom(pieces_[k], &random);
  }
}

void ItemMemory::CopyIn(std::size_t slot, const char* item) const {
  const iovec* const pieces = GetPieces(slot);
  for (std::size_t part = 0; part < parts_; ++part) {
    std::memcpy(pieces[part].iov_base, item, pieces[part].iov_len);
    item += pieces[part].iov_len;
  }
  // Or the compiler sees that nobody looks at the copy.
  asm volatile("" : : "r"(pieces) : "memory");
}

}  // namespace bench
