#include "ReadCache.h"

#include <fmt/format.h>

#include <algorithm>

#include "BufferFactory.h"
#include "Errors.h"
#include "MTInterface.h"
#include "Text.h"

namespace OrvaneTool {
namespace {

// Pieces this long are read at the full rate of a device.
constexpr std::uint64_t kLongestPiece = std::uint64_t{1} << 20;

// A quarter of the window, so that a piece is on its way while others are used up; whole blocks.
std::uint64_t PieceBytes(const CacheOptions& options) {
  const std::uint64_t wanted = std::min(options.preReadBytes / 4, kLongestPiece);
  return std::max(wanted / options.blockBytes, std::uint64_t{1}) * options.blockBytes;
}

Ref<Orvane::Cache> NewCache(const CacheOptions& options) {
  try {
    const Ref<Orvane::BufferFactory> factory(new Orvane::BufferFactoryPhysMem);
    if (factory->Initialize(options.blockBytes, options.blocks, options.blocks, /*reserved=*/0)) {
      return Ref(new Orvane::Cache(factory.get()));
    }
  } catch (...) {
    // Told below: whatever it was, it was refused by the system.
  }
  throw ToolError(
      kExitTransfer, "not enough memory or threads", "",
      fmt::format("a cache of {} blocks of {}", options.blocks, SizeText(options.blockBytes)));
}

}  // namespace

ReadCache::ReadCache(const File& file, const CacheOptions& options)
    : file_(file), options_(options), pieceBytes_(PieceBytes(options)), cache_(NewCache(options)) {
  cache_->CollectCacheStats(true);
  file_.source().UseCache(cache_.get());
}

void ReadCache::BeginPass(std::uint64_t bytes) {
  bytes_ = bytes;
  nextPreRead_ = 0;
  cache_->ResetCacheStats();
}

void ReadCache::ReadingUpTo(std::uint64_t position) {
  if (options_.preReadBytes == 0) return;
  // Blocks that the reader asks for itself are not worth a pre-read.
  const std::uint64_t behind =
      (position + options_.blockBytes - 1) / options_.blockBytes * options_.blockBytes;
  nextPreRead_ = std::max(nextPreRead_, behind);
  // At least a piece, or there would be none at all.
  const std::uint64_t windowEnd =
      std::min(behind + std::max(options_.preReadBytes, pieceBytes_), bytes_);
  while (nextPreRead_ < windowEnd) {
    const std::uint64_t missing = windowEnd - nextPreRead_;
    if (missing < pieceBytes_ && windowEnd < bytes_) return;
    const std::uint64_t size = std::min(missing, pieceBytes_);
    file_.source().PreRead(nextPreRead_, size, DueTime(position, nextPreRead_),
                           Orvane::MTThread::kPriorityNormal);
    nextPreRead_ += size;
  }
}

std::uint32_t ReadCache::DueTime(std::uint64_t position, std::uint64_t offset) const {
  const std::uint64_t bytesPerMilli = std::uint64_t{options_.rate} * 1000;
  const auto ahead = static_cast<std::uint32_t>((offset - position) / bytesPerMilli);
  const std::uint32_t due = Orvane::MTInterface::GetCurrentTimeMilli() + ahead;
  return due == Orvane::Cache::kDueASAP ? due + 1 : due;
}

CacheCounts ReadCache::Counts() const {
  return {cache_->GetCacheHits(), cache_->GetCacheMisses(), cache_->GetCacheDirectReads(),
          cache_->GetCachePreReads()};
}

}  // namespace OrvaneTool
