#include "Commands.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "OSServicesHost.h"

namespace OrvaneTool {

ToolError InterruptedError(const std::string& file) {
  return {kExitInterrupted, "interrupted while working on", file, "stopped on request"};
}

Pass RunPass(const Job& job, const Options& options, const std::string& label) {
  Progress progress(label, job.bytes, options.quiet);
  Pipeline pipeline(job, options.blockBytes, options.depth, progress);
  const Outcome outcome = pipeline.Run();
  const File& last = job.output != nullptr ? *job.output : *job.input;
  if (outcome.interrupted) throw InterruptedError(last.name());
  if (outcome.failed) {
    const File& file = outcome.failed->writing ? *job.output : *job.input;
    throw ExplainFailure(file.name(), *outcome.failed);
  }
  return {job.bytes, outcome.checksum, progress.Seconds()};
}

void AddPass(nlohmann::ordered_json& report, const Pass& pass) {
  const double rate = static_cast<double>(pass.bytes) / std::max(pass.seconds, 1e-6);
  report["bytes"] = pass.bytes;
  report["seconds"] = pass.seconds;
  report["mb_per_s"] = rate / 1e6;
  report["xxh3"] = ChecksumText(pass.checksum);
  report["engine"] = Orvane::NativeFileSysInterfaceImpHost::GetEngineName();
}

}  // namespace OrvaneTool
