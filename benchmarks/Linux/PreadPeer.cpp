#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <semaphore>
#include <thread>

#include "../BenchHost.h"
#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

class PreadPeer : public Runner {
 public:
  PreadPeer(const std::string& name, const Job& job, PageCache pageCache)
      : name_(name), job_(job), file_(name, job, pageCache), memory_(job, 1) {}

  void Pass(LatencyHistogram* latencies) override {
    MoveOneByOne(name_, job_, latencies, [this](std::uint64_t offset) { return Do(offset); });
  }

 protected:
  virtual std::int64_t Do(std::uint64_t offset) {
    const ssize_t moved = Move(static_cast<off_t>(offset));
    return moved < 0 ? -errno : moved;
  }

  ssize_t Move(off_t offset) {
    const iovec* const pieces = memory_.GetPieces(0);
    const int count = memory_.GetPieceCount();
    const int file = file_.Get();
    if (count > 1) {
      return job_.write ? pwritev(file, pieces, count, offset)
                        : preadv(file, pieces, count, offset);
    }
    return job_.write ? pwrite(file, pieces->iov_base, pieces->iov_len, offset)
                      : pread(file, pieces->iov_base, pieces->iov_len, offset);
  }

  const std::string name_;
  const Job job_;
  const PeerFile file_;
  const ItemMemory memory_;
};

// What it takes to have another thread do it: there and back, and nothing else.
class OtherThreadPeer : public PreadPeer {
 public:
  explicit OtherThreadPeer(const Job& job)
      : PreadPeer("pread on another thread", job, PageCache::kBypassed),
        thread_([this] { Serve(); }) {}

  ~OtherThreadPeer() override {
    over_ = true;
    go_.release();
    thread_.join();
  }

 private:
  std::int64_t Do(std::uint64_t offset) override {
    offset_ = offset;
    go_.release();
    done_.acquire();
    return moved_;
  }

  void Serve() {
    for (go_.acquire(); !over_; go_.acquire()) {
      moved_ = PreadPeer::Do(offset_);
      done_.release();
    }
  }

  // Each is written by the one who hands over.
  std::uint64_t offset_ = 0;
  std::int64_t moved_ = 0;
  bool over_ = false;
  std::binary_semaphore go_{0};
  std::binary_semaphore done_{0};
  std::thread thread_;  // last: it uses the others
};

// The kernel reads ahead by itself, further for those who say that they read in order.
class ColdPreadPeer : public PreadPeer {
 public:
  explicit ColdPreadPeer(const Job& job) : PreadPeer("pread", job, PageCache::kUsed) {
    posix_fadvise(file_.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  }

  void Prepare() override { DropFromPageCache(job_.file); }
};

}  // namespace

std::unique_ptr<Runner> NewPreadPeer(const Job& job) {
  return std::make_unique<PreadPeer>("pread, O_DIRECT", job, PageCache::kBypassed);
}

std::unique_ptr<Runner> NewOtherThreadPeer(const Job& job) {
  return std::make_unique<OtherThreadPeer>(job);
}

std::unique_ptr<Runner> NewBufferedPreadPeer(const Job& job) {
  return std::make_unique<PreadPeer>("pread", job, PageCache::kUsed);
}

std::unique_ptr<Runner> NewColdPreadPeer(const Job& job) {
  return std::make_unique<ColdPreadPeer>(job);
}

}  // namespace bench
