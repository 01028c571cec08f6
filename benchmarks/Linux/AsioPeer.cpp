// Files of Boost.Asio over io_uring. That is also what waits for everything else then: with epoll
// beside it, every completion would take an eventfd and a second system call.
#define BOOST_ASIO_HAS_IO_URING 1
#define BOOST_ASIO_DISABLE_EPOLL 1

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/random_access_file.hpp>
#include <boost/system/error_code.hpp>
#include <span>
#include <vector>

#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

namespace asio = boost::asio;
using Buffers = std::span<const asio::mutable_buffer>;

const std::string kName = "Boost.Asio";

std::vector<asio::mutable_buffer> ToBuffers(const ItemMemory& memory, std::size_t slots) {
  std::vector<asio::mutable_buffer> buffers;
  const auto parts = static_cast<std::size_t>(memory.GetPieceCount());
  for (std::size_t k = 0; k < slots * parts; ++k) {
    const iovec& piece = memory.GetPieces(0)[k];
    buffers.emplace_back(piece.iov_base, piece.iov_len);
  }
  return buffers;
}

std::int64_t ToMoved(const boost::system::error_code& error, std::size_t bytes) {
  if (error == asio::error::eof) return 0;
  return error ? -error.value() : static_cast<std::int64_t>(bytes);
}

class AsioPeer : public Runner {
 public:
  explicit AsioPeer(const Job& job)
      : job_(job),
        file_(kName, job, PageCache::kBypassed),
        memory_(job, job.depth),
        buffers_(ToBuffers(memory_, job.depth)),
        items_(kName, job),
        // One thread without locks.
        context_(BOOST_ASIO_CONCURRENCY_HINT_UNSAFE) {
    // A file of Asio has one read in flight and lets the others wait, hence one for each slot.
    for (unsigned slot = 0; slot < job.depth; ++slot) {
      files_.emplace_back(context_, file_.Duplicate());
    }
  }

  void Pass(LatencyHistogram* latencies) override {
    items_.BeginPass(latencies);
    for (std::size_t slot = 0; slot < job_.depth; ++slot) StartNext(slot);
    context_.restart();
    context_.run();
    items_.EndPass();
  }

 private:
  struct OnEnd {
    AsioPeer* peer;
    std::size_t slot;

    void operator()(const boost::system::error_code& error, std::size_t bytes) const {
      peer->items_.Finish(slot, ToMoved(error, bytes));
      peer->StartNext(slot);
    }
  };

  void StartNext(std::size_t slot) {
    std::uint64_t offset = 0;
    if (!items_.Take(slot, &offset)) return;
    // A single buffer makes a smaller operation than a sequence of one.
    if (job_.parts == 1) {
      Start(slot, offset, buffers_[slot]);
    } else {
      Start(slot, offset, Buffers(&buffers_[slot * job_.parts], job_.parts));
    }
  }

  template <typename Sequence>
  void Start(std::size_t slot, std::uint64_t offset, const Sequence& buffers) {
    if (job_.write) {
      files_[slot].async_write_some_at(offset, buffers, OnEnd{this, slot});
    } else {
      files_[slot].async_read_some_at(offset, buffers, OnEnd{this, slot});
    }
  }

  const Job job_;
  const PeerFile file_;
  const ItemMemory memory_;
  const std::vector<asio::mutable_buffer> buffers_;
  ItemQueue items_;
  asio::io_context context_;
  std::vector<asio::random_access_file> files_;
};

class AsioSyncPeer : public Runner {
 public:
  explicit AsioSyncPeer(const Job& job)
      : job_(job),
        memory_(job, 1),
        buffers_(ToBuffers(memory_, 1)),
        context_(BOOST_ASIO_CONCURRENCY_HINT_UNSAFE),
        file_(context_, PeerFile(kName, job, PageCache::kBypassed).Duplicate()) {}

  void Pass(LatencyHistogram* latencies) override {
    if (job_.parts == 1) {
      MoveAll(latencies, buffers_.front());
    } else {
      MoveAll(latencies, Buffers(buffers_));
    }
  }

 private:
  template <typename Sequence>
  void MoveAll(LatencyHistogram* latencies, const Sequence& buffers) {
    MoveOneByOne(kName, job_, latencies, [this, &buffers](std::uint64_t offset) {
      boost::system::error_code error;
      const std::size_t bytes = job_.write ? file_.write_some_at(offset, buffers, error)
                                           : file_.read_some_at(offset, buffers, error);
      return ToMoved(error, bytes);
    });
  }

  const Job job_;
  const ItemMemory memory_;
  const std::vector<asio::mutable_buffer> buffers_;
  asio::io_context context_;
  asio::random_access_file file_;
};

}  // namespace

std::unique_ptr<Runner> NewAsioPeer(const Job& job) {
  return std::make_unique<AsioPeer>(job);
}

std::unique_ptr<Runner> NewAsioSyncPeer(const Job& job) {
  return std::make_unique<AsioSyncPeer>(job);
}

}  // namespace bench
