#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Job.h"
#include "LatencyHistogram.h"

namespace bench {

// Throws std::runtime_error unless all bytes were moved. `moved` is a negative error number of the
// host after a failure.
void CheckMoved(const std::string& peer, std::int64_t moved, std::uint64_t wanted);
// Throws std::runtime_error if the job writes.
void RequireReads(const std::string& peer, const Job& job);

// Hands out the items of a pass to the slots of a peer that has several in flight, and sees to
// their times and failures. After a failure it hands out no more, so that the peer ends with
// nothing in flight.
class ItemQueue {
 public:
  ItemQueue(const std::string& peer, const Job& job) : peer_(peer), job_(job), starts_(job.depth) {}

  void BeginPass(LatencyHistogram* latencies) {
    latencies_ = latencies;
    next_ = 0;
    moved_ = static_cast<std::int64_t>(job_.itemBytes);
  }

  // To be called right before the item is submitted. False if there is none left.
  bool Take(std::size_t slot, std::uint64_t* offset) {
    if (next_ == job_.offsets.size() || HasFailed()) return false;
    *offset = job_.offsets[next_++];
    if (latencies_) starts_[slot] = Clock::now();
    return true;
  }

  // `moved` is a negative error number of the host after a failure.
  void Finish(std::size_t slot, std::int64_t moved) {
    if (latencies_) latencies_->RecordSince(starts_[slot]);
    if (!HasFailed()) moved_ = moved;
  }

  // Throws std::runtime_error if an item failed or came short.
  void EndPass() const { CheckMoved(peer_, moved_, job_.itemBytes); }

 private:
  bool HasFailed() const { return moved_ != static_cast<std::int64_t>(job_.itemBytes); }

  const std::string peer_;
  const Job job_;
  LatencyHistogram* latencies_ = nullptr;
  std::vector<Clock::time_point> starts_;  // by slot
  std::size_t next_ = 0;
  std::int64_t moved_ = 0;  // by the last item, or by the first that failed
};

// The pass of a peer that does one item after another, at these offsets or at all of the job.
// `transfer` moves the item at an offset and returns the bytes moved, or a negative error number.
template <typename Transfer>
void MoveOneByOne(const std::string& peer, const Job& job, std::span<const std::uint64_t> offsets,
                  LatencyHistogram* latencies, const Transfer& transfer) {
  for (const std::uint64_t offset : offsets) {
    const Clock::time_point start = latencies ? Clock::now() : Clock::time_point();
    const std::int64_t moved = transfer(offset);
    if (latencies) latencies->RecordSince(start);
    if (moved != static_cast<std::int64_t>(job.itemBytes)) CheckMoved(peer, moved, job.itemBytes);
  }
}
template <typename Transfer>
void MoveOneByOne(const std::string& peer, const Job& job, LatencyHistogram* latencies,
                  const Transfer& transfer) {
  MoveOneByOne(peer, job, job.offsets, latencies, transfer);
}

}  // namespace bench
