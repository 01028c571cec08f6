#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Target.h"

namespace OrvaneTool {
namespace {

// The size is set beforehand, so that the writes need not lengthen the file one by one, and again
// at the end, for the last page is written whole.
Pass WriteContent(const Options& options) {
  ResizeFile(options.file, options.sizeBytes);
  Pass pass;
  {
    const File file(options.file, File::kForWrite);
    const Generator generator(options.seed);
    Job job;
    job.generator = &generator;
    job.output = &file;
    job.bytes = options.sizeBytes;
    pass = RunPass(job, options, "write");
  }
  ResizeFile(options.file, options.sizeBytes);
  return pass;
}

}  // namespace

nlohmann::ordered_json RunWrite(const Options& options) {
  Target target(options.file);
  nlohmann::ordered_json report = {{"command", "write"}, {"file", options.file}};
  try {
    AddPass(report, WriteContent(options));
  } catch (const ToolError& error) {
    throw error.WithNote(target.LeftBehind("incomplete"));
  }
  target.Keep();
  report["seed"] = options.seed;
  report["block"] = options.blockBytes;
  report["depth"] = options.depth;
  return report;
}

}  // namespace OrvaneTool
