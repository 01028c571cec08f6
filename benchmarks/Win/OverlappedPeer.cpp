// The limit: one thread, overlapped calls, one completion port from which it takes all that has
// ended at once. The library waits for events instead; the port is what this host does best.
#include <array>
#include <stdexcept>
#include <vector>

#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

// Of one file, closed with the object.
class CompletionPort {
 public:
  CompletionPort(const std::string& peer, HANDLE file)
      : peer_(peer), port_(CreateIoCompletionPort(file, nullptr, /*key=*/0, /*threads=*/1)) {
    if (!port_) Fail();
    // What has ended when the call returns need not come through the port.
    constexpr UCHAR kModes = FILE_SKIP_COMPLETION_PORT_ON_SUCCESS | FILE_SKIP_SET_EVENT_ON_HANDLE;
    skipsSuccess_ = SetFileCompletionNotificationModes(file, kModes) != 0;
  }
  ~CompletionPort() { CloseHandle(port_); }
  CompletionPort(const CompletionPort&) = delete;
  CompletionPort& operator=(const CompletionPort&) = delete;

  // True if the port says nothing of calls that succeed at once.
  bool SkipsSuccess() const { return skipsSuccess_; }

  // Waits for one at least and calls `take` with the structure of each that has ended.
  template <typename Take>
  void Wait(const Take& take) {
    ULONG count = 0;
    if (!GetQueuedCompletionStatusEx(port_, entries_.data(), static_cast<ULONG>(entries_.size()),
                                     &count, INFINITE, /*fAlertable=*/FALSE)) {
      Fail();
    }
    for (ULONG k = 0; k < count; ++k) take(entries_[k].lpOverlapped);
  }

 private:
  [[noreturn]] void Fail() const { ThrowHostError(peer_, GetLastError()); }

  const std::string peer_;
  const HANDLE port_;
  bool skipsSuccess_ = false;
  std::array<OVERLAPPED_ENTRY, 64> entries_{};
};

class OverlappedPeer : public Runner {
 public:
  OverlappedPeer(const std::string& name, const Job& job, PageCache pageCache)
      : job_(job),
        file_(name, job, pageCache, Calls::kOverlapped),
        memory_(job, job.depth),
        items_(name, job),
        port_(name, file_.Get()),
        transfers_(job.depth) {
    if (job.parts > 1 && pageCache == PageCache::kUsed) {
      throw std::runtime_error(name + ": the host has lists past the page cache only");
    }
  }

  void Pass(LatencyHistogram* latencies) override {
    items_.BeginPass(latencies);
    inFlight_ = 0;
    for (std::size_t slot = 0; slot < job_.depth; ++slot) StartNext(slot);
    while (inFlight_ > 0) {
      port_.Wait([this](const OVERLAPPED* transfer) {
        const auto slot = static_cast<std::size_t>(transfer - transfers_.data());
        --inFlight_;
        items_.Finish(slot, GetMoved(slot));
        StartNext(slot);
      });
    }
    items_.EndPass();
  }

 private:
  // Starts items until one is in flight, or none is left.
  void StartNext(std::size_t slot) {
    std::uint64_t offset = 0;
    while (items_.Take(slot, &offset)) {
      const DWORD error = Start(slot, offset) ? ERROR_SUCCESS : GetLastError();
      if (error == ERROR_IO_PENDING || (error == ERROR_SUCCESS && !port_.SkipsSuccess())) {
        ++inFlight_;
        return;
      }
      items_.Finish(slot, error == ERROR_SUCCESS ? GetMoved(slot) : -std::int64_t{error});
    }
  }

  bool Start(std::size_t slot, std::uint64_t offset) {
    OVERLAPPED* const transfer = &transfers_[slot];
    *transfer = At(offset);
    const HANDLE file = file_.Get();
    const auto bytes = static_cast<DWORD>(job_.itemBytes);
    if (job_.parts > 1) {
      FILE_SEGMENT_ELEMENT* const pages = memory_.GetPages(slot);
      return job_.write ? WriteFileGather(file, pages, bytes, nullptr, transfer) != 0
                        : ReadFileScatter(file, pages, bytes, nullptr, transfer) != 0;
    }
    return job_.write ? WriteFile(file, memory_.GetPiece(slot), bytes, nullptr, transfer) != 0
                      : ReadFile(file, memory_.GetPiece(slot), bytes, nullptr, transfer) != 0;
  }

  // Of a transfer that has ended.
  std::int64_t GetMoved(std::size_t slot) {
    DWORD moved = 0;
    if (GetOverlappedResult(file_.Get(), &transfers_[slot], &moved, /*bWait=*/FALSE)) return moved;
    return -std::int64_t{GetLastError()};
  }

  const Job job_;
  const PeerFile file_;
  ItemMemory memory_;
  ItemQueue items_;
  CompletionPort port_;
  std::vector<OVERLAPPED> transfers_;  // by slot
  unsigned inFlight_ = 0;
};

}  // namespace

std::unique_ptr<Runner> NewOverlappedPeer(const Job& job) {
  return std::make_unique<OverlappedPeer>("overlapped", job, PageCache::kBypassed);
}

std::unique_ptr<Runner> NewBufferedOverlappedPeer(const Job& job) {
  return std::make_unique<OverlappedPeer>("overlapped, page cache", job, PageCache::kUsed);
}

}  // namespace bench
