#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

#include "Buffer.h"
#include "Commands.h"
#include "Host.h"
#include "PhysMemInterface.h"

namespace OrvaneTool {
namespace {

using Orvane::CacheSource;

// Cancels the source's requests once the process was interrupted: the main thread is inside a
// synchronous read then. Goes on cancelling, for a read may start just after a cancellation.
class Canceller {
 public:
  explicit Canceller(const File& file)
      : thread_([&file](const std::stop_token& stop) {
          while (!stop.stop_requested()) {
            if (Interrupted()) file.source().Cancel();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
          }
        }) {}

 private:
  std::jthread thread_;
};

// The first bytes of a buffer. A file without a cache is read in whole blocks; one with a cache is
// asked for no more than there is.
Ref<Orvane::Buffer> PartOf(Orvane::Buffer* buffer, std::uint64_t bytes) {
  return Ref<Orvane::Buffer>(
      new Orvane::BufferPartOfBuffer(buffer->GetVirtualAddress(), bytes, buffer));
}

Pass ReadSynchronously(const Job& job, const Options& options) {
  const File& file = *job.input;
  if (job.cache != nullptr) job.cache->BeginPass(job.bytes);
  Progress progress("read", job.bytes, options.quiet);
  const Canceller canceller(file);
  const Ref<Orvane::Buffer> buffer(Orvane::PhysMemInterface::Allocate(options.blockBytes));
  if (!buffer) throw ToolError(kExitTransfer, "not enough memory", "", "no block");
  const Orvane::BufferLockAuto hold(buffer.get());
  Checksum checksum;
  std::uint64_t done = 0;
  while (done < job.bytes) {
    const std::uint64_t wanted = std::min(options.blockBytes, job.bytes - done);
    if (job.cache != nullptr) job.cache->ReadingUpTo(done + wanted);
    const Ref<Orvane::Buffer> part =
        PartOf(buffer.get(), job.cache != nullptr ? wanted : options.blockBytes);
    std::uint64_t moved = 0;
    const CacheSource::Result_t result = file.source().Read(done, part.get(), &moved);
    if (Interrupted()) throw InterruptedError(file.name());
    const bool good = result == CacheSource::kResultOK || result == CacheSource::kResultPartial;
    if (!good || moved < wanted) {
      throw ExplainFailure(file.name(), {/*writing=*/false, result, done, wanted, moved});
    }
    checksum.Add(buffer->GetVirtualAddress(), wanted);
    done += wanted;
    progress.Update(done);
  }
  Pass pass = {job.bytes, checksum.Value(), progress.Seconds(), std::nullopt};
  if (job.cache != nullptr) pass.cache = job.cache->Counts();
  return pass;
}

std::vector<Pass> ReadPasses(const Job& job, const Options& options) {
  std::vector<Pass> passes;
  while (passes.size() < options.passes) {
    passes.push_back(options.sync ? ReadSynchronously(job, options)
                                  : RunPass(job, options, "read"));
    if (passes.back().checksum != passes.front().checksum) {
      throw ToolError(
          kExitTransfer, "different checksums in two passes over", options.file,
          ChecksumText(passes.front().checksum) + ", then " + ChecksumText(passes.back().checksum));
    }
  }
  return passes;
}

}  // namespace

nlohmann::ordered_json RunRead(const Options& options) {
  RequireReadable(options.file);
  const std::uint64_t size = FileSize(options.file);
  const File file(options.file, File::kForRead);
  std::optional<ReadCache> cache;
  if (options.cache.enabled) cache.emplace(file, options.cache);
  Job job;
  job.input = &file;
  job.cache = cache ? &*cache : nullptr;
  job.bytes = size;
  const std::vector<Pass> passes = ReadPasses(job, options);
  nlohmann::ordered_json report = {{"command", "read"}, {"file", options.file}};
  AddPass(report, passes.back());
  report["block"] = options.blockBytes;
  report["depth"] = options.sync ? 1 : options.depth;
  report["sync"] = options.sync;
  AddCache(report, options.cache);
  if (passes.size() > 1) {
    for (const Pass& pass : passes) AddFigures(report["passes"].emplace_back(), pass);
  }
  return report;
}

}  // namespace OrvaneTool
