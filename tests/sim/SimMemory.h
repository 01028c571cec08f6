// The callers' memory of a simulated run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Orvane {

// Pieces with something between them that nobody may touch. Each lies in pages of its own.
class SimMemory {
 public:
  enum class Afterwards : std::uint8_t { kWatch, kForbid };

  // `size` bytes in `pieces` pieces. `whole`: pieces are whole pages at page addresses (then `size`
  // is whole pages, and at least one per piece); otherwise they start anywhere.
  SimMemory(std::uint64_t size, std::size_t pieces, bool whole);
  ~SimMemory();
  SimMemory(const SimMemory&) = delete;
  SimMemory& operator=(const SimMemory&) = delete;

  const std::vector<std::pair<unsigned char*, std::size_t>>& GetPieces() const { return pieces_; }
  std::vector<unsigned char> Gather(std::uint64_t size) const;
  void Scatter(const std::vector<unsigned char>& data) const;
  // Whether nobody wrote beside the pieces.
  bool IsIntactAround() const;
  // The request is over. From now on nobody may write to the memory or, with kForbid, touch it:
  // that ends the process.
  void LetGo(Afterwards afterwards);
  // After LetGo: whether nobody wrote to it.
  bool IsUntouched() const;

  // Before each run: all memory is free again.
  static void Reset();

 private:
  struct Stretch {
    unsigned char* begin;  // pages, with one of the gap behind
    std::size_t bytes;
  };

  std::vector<std::pair<unsigned char*, std::size_t>> pieces_;
  std::vector<Stretch> stretches_;
  bool letGo_ = false;
  mutable bool forbidden_ = false;
};

}  // namespace Orvane
