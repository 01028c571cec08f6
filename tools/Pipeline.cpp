#include "Pipeline.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "Host.h"
#include "PhysMemInterface.h"
#include "Text.h"

namespace OrvaneTool {
namespace {

using Orvane::CacheSource;

// How often the main thread looks at interruptions and the progress while it waits.
constexpr std::chrono::milliseconds kTick{50};
// Pause before a start that found every slot taken, with nothing of this pipeline in flight.
constexpr std::chrono::milliseconds kRetry{1};

}  // namespace

Pipeline::Pipeline(const Job& job, std::uint64_t blockBytes, unsigned depth, Progress& progress)
    : job_(job),
      blockBytes_(blockBytes),
      progress_(progress),
      queue_(std::make_shared<CompletionQueue>()) {
  const std::uint64_t pieces = (job.bytes + blockBytes - 1) / blockBytes;
  Allocate(std::min<std::uint64_t>(depth, pieces));
}

void Pipeline::Allocate(std::uint64_t count) {
  if (count == 0) return;
  // One piece, cut into blocks: large pages serve it, and the device gets longer stretches.
  const Ref<Orvane::Buffer> chunk(Orvane::PhysMemInterface::Allocate(count * blockBytes_));
  if (!chunk) {
    throw ToolError(kExitTransfer, "not enough memory", "",
                    fmt::format("{} blocks of {}", count, SizeText(blockBytes_)));
  }
  auto* address = static_cast<unsigned char*>(chunk->GetVirtualAddress());
  for (std::uint64_t made = 0; made < count; ++made, address += blockBytes_) {
    Ref<Orvane::Buffer> buffer(new Orvane::BufferPartOfBuffer(address, blockBytes_, chunk.get()));
    blocks_.emplace_back(new Block(std::move(buffer), queue_));
    free_.push_back(blocks_.back().get());
  }
}

Outcome Pipeline::Run() {
  while (doneBytes_ < job_.bytes && !outcome_.failed && !outcome_.interrupted) {
    const bool started = StartInputs();
    const bool passed = PassOn();
    if (!started && !passed && !outcome_.failed) WaitForOne();
    progress_.Update(doneBytes_);
    outcome_.interrupted = Interrupted() && !outcome_.failed;
  }
  Drain();
  outcome_.checksum = checksum_.Value();
  return outcome_;
}

bool Pipeline::StartInputs() {
  bool any = false;
  while (!free_.empty() && nextOffset_ < job_.bytes && !outcome_.failed) {
    Block& block = *free_.back();
    block.offset = nextOffset_;
    block.bytes = std::min(blockBytes_, job_.bytes - nextOffset_);
    block.hashed = false;
    if (!StartInput(block)) break;
    free_.pop_back();
    order_.push_back(&block);
    nextOffset_ += block.bytes;
    any = true;
    // A generated block goes on before the next one is made, so that its write runs meanwhile.
    if (job_.generator != nullptr) break;
  }
  return any;
}

bool Pipeline::StartInput(Block& block) {
  if (job_.generator != nullptr) {
    job_.generator->Fill(block.offset, block.data(), block.bytes);
    block.state = Block::kReady;
    return true;
  }
  if (job_.cache != nullptr) job_.cache->ReadingUpTo(block.offset + block.bytes);
  return Started(block, block.Read(job_.input->source()), Block::kReading);
}

bool Pipeline::PassOn() {
  bool any = false;
  while (!order_.empty() && order_.front()->state == Block::kReady && !outcome_.failed) {
    Block& block = *order_.front();
    if (!block.hashed) checksum_.Add(block.data(), block.bytes);
    block.hashed = true;
    if (job_.output == nullptr) {
      Release(block);
    } else if (!StartOutput(block)) {
      break;
    }
    order_.pop_front();
    any = true;
  }
  return any;
}

bool Pipeline::StartOutput(Block& block) {
  return Started(block, block.Write(job_.output->source()), Block::kWriting);
}

bool Pipeline::Started(Block& block, Result_t started, Block::State next) {
  if (started == CacheSource::kResultPending) {
    block.state = next;
    ++inFlight_;
    return true;
  }
  if (started != CacheSource::kResultBusy) {
    Fail(block, next == Block::kWriting, started, /*moved=*/0);
  }
  return false;
}

void Pipeline::WaitForOne() {
  Block* const block = queue_->Pop(inFlight_ > 0 ? kTick : kRetry);
  if (block != nullptr) Complete(*block);
}

void Pipeline::Complete(Block& block) {
  --inFlight_;
  const bool writing = block.state == Block::kWriting;
  const bool good =
      block.result == CacheSource::kResultOK ||
      (!writing && block.result == CacheSource::kResultPartial && block.moved >= block.bytes);
  if (!good) {
    // What was cancelled after a first failure or an interruption is no failure of its own.
    if (!outcome_.failed && !outcome_.interrupted) Fail(block, writing, block.result, block.moved);
    block.state = Block::kFree;
  } else if (writing) {
    Release(block);
  } else {
    block.state = Block::kReady;
  }
}

void Pipeline::Release(Block& block) {
  doneBytes_ += block.bytes;
  block.state = Block::kFree;
  free_.push_back(&block);
}

void Pipeline::Fail(const Block& block, bool writing, Result_t result, std::uint64_t moved) {
  outcome_.failed = FailedTransfer{writing, result, block.offset, block.bytes, moved};
}

void Pipeline::Drain() {
  if (inFlight_ == 0) return;
  if (job_.input != nullptr) job_.input->source().Cancel();
  if (job_.output != nullptr) job_.output->source().Cancel();
  while (inFlight_ > 0) WaitForOne();
}

}  // namespace OrvaneTool
