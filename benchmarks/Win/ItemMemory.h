#pragma once

#include <vector>

#include "../BenchHost.h"
#include "../Job.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace bench {

// The caller's memory for the items of a job that are in flight, one slot each. A slot is as many
// equal pieces as the job has parts, which do not adjoin. If the job writes, the slots hold
// random content, the same for everybody.
class ItemMemory {
 public:
  // Throws std::runtime_error if there is more than one piece and they are not whole pages.
  ItemMemory(const Job& job, unsigned slots);

  char* GetPiece(std::size_t slot) const { return blocks_[slot * parts_]; }
  int GetPieceCount() const { return static_cast<int>(parts_); }
  // The pages of all pieces of a slot, as the host's calls for lists take them: with an empty one
  // at the end.
  FILE_SEGMENT_ELEMENT* GetPages(std::size_t slot) { return pages_.data() + slot * pagesPerSlot_; }
  // Copies an item into a slot, part by part.
  void CopyIn(std::size_t slot, const char* item) const;

 private:
  const std::size_t parts_;
  const std::size_t pieceBytes_;
  const AlignedBlocks blocks_;
  std::size_t pagesPerSlot_ = 0;
  std::vector<FILE_SEGMENT_ELEMENT> pages_;  // none if a slot is a single piece
};

}  // namespace bench
