// The unit of a transfer: page-aligned memory that is also the callback of its own requests.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "Buffer.h"
#include "BufferList.h"
#include "FileSource.h"
#include "Ref.h"

namespace OrvaneTool {

class Block;

// Hands finished blocks from the I/O thread to the main thread. Safe from any thread: one lock.
class CompletionQueue {
 public:
  void Push(Block* block);
  // The block that finished first, or null when none did in time.
  Block* Pop(std::chrono::milliseconds timeout);

 private:
  std::mutex lock_;
  std::condition_variable filled_;
  std::deque<Block*> blocks_;  // guarded by lock_
};

// | state    | meaning                          | left by             |
// |----------|----------------------------------|---------------------|
// | kFree    | in the pool                      | input starts        |
// | kReading | a read is in flight              | its completion      |
// | kReady   | holds data, waits for its turn   | write starts, or end|
// | kWriting | a write is in flight             | its completion      |
//
// Made, started and destroyed on the main thread; the library calls Callback on its I/O thread and
// meanwhile holds a reference.
class Block : public Orvane::FileSource::ResultCallbackBufferList {
 public:
  enum State { kFree, kReading, kReady, kWriting };

  // Takes over the buffer and keeps it locked, so that data() stays valid.
  Block(Ref<Orvane::Buffer> buffer, std::shared_ptr<CompletionQueue> queue);

  // Start a request of the whole block, or of the pages that hold its first `bytes` bytes; a file
  // with a cache is asked for just these. Answer kResultPending when started; the block comes out
  // of the queue when it has finished.
  Orvane::CacheSource::Result_t Read(Orvane::FileSource& file);
  Orvane::CacheSource::Result_t Write(Orvane::FileSource& file);

  void* data() { return buffer_->GetVirtualAddress(); }

  // Main thread only.
  State state = kFree;
  std::uint64_t offset = 0;  // bytes, in the file
  std::uint64_t bytes = 0;   // that belong to the file; the rest of the block is padding
  bool hashed = false;

  // Of the last request; written before the block is pushed, read after it was popped.
  Orvane::CacheSource::Result_t result = Orvane::CacheSource::kResultNone;
  std::uint64_t moved = 0;

 protected:
  ~Block() override;

 private:
  void Callback(Orvane::CacheSource::Result_t outcome, std::uint64_t start,
                Orvane::BufferList* list, std::uint64_t transferred) override;
  // The first `wanted` bytes.
  Ref<Orvane::BufferList> NewList(std::uint64_t wanted);
  // `bytes` in whole pages.
  std::uint64_t PagedBytes() const;

  const Ref<Orvane::Buffer> buffer_;
  const std::shared_ptr<CompletionQueue> queue_;
};

}  // namespace OrvaneTool
