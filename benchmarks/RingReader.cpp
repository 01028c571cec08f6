// The limit: one thread, one ring, the same set-up flags as the library, one system call for all
// that is to be submitted and awaited.
#include <liburing.h>
#include <unistd.h>

#include <stdexcept>

#include "Reader.h"
#include "TestFile.h"

namespace bench {
namespace {

class RingReader : public Reader {
 public:
  explicit RingReader(const Job& job)
      : job_(job),
        file_(job.throughPageCache ? OpenBuffered(job.file) : OpenUnbuffered(job.file)),
        blocks_(job.blockBytes, job.depth) {
    if (io_uring_queue_init(128, &ring_, IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN) !=
        0) {
      throw std::runtime_error("io_uring is not available");
    }
    io_uring_register_ring_fd(&ring_);
  }

  ~RingReader() override {
    io_uring_queue_exit(&ring_);
    close(file_);
  }

  void ReadAll(const std::vector<std::uint64_t>& offsets) override {
    std::size_t started = 0;
    std::size_t done = 0;
    for (; started < job_.depth && started < offsets.size(); ++started) {
      Queue(offsets[started], started);
    }
    while (done < offsets.size()) {
      io_uring_submit_and_wait(&ring_, 1);
      io_uring_cqe* entry = nullptr;
      while (io_uring_peek_cqe(&ring_, &entry) == 0) {
        if (entry->res != static_cast<int>(job_.blockBytes)) throw std::runtime_error("short read");
        const auto block = static_cast<std::size_t>(entry->user_data);
        io_uring_cqe_seen(&ring_, entry);
        ++done;
        if (started < offsets.size()) Queue(offsets[started++], block);
      }
    }
  }

 private:
  void Queue(std::uint64_t offset, std::size_t block) {
    io_uring_sqe* const entry = io_uring_get_sqe(&ring_);
    io_uring_prep_read(entry, file_, blocks_[block], static_cast<unsigned>(job_.blockBytes),
                       offset);
    io_uring_sqe_set_data64(entry, block);
  }

  const Job job_;
  const int file_;
  const AlignedBlocks blocks_;
  io_uring ring_{};
};

}  // namespace

std::unique_ptr<Reader> NewRingReader(const Job& job) {
  return std::make_unique<RingReader>(job);
}

}  // namespace bench
