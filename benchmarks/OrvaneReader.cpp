#include <atomic>
#include <stdexcept>

#include "LibraryObjects.h"
#include "Orvane.h"
#include "Reader.h"

namespace bench {
namespace {

using Orvane::BufferList;
using Orvane::CacheSource;
using Orvane::FileSource;
using Orvane::NativeFileSource;

// One list of one buffer per read in flight; each callback starts the next read with its list.
class OrvaneReader : public Reader {
 public:
  explicit OrvaneReader(const Job& job)
      : blocks_(job.blockBytes, job.depth),
        source_(OpenSource(job)),
        finished_(Orvane::MTInterface::NewSemaphore(1, 0)) {
    for (unsigned k = 0; k < job.depth; ++k) lanes_.push_back(new Lane(this));
  }

  ~OrvaneReader() override {
    source_->Close();
    Drop(source_);
    for (Lane* const lane : lanes_) Drop(lane);
  }

  void ReadAll(const std::vector<std::uint64_t>& offsets) override {
    offsets_ = &offsets;
    next_ = 0;
    left_ = offsets.size();
    for (Lane* const lane : lanes_) lane->StartNext();
    finished_->Wait(0xFFFFFFFF, 1);
    if (failed_) throw std::runtime_error("read failed");
  }

 private:
  class Lane : public FileSource::ResultCallbackBufferList {
   public:
    explicit Lane(OrvaneReader* reader) : reader_(reader), list_(reader->blocks_.NewListOfOne()) {}

    void StartNext() {
      const std::size_t index = reader_->next_.fetch_add(1, std::memory_order_relaxed);
      if (index >= reader_->offsets_->size()) return;
      const auto result = reader_->source_->ReadAsyncWithList((*reader_->offsets_)[index], list_,
                                                              this, CacheSource::kDueASAP);
      if (result != CacheSource::kResultPending) reader_->OnDone(/*good=*/false);
    }

    void Callback(CacheSource::Result_t result, std::uint64_t, BufferList*,
                  std::uint64_t) override {
      OrvaneReader* const reader = reader_;
      StartNext();
      reader->OnDone(result == CacheSource::kResultOK);
    }

   protected:
    ~Lane() override { Drop(list_); }

   private:
    OrvaneReader* const reader_;
    BufferList* const list_;
  };

  void OnDone(bool good) {
    if (!good) failed_ = true;
    if (left_.fetch_sub(1) == 1) finished_->Release(1);
  }

  Blocks blocks_;
  NativeFileSource* const source_;
  const std::unique_ptr<Orvane::MTSemaphore> finished_;
  std::vector<Lane*> lanes_;
  const std::vector<std::uint64_t>* offsets_ = nullptr;
  std::atomic<std::size_t> next_{0};
  std::atomic<std::size_t> left_{0};
  std::atomic<bool> failed_{false};
};

class OrvaneSyncReader : public Reader {
 public:
  explicit OrvaneSyncReader(const Job& job)
      : blocks_(job.blockBytes, 1), source_(OpenSource(job)), list_(blocks_.NewListOfOne()) {}

  ~OrvaneSyncReader() override {
    source_->Close();
    Drop(source_);
    Drop(list_);
  }

  void ReadAll(const std::vector<std::uint64_t>& offsets) override {
    for (const std::uint64_t offset : offsets) {
      if (source_->ReadWithList(offset, list_, nullptr) != CacheSource::kResultOK) {
        throw std::runtime_error("read failed");
      }
    }
  }

 private:
  Blocks blocks_;
  NativeFileSource* const source_;
  BufferList* const list_;
};

// Keeps the window ahead of itself full, a block of the job at a time.
class ScanReader : public Reader {
 public:
  explicit ScanReader(const Job& job)
      : job_(job), blocks_(job.blockBytes, 1), source_(OpenSource(job)) {
    list_ = blocks_.NewListOfOne();
  }

  ~ScanReader() override {
    source_->Close();
    Drop(source_);
    Drop(list_);
  }

  void ReadAll(const std::vector<std::uint64_t>& offsets) override {
    source_->GetCache()->Purge(source_);
    PreRead(0, job_.preReadWindow);
    for (const std::uint64_t offset : offsets) {
      const std::uint64_t ahead = offset + job_.preReadWindow;
      if (ahead <= offsets.back()) PreRead(ahead, job_.blockBytes);
      if (source_->ReadWithList(offset, list_, nullptr) != CacheSource::kResultOK) {
        throw std::runtime_error("read failed");
      }
    }
  }

 private:
  void PreRead(std::uint64_t offset, std::uint64_t bytes) {
    source_->PreRead(offset, bytes, Orvane::MTInterface::GetCurrentTimeMilli(),
                     Orvane::MTThread::kPriorityNormal);
  }

  const Job job_;
  Blocks blocks_;
  NativeFileSource* const source_;
  BufferList* list_;
};

}  // namespace

std::unique_ptr<Reader> NewScanReader(const Job& job) {
  return std::make_unique<ScanReader>(job);
}

std::unique_ptr<Reader> NewOrvaneReader(const Job& job) {
  return std::make_unique<OrvaneReader>(job);
}

std::unique_ptr<Reader> NewOrvaneSyncReader(const Job& job) {
  return std::make_unique<OrvaneSyncReader>(job);
}

}  // namespace bench
