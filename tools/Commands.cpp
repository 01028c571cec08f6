#include "Commands.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "OSServicesHost.h"

namespace OrvaneTool {

ToolError InterruptedError(const std::string& file) {
  return {kExitInterrupted, "interrupted while working on", file, "stopped on request"};
}

Pass RunPass(const Job& job, const Options& options, const std::string& label) {
  if (job.cache != nullptr) job.cache->BeginPass(job.bytes);
  Progress progress(label, job.bytes, options.quiet);
  Pipeline pipeline(job, options.blockBytes, options.depth, progress);
  const Outcome outcome = pipeline.Run();
  const File& last = job.output != nullptr ? *job.output : *job.input;
  if (outcome.interrupted) throw InterruptedError(last.name());
  if (outcome.failed) {
    const File& file = outcome.failed->writing ? *job.output : *job.input;
    throw ExplainFailure(file.name(), *outcome.failed);
  }
  Pass pass = {job.bytes, outcome.checksum, progress.Seconds(), std::nullopt};
  if (job.cache != nullptr) pass.cache = job.cache->Counts();
  return pass;
}

void AddPass(nlohmann::ordered_json& report, const Pass& pass) {
  report["bytes"] = pass.bytes;
  AddFigures(report, pass);
  report["xxh3"] = ChecksumText(pass.checksum);
  report["engine"] = Orvane::NativeFileSysInterfaceImpHost::GetEngineName();
}

void AddFigures(nlohmann::ordered_json& report, const Pass& pass) {
  const double rate = static_cast<double>(pass.bytes) / std::max(pass.seconds, 1e-6);
  report["seconds"] = pass.seconds;
  report["mb_per_s"] = rate / 1e6;
  if (!pass.cache) return;
  report["hits"] = pass.cache->hits;
  report["misses"] = pass.cache->misses;
  report["direct_reads"] = pass.cache->directReads;
  report["pre_reads"] = pass.cache->preReads;
}

void AddCache(nlohmann::ordered_json& report, const CacheOptions& cache) {
  report["cached"] = cache.enabled;
  if (!cache.enabled) return;
  report["block_size"] = cache.blockBytes;
  report["blocks"] = cache.blocks;
  report["pre_read"] = cache.preReadBytes;
  if (cache.preReadBytes > 0) report["rate"] = cache.rate;
}

}  // namespace OrvaneTool
