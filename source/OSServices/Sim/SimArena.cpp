#include "OSServices/Sim/SimArena.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "OSServices/Sim/SimSanitizers.h"

namespace Orvane {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{1} << 18;

struct Chunks {
  std::vector<std::unique_ptr<unsigned char[]>> all;
  std::size_t current = 0;
  std::size_t used = 0;  // of the current one
};

// Never destroyed: primitives may be used while the process ends.
Chunks& GetChunks() {
  static auto* const chunks = new Chunks;
  return *chunks;
}

}  // namespace

void* SimArena::Allocate(std::size_t size) {
  Chunks& chunks = GetChunks();
  size = (size + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) *
         alignof(std::max_align_t);
  if (chunks.current < chunks.all.size() && chunks.used + size > kChunkBytes) {
    ++chunks.current;
    chunks.used = 0;
  }
  if (chunks.current == chunks.all.size()) {
    chunks.all.push_back(std::make_unique<unsigned char[]>(kChunkBytes));
  }
  void* const memory = chunks.all[chunks.current].get() + chunks.used;
  chunks.used += size;
  return memory;
}

bool SimArena::Owns(const void* memory) {
  const auto* const place = static_cast<const unsigned char*>(memory);
  const auto& all = GetChunks().all;
  return std::any_of(all.begin(), all.end(), [place](const auto& chunk) {
    return place >= chunk.get() && place < chunk.get() + kChunkBytes;
  });
}

void SimArena::Reset() {
  GetChunks().current = 0;
  GetChunks().used = 0;
}

}  // namespace Orvane
