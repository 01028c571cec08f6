#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stop_token>
#include <thread>

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

Pass ReadSynchronously(const File& file, std::uint64_t size, const Options& options) {
  Progress progress("read", size, options.quiet);
  const Canceller canceller(file);
  const Ref<Orvane::Buffer> buffer(Orvane::PhysMemInterface::Allocate(options.blockBytes));
  if (!buffer) throw ToolError(kExitTransfer, "not enough memory", "", "no block");
  const Orvane::BufferLockAuto hold(buffer.get());
  Checksum checksum;
  std::uint64_t done = 0;
  while (done < size) {
    const std::uint64_t wanted = std::min(options.blockBytes, size - done);
    std::uint64_t moved = 0;
    const CacheSource::Result_t result = file.source().Read(done, buffer.get(), &moved);
    if (Interrupted()) throw InterruptedError(file.name());
    const bool good = result == CacheSource::kResultOK || result == CacheSource::kResultPartial;
    if (!good || moved < wanted) {
      throw ExplainFailure(file.name(), {/*writing=*/false, result, done, wanted, moved});
    }
    checksum.Add(buffer->GetVirtualAddress(), wanted);
    done += wanted;
    progress.Update(done);
  }
  return {size, checksum.Value(), progress.Seconds()};
}

}  // namespace

nlohmann::ordered_json RunRead(const Options& options) {
  RequireReadable(options.file);
  const std::uint64_t size = FileSize(options.file);
  const File file(options.file, File::kForRead);
  Job job;
  job.input = &file;
  job.bytes = size;
  const Pass pass =
      options.sync ? ReadSynchronously(file, size, options) : RunPass(job, options, "read");
  nlohmann::ordered_json report = {{"command", "read"}, {"file", options.file}};
  AddPass(report, pass);
  report["block"] = options.blockBytes;
  report["depth"] = options.sync ? 1 : options.depth;
  report["sync"] = options.sync;
  return report;
}

}  // namespace OrvaneTool
