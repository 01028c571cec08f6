// The limit: one thread, one ring, the same set-up flags as the library, one system call for all
// that is to be submitted and awaited.
#include <liburing.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

// Closed with the object.
class Ring {
 public:
  Ring(const std::string& peer, unsigned entries) {
    constexpr unsigned kFlags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
    const int result = io_uring_queue_init(entries, &ring_, kFlags);
    if (result != 0) throw std::runtime_error(peer + ": " + std::strerror(-result));
    io_uring_register_ring_fd(&ring_);
    // Where files block, as many kernel workers as transfers.
    unsigned workers[2] = {entries, entries};
    io_uring_register_iowq_max_workers(&ring_, workers);
  }
  ~Ring() { io_uring_queue_exit(&ring_); }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  io_uring* Get() { return &ring_; }

 private:
  io_uring ring_{};
};

class RingPeer : public Runner {
 public:
  RingPeer(const std::string& name, const Job& job, PageCache pageCache)
      : name_(name),
        job_(job),
        file_(name, job, pageCache),
        memory_(job, job.depth),
        items_(name, job),
        ring_(name, job.depth) {}

  void Pass(LatencyHistogram* latencies) override {
    items_.BeginPass(latencies);
    inFlight_ = 0;
    for (std::size_t slot = 0; slot < job_.depth; ++slot) QueueNext(slot);
    while (inFlight_ > 0) {
      const int result = io_uring_submit_and_wait(ring_.Get(), 1);
      if (result < 0 && result != -EINTR) {
        throw std::runtime_error(name_ + ": " + std::strerror(-result));
      }
      TakeCompleted();
    }
    items_.EndPass();
  }

 private:
  void TakeCompleted() {
    unsigned head = 0;
    unsigned taken = 0;
    io_uring_cqe* entry = nullptr;
    io_uring_for_each_cqe(ring_.Get(), head, entry) {
      const auto slot = static_cast<std::size_t>(entry->user_data);
      items_.Finish(slot, entry->res);
      --inFlight_;
      ++taken;
      QueueNext(slot);
    }
    io_uring_cq_advance(ring_.Get(), taken);
  }

  void QueueNext(std::size_t slot) {
    std::uint64_t offset = 0;
    if (!items_.Take(slot, &offset)) return;
    io_uring_sqe* const entry = io_uring_get_sqe(ring_.Get());
    const iovec* const pieces = memory_.GetPieces(slot);
    const auto count = static_cast<unsigned>(memory_.GetPieceCount());
    const auto bytes = static_cast<unsigned>(job_.itemBytes);
    if (count > 1 && job_.write) {
      io_uring_prep_writev(entry, file_.Get(), pieces, count, offset);
    } else if (count > 1) {
      io_uring_prep_readv(entry, file_.Get(), pieces, count, offset);
    } else if (job_.write) {
      io_uring_prep_write(entry, file_.Get(), pieces->iov_base, bytes, offset);
    } else {
      io_uring_prep_read(entry, file_.Get(), pieces->iov_base, bytes, offset);
    }
    io_uring_sqe_set_data64(entry, slot);
    ++inFlight_;
  }

  const std::string name_;
  const Job job_;
  const PeerFile file_;
  const ItemMemory memory_;
  ItemQueue items_;
  Ring ring_;
  unsigned inFlight_ = 0;
};

}  // namespace

std::unique_ptr<Runner> NewRingPeer(const Job& job) {
  return std::make_unique<RingPeer>("io_uring", job, PageCache::kBypassed);
}

std::unique_ptr<Runner> NewBufferedRingPeer(const Job& job) {
  return std::make_unique<RingPeer>("io_uring, page cache", job, PageCache::kUsed);
}

}  // namespace bench
