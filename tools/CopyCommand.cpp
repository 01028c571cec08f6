#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include "Commands.h"
#include "Host.h"
#include "Target.h"

namespace OrvaneTool {
namespace {

namespace fs = std::filesystem;

void RefuseSameFile(const Options& options) {
  std::error_code fault;
  if (fs::equivalent(ToPath(options.file), ToPath(options.destination), fault) && !fault) {
    throw ToolError(kExitUsage, "cannot copy", options.file,
                    "source and destination are the same file");
  }
}

// A new copy is at most as accessible as its source. Best effort: some file systems have no
// permissions to set.
void NarrowPermissions(const Options& options) {
  std::error_code fault;
  const fs::perms from = fs::status(ToPath(options.file), fault).permissions();
  if (fault) return;
  const fs::perms allowed = from | fs::perms::owner_read | fs::perms::owner_write;
  const fs::perms now = fs::status(ToPath(options.destination), fault).permissions();
  if (!fault) fs::permissions(ToPath(options.destination), now & allowed, fault);
}

// See WriteContent about the two resizings.
Pass CopyContent(const Options& options, std::uint64_t size) {
  ResizeFile(options.destination, size);
  Pass pass;
  {
    const File source(options.file, File::kForRead);
    const File destination(options.destination, File::kForWrite);
    std::optional<ReadCache> cache;
    if (options.cache.enabled) cache.emplace(source, options.cache);
    Job job;
    job.input = &source;
    job.cache = cache ? &*cache : nullptr;
    job.output = &destination;
    job.bytes = size;
    pass = RunPass(job, options, "copy");
  }
  ResizeFile(options.destination, size);
  return pass;
}

void Verify(const Options& options, const Pass& copied) {
  const File file(options.destination, File::kForRead);
  Job job;
  job.input = &file;
  job.bytes = copied.bytes;
  const Pass read = RunPass(job, options, "verify");
  if (read.checksum != copied.checksum) {
    throw ToolError(kExitTransfer, "verification failed for", options.destination,
                    "its checksum is " + ChecksumText(read.checksum) + ", the source's is " +
                        ChecksumText(copied.checksum));
  }
}

}  // namespace

nlohmann::ordered_json RunCopy(const Options& options) {
  RequireReadable(options.file);
  RefuseSameFile(options);
  const std::uint64_t size = FileSize(options.file);
  Target target(options.destination);
  nlohmann::ordered_json report = {
      {"command", "copy"}, {"file", options.file}, {"destination", options.destination}};
  const char* state = "incomplete";
  try {
    if (target.created()) NarrowPermissions(options);
    const Pass pass = CopyContent(options, size);
    AddPass(report, pass);
    state = "not verified";
    if (options.verify) Verify(options, pass);
  } catch (const ToolError& error) {
    throw error.WithNote(target.LeftBehind(state));
  }
  target.Keep();
  report["verified"] = options.verify;
  report["block"] = options.blockBytes;
  report["depth"] = options.depth;
  AddCache(report, options.cache);
  return report;
}

}  // namespace OrvaneTool
