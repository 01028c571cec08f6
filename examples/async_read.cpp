// Reads a whole file with eight requests in flight: every completion starts the next read.
#include <atomic>
#include <cstdint>
#include <iostream>
#include <memory>

#include "Orvane.h"

namespace {

using Orvane::BufferList;
using Orvane::FileSource;

constexpr std::uint64_t kBlockBytes = 256 * 1024;
constexpr int kInFlight = 8;

// One object is the callback of all requests. It runs on the I/O thread of the library, where
// further asynchronous reads may be started but nothing may block.
class Reader : public FileSource::ResultCallbackBufferList {
 public:
  explicit Reader(FileSource* file)
      : file_(file), done_(Orvane::MTInterface::NewSemaphore(/*maxCount=*/1, /*initialCount=*/0)) {}

  void StartNext(BufferList* list) {
    ++active_;
    const std::uint64_t offset = next_.fetch_add(kBlockBytes);
    if (file_->ReadAsyncWithList(offset, list, this, FileSource::kDueASAP) !=
        FileSource::kResultPending) {
      failed_ = true;
      Finish();
    }
  }
  // Gives up the starter's own share, then waits for the requests.
  void Wait() {
    Finish();
    done_->Wait(0xFFFFFFFF, 1);
  }
  std::uint64_t total() const { return total_; }
  bool failed() const { return failed_; }

 private:
  void Callback(FileSource::Result_t result, std::uint64_t, BufferList* list,
                std::uint64_t bytes) override {
    total_ += bytes;
    if (result == FileSource::kResultOK) {
      StartNext(list);
    } else if (result != FileSource::kResultPartial && result != FileSource::kResultOutOfRange) {
      failed_ = true;
    }
    Finish();
  }
  void Finish() {
    if (--active_ == 0) done_->Release(1);
  }

  FileSource* const file_;
  const std::unique_ptr<Orvane::MTSemaphore> done_;
  std::atomic<std::uint64_t> next_{0};
  std::atomic<std::uint64_t> total_{0};
  std::atomic<int> active_{1};  // requests, and one for the starter
  std::atomic<bool> failed_{false};
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  Orvane::OSServices::Init();
  auto* file = Orvane::NativeFileSysInterface::NewNativeFileSource(argv[1]);
  file->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false);

  auto* reader = new Reader(file);
  for (int request = 0; request < kInFlight; ++request) {
    auto* list = new BufferList(Orvane::PhysMemInterface::Allocate(kBlockBytes),
                                /*adoptReference=*/true, /*capacity=*/1);
    reader->StartNext(list);
    list->DecRef(__FILE__, __func__, __LINE__);  // the request keeps it
  }
  reader->Wait();
  std::cout << reader->total() << " bytes" << (reader->failed() ? ", failed" : "") << '\n';

  const int exitCode = reader->failed() ? 1 : 0;
  reader->DecRef(__FILE__, __func__, __LINE__);
  file->DecRef(__FILE__, __func__, __LINE__);
  return exitCode;
}
