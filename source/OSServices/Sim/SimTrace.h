// What happened in a world, step by step.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Orvane {

enum class SimEvent : std::uint8_t {
  kThreadMade,
  kThreadRuns,
  kThreadEnds,
  kLockMade,
  kLockEnter,
  kLockEntered,
  kLockLeft,
  kSemaphoreMade,
  kSemaphoreWait,
  kSemaphoreTaken,
  kSemaphoreTimedOut,
  kSemaphoreReleases,
  kSemaphoreReleased,
  kAtomicRead,
  kAtomicChanged,
  kAtomicCompared,
  kDestroyed,
  kClockRead,
  kAllocation,
  kPagesMapped,
  kPagesUnmapped,
  kFileOpened,
  kFileDeleted,
  kTransferIssued,
  kTransferCancelled,
  kTransferDone,
  kPortWait,
  kPortTaken,
  kPortWoken,
  kPortReturns,
  kCallersStep,
  kTimeMoved,
  kFault,
};

const char* ToText(SimEvent event);

// Keeps the last steps and a hash of all.
class SimTrace {
 public:
  struct Entry {
    std::uint64_t step;
    std::uint64_t micro;
    std::uint64_t object;
    std::uint64_t value;
    std::uint32_t thread;
    SimEvent event;
  };

  void Add(const Entry& entry);
  void AddNote(std::uint64_t step, const std::string& text);
  std::uint64_t GetHash() const { return hash_; }
  // The last ones, oldest first, one line each.
  std::string LastToText(std::size_t count) const;
  static std::string ToText(const Entry& entry);

 private:
  static constexpr std::size_t kKept = 1024;

  std::array<Entry, kKept> entries_;
  std::uint64_t count_ = 0;
  std::uint64_t hash_ = 0xCBF29CE484222325U;
  std::array<std::pair<std::uint64_t, std::string>, 64> notes_;
  std::size_t noteCount_ = 0;
};

}  // namespace Orvane
