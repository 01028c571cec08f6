// A thread of a world.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "MTPrimitives.h"
#include "OSServices/ThreadState.h"

namespace Orvane {

class MTCritSecSim;
struct SimThread;

constexpr std::uint64_t kSimNever = ~std::uint64_t{0};

// Something that threads wait for. Looked at whenever somebody is to be chosen to go on.
class SimWaitable {
 public:
  virtual bool IsReadyFor(const SimThread& thread) const = 0;
  // For the report of a run in which nobody can go on.
  virtual std::string Describe() const = 0;

 protected:
  SimWaitable() = default;
  ~SimWaitable() = default;
};

// Locks that a thread is inside of, in the order in which it entered them.
struct SimHeldLocks {
  static constexpr std::size_t kMost = 32;
  std::array<MTCritSecSim*, kMost> locks{};
  std::size_t count = 0;
};

struct SimThread {
  std::uint32_t index = 0;
  MTThread::MTPriority priority = MTThread::kPriorityNormal;
  std::string name;
  std::function<void()> main;

  bool finished = false;
  SimWaitable* waitsFor = nullptr;     // null: can go on
  std::uint64_t deadline = kSimNever;  // of the wait, in microseconds
  bool expired = false;                // the deadline has passed
  std::uint64_t rank = 0;              // the policy's

  // How deep it is in the simulator's own code, whose allocations are nobody's business. It starts
  // and ends there.
  int depthInside = 1;
  char handOver = 0;  // stands for what it did before it lost control last, see SimPublish
  SimHeldLocks held;
  // Of a thread that does not run, where several share one of the host's.
  ThreadState libraryState;
  void* exceptionState[2] = {nullptr, nullptr};
  void* context = nullptr;  // the carrier's

  bool CanGoOn() const { return !waitsFor || expired || waitsFor->IsReadyFor(*this); }
};

}  // namespace Orvane
