// A cache between a command and the file that it reads.
#pragma once

#include <cstdint>

#include "Cache.h"
#include "File.h"
#include "Options.h"
#include "Ref.h"

namespace OrvaneTool {

// Blocks, see Orvane::Cache.
struct CacheCounts {
  std::uint32_t hits = 0;
  std::uint32_t misses = 0;
  std::uint32_t directReads = 0;
  std::uint32_t preReads = 0;
};

// Owns a cache, counts what it does, and keeps a window of pre-reads ahead of the one reader.
// Used by one thread.
class ReadCache {
 public:
  // From now on the file is read through the cache. Throws ToolError when memory or threads are
  // short. REQUIRES: prepared options; nothing was read from the file yet. `file` lives longer.
  ReadCache(const File& file, const CacheOptions& options);

  // The reader starts again at the beginning; so do counts and pre-reads. `bytes`: all there is to
  // read.
  void BeginPass(std::uint64_t bytes);
  // The reader is about to ask for the bytes before `position`: has the window behind them fetched.
  void ReadingUpTo(std::uint64_t position);
  // Of this pass.
  CacheCounts Counts() const;

 private:
  // When the reader will want the byte at `offset`, at the target rate.
  std::uint32_t DueTime(std::uint64_t position, std::uint64_t offset) const;

  const File& file_;
  const CacheOptions options_;
  const std::uint64_t pieceBytes_;  // asked for at a time
  Ref<Orvane::Cache> cache_;
  std::uint64_t bytes_ = 0;
  std::uint64_t nextPreRead_ = 0;
};

}  // namespace OrvaneTool
