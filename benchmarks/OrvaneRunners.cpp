#include "OrvaneRunners.h"

#include <atomic>
#include <stdexcept>

#include "LatencyHistogram.h"
#include "LibraryObjects.h"
#include "Orvane.h"
#include "ThreadTeam.h"

namespace bench {
namespace {

using Orvane::BufferList;
using Orvane::CacheSource;
using Orvane::FileSource;

BufferList* NewList(const Job& job, Blocks* blocks) {
  return job.write ? blocks->NewFilledList() : blocks->NewList();
}

// One list per transfer in flight; each callback starts the next transfer with its list.
class AsyncRunner : public Runner {
 public:
  explicit AsyncRunner(const CachedJob& job)
      : job_(job),
        blocks_(job.itemBytes, job.depth, job.parts),
        source_(OpenSource(job)),
        finished_(Orvane::MTInterface::NewSemaphore(1, 0)) {
    for (unsigned k = 0; k < job.depth; ++k)
      lanes_.push_back(new Lane(this, NewList(job, &blocks_)));
  }

  ~AsyncRunner() override {
    source_->Close();
    Drop(source_);
    for (Lane* const lane : lanes_) Drop(lane);
  }

  void Pass(LatencyHistogram* latencies) override {
    latencies_ = latencies;
    next_ = 0;
    left_ = job_.offsets.size();
    for (Lane* const lane : lanes_) lane->StartNext();
    finished_->Wait(0xFFFFFFFF, 1);
    if (failed_) throw std::runtime_error("a transfer failed");
  }

 private:
  class Lane : public FileSource::ResultCallbackBufferList {
   public:
    Lane(AsyncRunner* runner, BufferList* list) : runner_(runner), list_(list) {}

    void StartNext() {
      // Until one is under way, or none is left.
      for (;;) {
        const std::size_t index = runner_->next_.fetch_add(1, std::memory_order_relaxed);
        if (index >= runner_->job_.offsets.size()) return;
        if (runner_->latencies_) start_ = Clock::now();
        if (Start(runner_->job_.offsets[index]) == CacheSource::kResultPending) return;
        runner_->OnDone(/*good=*/false);
      }
    }

    void Callback(CacheSource::Result_t result, std::uint64_t, BufferList*,
                  std::uint64_t) override {
      AsyncRunner* const runner = runner_;
      if (runner->latencies_) runner->latencies_->RecordSince(start_);
      StartNext();
      runner->OnDone(result == CacheSource::kResultOK);
    }

   protected:
    ~Lane() override { Drop(list_); }

   private:
    CacheSource::Result_t Start(std::uint64_t offset) {
      FileSource* const source = runner_->source_;
      return runner_->job_.write
                 ? source->WriteAsyncWithList(offset, list_, this, CacheSource::kDueASAP)
                 : source->ReadAsyncWithList(offset, list_, this, CacheSource::kDueASAP);
    }

    AsyncRunner* const runner_;
    BufferList* const list_;  // one reference
    Clock::time_point start_;
  };

  void OnDone(bool good) {
    if (!good) failed_ = true;
    if (left_.fetch_sub(1) == 1) finished_->Release(1);
  }

  const CachedJob job_;
  Blocks blocks_;
  Orvane::NativeFileSource* const source_;
  const std::unique_ptr<Orvane::MTSemaphore> finished_;
  std::vector<Lane*> lanes_;
  LatencyHistogram* latencies_ = nullptr;
  std::atomic<std::size_t> next_{0};
  std::atomic<std::size_t> left_{0};
  std::atomic<bool> failed_{false};
};

class SyncRunner : public Runner {
 public:
  SyncRunner(const CachedJob& job, unsigned threads)
      : job_(job),
        threads_(threads),
        blocks_(job.itemBytes, threads, job.parts),
        source_(OpenSource(job)),
        team_(threads, [this](unsigned thread) { ReadShare(thread); }) {
    for (unsigned k = 0; k < threads; ++k) lists_.push_back(NewList(job, &blocks_));
  }

  ~SyncRunner() override {
    source_->Close();
    Drop(source_);
    for (BufferList* const list : lists_) Drop(list);
  }

  void Pass(LatencyHistogram* latencies) override {
    latencies_ = latencies;
    offsets_ = job_.GetOffsetsOfPass(pass_++);
    team_.Pass();
    if (failed_) throw std::runtime_error("a transfer failed");
  }

 private:
  void ReadShare(unsigned thread) {
    const std::size_t count = offsets_.size();
    const std::size_t end = count * (thread + 1) / threads_;
    for (std::size_t k = count * thread / threads_; k < end; ++k) {
      const auto start = latencies_ ? Clock::now() : Clock::time_point();
      const auto result = job_.write ? source_->WriteWithList(offsets_[k], lists_[thread], nullptr)
                                     : source_->ReadWithList(offsets_[k], lists_[thread], nullptr);
      if (latencies_) latencies_->RecordSince(start);
      if (result != CacheSource::kResultOK) failed_ = true;
    }
  }

  const CachedJob job_;
  const unsigned threads_;
  Blocks blocks_;
  Orvane::NativeFileSource* const source_;
  std::vector<BufferList*> lists_;  // one per thread
  std::size_t pass_ = 0;
  std::span<const std::uint64_t> offsets_;  // of this pass
  LatencyHistogram* latencies_ = nullptr;
  std::atomic<bool> failed_{false};
  ThreadTeam team_;  // last: it uses the others
};

// Keeps the window ahead of itself full, an item at a time.
class ScanRunner : public Runner {
 public:
  explicit ScanRunner(const ScanJob& job)
      : job_(job),
        blocks_(job.itemBytes, 1, 1),
        source_(OpenSource(job)),
        list_(blocks_.NewList()) {}

  ~ScanRunner() override {
    source_->Close();
    Drop(source_);
    Drop(list_);
  }

  void Prepare() override { source_->GetCache()->Purge(source_); }

  void Pass(LatencyHistogram* latencies) override {
    PreRead(0, job_.windowBytes);
    for (const std::uint64_t offset : job_.offsets) {
      const std::uint64_t ahead = offset + job_.windowBytes;
      if (ahead <= job_.offsets.back()) PreRead(ahead, job_.itemBytes);
      const auto start = latencies ? Clock::now() : Clock::time_point();
      if (source_->ReadWithList(offset, list_, nullptr) != CacheSource::kResultOK) {
        throw std::runtime_error("a read failed");
      }
      if (latencies) latencies->RecordSince(start);
      if (job_.microsPerItem > 0) Compute(job_.microsPerItem);
    }
  }

 private:
  void PreRead(std::uint64_t offset, std::uint64_t bytes) {
    source_->PreRead(offset, bytes, Orvane::MTInterface::GetCurrentTimeMilli(),
                     Orvane::MTThread::kPriorityNormal);
  }

  const ScanJob job_;
  Blocks blocks_;
  Orvane::NativeFileSource* const source_;
  BufferList* const list_;
};

}  // namespace

std::unique_ptr<Runner> NewOrvaneAsync(const CachedJob& job) {
  return std::make_unique<AsyncRunner>(job);
}

std::unique_ptr<Runner> NewOrvaneSync(const CachedJob& job, unsigned threads) {
  return std::make_unique<SyncRunner>(job, threads);
}

std::unique_ptr<Runner> NewOrvaneScan(const ScanJob& job) {
  return std::make_unique<ScanRunner>(job);
}

void Compute(double micros) {
  const auto end = Clock::now() + std::chrono::duration<double, std::micro>(micros);
  while (Clock::now() < end) {
  }
}

}  // namespace bench
