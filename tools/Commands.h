// The commands. Each runs to its end, answers what to print, and throws ToolError otherwise.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "Options.h"
#include "Pipeline.h"

namespace OrvaneTool {

nlohmann::ordered_json RunRead(const Options& options);
nlohmann::ordered_json RunWrite(const Options& options);
nlohmann::ordered_json RunCopy(const Options& options);

// The error of a command that was interrupted while it worked on `file`.
ToolError InterruptedError(const std::string& file);

// What was measured about one pass over a file.
struct Pass {
  std::uint64_t bytes = 0;
  std::uint64_t checksum = 0;
  double seconds = 0;
  std::optional<CacheCounts> cache;  // of a pass through one
};

// Runs the job with a progress display; throws ToolError when it failed or was interrupted.
Pass RunPass(const Job& job, const Options& options, const std::string& label);

// Adds "bytes", "seconds", "mb_per_s", "xxh3" and "engine", and the counts of a cache.
void AddPass(nlohmann::ordered_json& report, const Pass& pass);
// Adds "seconds", "mb_per_s", and the counts of a cache: "hits", "misses", "direct_reads",
// "pre_reads".
void AddFigures(nlohmann::ordered_json& report, const Pass& pass);
// Adds "cached", and what the cache was if there was one.
void AddCache(nlohmann::ordered_json& report, const CacheOptions& cache);

}  // namespace OrvaneTool
