#pragma once

#include <sys/uio.h>

#include <vector>

#include "../BenchHost.h"
#include "../Job.h"

namespace bench {

// The caller's memory for the items of a job that are in flight, one slot each. A slot is as many
// equal pieces as the job has parts, which do not adjoin. If the job writes, the slots hold
// random content, the same for everybody.
class ItemMemory {
 public:
  ItemMemory(const Job& job, unsigned slots);

  const iovec* GetPieces(std::size_t slot) const { return pieces_.data() + slot * parts_; }
  int GetPieceCount() const { return static_cast<int>(parts_); }
  // Copies an item into a slot, part by part.
  void CopyIn(std::size_t slot, const char* item) const;

 private:
  const std::size_t parts_;
  const AlignedBlocks blocks_;
  std::vector<iovec> pieces_;
};

}  // namespace bench
