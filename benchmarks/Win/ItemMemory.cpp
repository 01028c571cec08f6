#include "ItemMemory.h"

#include <atomic>
#include <cstring>
#include <stdexcept>

#include "../RandomContent.h"

namespace bench {
namespace {

// Between two pieces, so that they are not one by chance.
constexpr std::uint64_t kGapBytes = 4096;

std::size_t GetPageBytes() {
  SYSTEM_INFO info{};
  GetSystemInfo(&info);
  return info.dwPageSize;
}

FILE_SEGMENT_ELEMENT ToElement(char* page) {
  FILE_SEGMENT_ELEMENT element{};
  element.Buffer = page;
  return element;
}

}  // namespace

ItemMemory::ItemMemory(const Job& job, unsigned slots)
    : parts_(job.parts),
      pieceBytes_(job.itemBytes / job.parts),
      blocks_(pieceBytes_ + (job.parts > 1 ? kGapBytes : 0), std::size_t{slots} * job.parts) {
  std::mt19937_64 content = NewContent();
  const std::size_t pieces = slots * parts_;
  for (std::size_t k = 0; job.write && k < pieces; ++k) {
    FillWithRandom(blocks_[k], pieceBytes_, &content);
  }
  if (parts_ == 1) return;
  const std::size_t pageBytes = GetPageBytes();
  if (pieceBytes_ % pageBytes != 0) throw std::runtime_error("parts of an item are whole pages");
  pagesPerSlot_ = parts_ * (pieceBytes_ / pageBytes) + 1;
  for (std::size_t k = 0; k < pieces; ++k) {
    for (std::size_t at = 0; at < pieceBytes_; at += pageBytes) {
      pages_.push_back(ToElement(blocks_[k] + at));
    }
    if ((k + 1) % parts_ == 0) pages_.push_back(ToElement(nullptr));
  }
}

void ItemMemory::CopyIn(std::size_t slot, const char* item) const {
  for (std::size_t part = 0; part < parts_; ++part) {
    std::memcpy(blocks_[slot * parts_ + part], item, pieceBytes_);
    item += pieceBytes_;
  }
  // Or the compiler may see that nobody looks at the copy.
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace bench
