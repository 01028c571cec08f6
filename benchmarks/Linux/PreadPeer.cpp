#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

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
    MoveOneByOne(name_, job_, latencies, [this](std::uint64_t offset) {
      const ssize_t moved = Move(static_cast<off_t>(offset));
      return static_cast<std::int64_t>(moved < 0 ? -errno : moved);
    });
  }

 protected:
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

std::unique_ptr<Runner> NewBufferedPreadPeer(const Job& job) {
  return std::make_unique<PreadPeer>("pread", job, PageCache::kUsed);
}

std::unique_ptr<Runner> NewColdPreadPeer(const Job& job) {
  return std::make_unique<ColdPreadPeer>(job);
}

}  // namespace bench
