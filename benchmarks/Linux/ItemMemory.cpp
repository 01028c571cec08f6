#include "ItemMemory.h"

#include <cstring>

#include "../RandomContent.h"

namespace bench {
namespace {

// Between two pieces, so that they are not one by chance.
constexpr std::uint64_t kGapBytes = 4096;

}  // namespace

ItemMemory::ItemMemory(const Job& job, unsigned slots)
    : parts_(job.parts),
      blocks_(job.itemBytes / job.parts + (job.parts > 1 ? kGapBytes : 0),
              std::size_t{slots} * job.parts),
      pieces_(std::size_t{slots} * job.parts) {
  std::mt19937_64 content = NewContent();
  for (std::size_t k = 0; k < pieces_.size(); ++k) {
    pieces_[k] = {blocks_[k], job.itemBytes / job.parts};
    if (job.write) FillWithRandom(pieces_[k].iov_base, pieces_[k].iov_len, &content);
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
