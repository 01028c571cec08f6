// Files of libuv: a loop on one thread, and a pool of threads that wait for the transfers.
#include <uv.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

const std::string kName = "libuv";

// The best of 4, 8, 16 and 64 for random reads of 4 KiB, 61 in flight, on ext4 with 2 processors:
// 42, 54, 82 and 60 thousand reads per second. In memory, where no thread waits, fewer are better.
constexpr const char* kPoolThreads = "16";

// The pool is made at the first use, once for the process.
void ChoosePoolSize() {
  static const int chosen = setenv("UV_THREADPOOL_SIZE", kPoolThreads, /*overwrite=*/0);
  if (chosen != 0) throw std::runtime_error(kName + ": the pool keeps its default size");
}

// A slot's memory as libuv describes it.
std::vector<uv_buf_t> ToBuffers(const ItemMemory& memory, std::size_t slots) {
  std::vector<uv_buf_t> buffers;
  const auto parts = static_cast<std::size_t>(memory.GetPieceCount());
  for (std::size_t k = 0; k < slots * parts; ++k) {
    const iovec& piece = memory.GetPieces(0)[k];
    buffers.push_back(
        uv_buf_init(static_cast<char*>(piece.iov_base), static_cast<unsigned>(piece.iov_len)));
  }
  return buffers;
}

class Loop {
 public:
  Loop() {
    const int result = uv_loop_init(&loop_);
    if (result != 0) throw std::runtime_error(kName + ": " + uv_strerror(result));
  }
  ~Loop() { uv_loop_close(&loop_); }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  uv_loop_t* Get() { return &loop_; }

 private:
  uv_loop_t loop_{};
};

class LibuvPeer : public Runner {
 public:
  explicit LibuvPeer(const Job& job)
      : job_(job),
        file_(kName, job, PageCache::kBypassed),
        memory_(job, job.depth),
        buffers_(ToBuffers(memory_, job.depth)),
        items_(kName, job),
        slots_(job.depth) {
    ChoosePoolSize();
    for (Slot& slot : slots_) {
      slot.peer = this;
      slot.request.data = &slot;
    }
  }

  void Pass(LatencyHistogram* latencies) override {
    items_.BeginPass(latencies);
    for (Slot& slot : slots_) StartNext(&slot);
    uv_run(loop_.Get(), UV_RUN_DEFAULT);
    items_.EndPass();
  }

 private:
  struct Slot {
    LibuvPeer* peer = nullptr;
    uv_fs_t request{};
  };

  void StartNext(Slot* slot) {
    const auto index = static_cast<std::size_t>(slot - slots_.data());
    std::uint64_t offset = 0;
    if (!items_.Take(index, &offset)) return;
    const auto start = job_.write ? uv_fs_write : uv_fs_read;
    const auto parts = static_cast<unsigned>(memory_.GetPieceCount());
    const int result = start(loop_.Get(), &slot->request, file_.Get(), &buffers_[index * parts],
                             parts, static_cast<std::int64_t>(offset), &LibuvPeer::OnEnd);
    if (result != 0) items_.Finish(index, result);
  }

  static void OnEnd(uv_fs_t* request) {
    auto* const slot = static_cast<Slot*>(request->data);
    LibuvPeer* const peer = slot->peer;
    peer->items_.Finish(static_cast<std::size_t>(slot - peer->slots_.data()), request->result);
    uv_fs_req_cleanup(request);
    peer->StartNext(slot);
  }

  const Job job_;
  const PeerFile file_;
  const ItemMemory memory_;
  const std::vector<uv_buf_t> buffers_;
  ItemQueue items_;
  std::vector<Slot> slots_;
  Loop loop_;
};

// Without a callback, libuv moves the item before it returns.
class LibuvSyncPeer : public Runner {
 public:
  explicit LibuvSyncPeer(const Job& job)
      : job_(job),
        file_(kName, job, PageCache::kBypassed),
        memory_(job, 1),
        buffers_(ToBuffers(memory_, 1)) {}

  void Pass(LatencyHistogram* latencies) override {
    const auto move = job_.write ? uv_fs_write : uv_fs_read;
    const auto parts = static_cast<unsigned>(buffers_.size());
    MoveOneByOne(kName, job_, latencies, [this, move, parts](std::uint64_t offset) {
      uv_fs_t request;
      const int moved = move(nullptr, &request, file_.Get(), buffers_.data(), parts,
                             static_cast<std::int64_t>(offset), nullptr);
      uv_fs_req_cleanup(&request);
      return std::int64_t{moved};
    });
  }

 private:
  const Job job_;
  const PeerFile file_;
  const ItemMemory memory_;
  const std::vector<uv_buf_t> buffers_;
};

}  // namespace

std::unique_ptr<Runner> NewLibuvPeer(const Job& job) {
  return std::make_unique<LibuvPeer>(job);
}

std::unique_ptr<Runner> NewLibuvSyncPeer(const Job& job) {
  return std::make_unique<LibuvSyncPeer>(job);
}

}  // namespace bench
