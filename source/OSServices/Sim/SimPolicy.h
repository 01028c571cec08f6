// Who goes on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "OSServices/Sim/SimThread.h"
#include "OrvaneSimulator.h"

namespace Orvane {

// The device takes part like a thread: it completes one transfer at a turn.
constexpr std::uint32_t kSimDevice = 0xFFFFFFFE;

// What there is to choose from; never empty, in the order of their indices, the device last.
struct SimCandidates {
  static constexpr std::size_t kMost = 256;
  SimThread* threads[kMost];
  std::size_t count = 0;         // of threads
  bool device = false;           // also the device
  SimThread* running = nullptr;  // among the threads, or null if it cannot go on
  bool areVaried = true;         // for a search: else there is one order

  std::size_t Count() const { return count + (device ? 1 : 0); }
};

class SimPolicy {
 public:
  virtual ~SimPolicy() = default;
  virtual void OnThreadMade(SimThread* thread) { static_cast<void>(thread); }
  // An index below candidates.Count().
  virtual std::size_t Choose(const SimCandidates& candidates, std::uint64_t step) = 0;
};

// Chooses as a list of earlier choices says and then always the first possibility; counts what
// there was to choose.
class SimSearchPolicy : public SimPolicy {
 public:
  struct Choice {
    std::uint32_t chosen;
    std::uint32_t possible;
    bool preempts;  // the possibilities but the first are changes away from one that could go on
  };

  SimSearchPolicy(std::vector<Choice>* choices, unsigned preemptions)
      : choices_(choices), preemptionsLeft_(preemptions) {}
  std::size_t Choose(const SimCandidates& candidates, std::uint64_t step) override;

  // Makes the list that of the next schedule; false if there is none.
  static bool Advance(std::vector<Choice>* choices);

 private:
  std::vector<Choice>* const choices_;
  std::size_t next_ = 0;
  unsigned preemptionsLeft_;
};

// Any policy but kBySeed.
std::unique_ptr<SimPolicy> NewSimPolicy(
    SimulatedPolicy policy, std::uint64_t seed,
    const std::vector<std::pair<std::uint64_t, std::uint32_t>>& switches);
SimulatedPolicy ChooseSimPolicy(std::uint64_t seed);

}  // namespace Orvane
