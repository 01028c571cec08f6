// Moves the bytes of one file through a ring of blocks: in from a file or a generator, past the
// checksum in file order, out to a file or nowhere. As many requests are in flight as there are
// blocks.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "Block.h"
#include "Checksum.h"
#include "Errors.h"
#include "File.h"
#include "Generator.h"
#include "Progress.h"
#include "ReadCache.h"

namespace OrvaneTool {

// One of `input` and `generator` is set. Nothing is owned.
struct Job {
  const File* input = nullptr;
  ReadCache* cache = nullptr;  // that the input is read through, if any
  const Generator* generator = nullptr;
  const File* output = nullptr;  // null: the data is only looked at
  std::uint64_t bytes = 0;       // the exact size
};

// Exactly one of the three holds: interrupted, failed, or done with a checksum.
struct Outcome {
  bool interrupted = false;
  std::optional<FailedTransfer> failed;
  std::uint64_t checksum = 0;
};

// Used by one thread.
class Pipeline {
 public:
  // Allocates at most `depth` blocks, no more than `job` needs. Throws ToolError when memory is
  // short. `job` and `progress` outlive the pipeline.
  Pipeline(const Job& job, std::uint64_t blockBytes, unsigned depth, Progress& progress);

  // Runs the job; to be called once. When it returns nothing is in flight. The output, if any, ends
  // on a whole page: cut it to the exact size.
  Outcome Run();

 private:
  using Result_t = Orvane::CacheSource::Result_t;

  void Allocate(std::uint64_t count);
  // Each answers whether it got something going.
  bool StartInputs();
  bool PassOn();
  bool StartInput(Block& block);
  bool StartOutput(Block& block);
  void WaitForOne();
  void Complete(Block& block);
  void Release(Block& block);
  // Counts a request that was answered with `started`; false when it is to be tried again.
  bool Started(Block& block, Result_t started, Block::State next);
  void Fail(const Block& block, bool writing, Result_t result, std::uint64_t moved);
  // Cancels what is in flight and waits for its end.
  void Drain();

  const Job& job_;
  const std::uint64_t blockBytes_;
  Progress& progress_;
  const std::shared_ptr<CompletionQueue> queue_;
  std::vector<Ref<Block>> blocks_;
  std::vector<Block*> free_;
  std::deque<Block*> order_;  // read or being read, in file order
  std::uint64_t nextOffset_ = 0;
  std::uint64_t doneBytes_ = 0;
  unsigned inFlight_ = 0;
  Checksum checksum_;
  Outcome outcome_;
};

}  // namespace OrvaneTool
