#include "OSServices/Sim/SimPolicy.h"

#include <algorithm>
#include <array>

#include "OSServices/Sim/SimRandom.h"

namespace Orvane {
namespace {

std::size_t IndexOf(const SimCandidates& candidates, const SimThread* thread) {
  std::size_t index = 0;
  while (candidates.threads[index] != thread) ++index;
  return index;
}

// Anybody, or whoever runs as long as the dice do not say otherwise.
class RandomPolicy : public SimPolicy {
 public:
  RandomPolicy(std::uint64_t seed, bool lazy) : random_(seed), lazy_(lazy) {
    constexpr std::array<std::uint64_t, 4> kTurns = {4, 16, 64, 400};
    turn_ = kTurns[random_.Below(kTurns.size())];
  }
  std::size_t Choose(const SimCandidates& candidates, std::uint64_t) override {
    if (lazy_ && candidates.running && !random_.OneIn(turn_)) {
      return IndexOf(candidates, candidates.running);
    }
    return static_cast<std::size_t>(random_.Below(candidates.Count()));
  }

 private:
  SimRandom random_;
  const bool lazy_;
  std::uint64_t turn_;
};

// Probabilistic concurrency testing: with d - 1 places where the running one becomes the last, a
// bug that takes d ordered steps is found with at least 1 / (threads * steps^(d - 1)).
class PCTPolicy : public SimPolicy {
 public:
  explicit PCTPolicy(std::uint64_t seed) : random_(seed) {
    constexpr std::array<std::uint64_t, 5> kSteps = {100, 300, 1000, 3000, 10000};
    const std::uint64_t steps = kSteps[random_.Below(kSteps.size())];
    changes_[0] = 1 + random_.Below(steps);
    changes_[1] = random_.OneIn(2) ? 1 + random_.Below(steps) : 0;
    deviceRank_ = kFirstRank + random_.Below(kRanks);
  }
  void OnThreadMade(SimThread* thread) override {
    thread->rank = kFirstRank + random_.Below(kRanks);
  }
  std::size_t Choose(const SimCandidates& candidates, std::uint64_t step) override {
    // It has no steps of its own to become last at; somebody must be before it in the end.
    if (candidates.device && random_.OneIn(64)) deviceRank_ = kFirstRank + random_.Below(kRanks);
    for (std::size_t k = 0; k < changes_.size(); ++k) {
      if (changes_[k] == 0 || step < changes_[k] || !candidates.running) continue;
      candidates.running->rank = changes_.size() - k;
      changes_[k] = 0;
    }
    std::size_t best = 0;
    for (std::size_t k = 1; k < candidates.count; ++k) {
      if (candidates.threads[k]->rank > candidates.threads[best]->rank) best = k;
    }
    const bool deviceFirst = candidates.count == 0 ||
                             (candidates.device && deviceRank_ > candidates.threads[best]->rank);
    return deviceFirst ? candidates.count : best;
  }

 private:
  static constexpr std::uint64_t kFirstRank = 10;
  static constexpr std::uint64_t kRanks = 1000000;

  SimRandom random_;
  std::array<std::uint64_t, 2> changes_{};  // steps; 0: none, or done
  std::uint64_t deviceRank_ = 0;
};

class StarvationPolicy : public SimPolicy {
 public:
  explicit StarvationPolicy(std::uint64_t seed) : random_(seed) {}
  std::size_t Choose(const SimCandidates& candidates, std::uint64_t step) override {
    if (step >= nextVictimAt_) {
      victim_ = static_cast<std::uint32_t>(random_.Below(kVictims));
      nextVictimAt_ = step + 50 + random_.Below(3000);
    }
    const auto chosen = static_cast<std::size_t>(random_.Below(candidates.Count()));
    if (candidates.Count() == 1 || !IsVictim(candidates, chosen)) return chosen;
    return (chosen + 1) % candidates.Count();
  }

 private:
  static constexpr std::uint32_t kVictims = 9;  // the last one is the device

  bool IsVictim(const SimCandidates& candidates, std::size_t index) const {
    if (index == candidates.count) return victim_ == kVictims - 1;
    return candidates.threads[index]->index == victim_;
  }

  SimRandom random_;
  std::uint32_t victim_ = 0;
  std::uint64_t nextVictimAt_ = 0;
};

// The device is slow: it gets a turn only when no thread wants one.
class PrioritiesPolicy : public SimPolicy {
 public:
  explicit PrioritiesPolicy(std::uint64_t seed) : random_(seed) {}
  std::size_t Choose(const SimCandidates& candidates, std::uint64_t) override {
    if (candidates.count == 0) return 0;
    std::size_t best = 0;
    std::uint64_t equals = 1;
    for (std::size_t k = 1; k < candidates.count; ++k) {
      const auto priority = candidates.threads[k]->priority;
      const auto bestPriority = candidates.threads[best]->priority;
      if (priority > bestPriority) equals = 0;
      if (priority < bestPriority) continue;
      ++equals;
      if (random_.OneIn(equals)) best = k;
    }
    return best;
  }

 private:
  SimRandom random_;
};

class ReplayPolicy : public SimPolicy {
 public:
  explicit ReplayPolicy(std::vector<std::pair<std::uint64_t, std::uint32_t>> switches)
      : switches_(std::move(switches)) {}
  std::size_t Choose(const SimCandidates& candidates, std::uint64_t step) override {
    while (next_ < switches_.size() && switches_[next_].first < step) ++next_;
    if (next_ < switches_.size() && switches_[next_].first == step) {
      const std::uint32_t wanted = switches_[next_++].second;
      if (wanted == kSimDevice && candidates.device) return candidates.count;
      for (std::size_t k = 0; k < candidates.count; ++k) {
        if (candidates.threads[k]->index == wanted) return k;
      }
    }
    return candidates.running ? IndexOf(candidates, candidates.running) : 0;
  }

 private:
  const std::vector<std::pair<std::uint64_t, std::uint32_t>> switches_;
  std::size_t next_ = 0;
};

}  // namespace

std::size_t SimSearchPolicy::Choose(const SimCandidates& candidates, std::uint64_t) {
  const std::size_t first = candidates.running ? IndexOf(candidates, candidates.running) : 0;
  if (candidates.Count() == 1 || !candidates.areVaried) return first;
  const bool preempts = candidates.running != nullptr;
  if (next_ == choices_->size()) {
    const bool all = !preempts || preemptionsLeft_ > 0;
    choices_->push_back({0, all ? static_cast<std::uint32_t>(candidates.Count()) : 1, preempts});
  }
  const Choice& choice = (*choices_)[next_++];
  if (choice.preempts && choice.chosen != 0) --preemptionsLeft_;
  // Whoever runs comes first, the others in a circle behind.
  return (first + choice.chosen) % candidates.Count();
}

bool SimSearchPolicy::Advance(std::vector<Choice>* choices) {
  while (!choices->empty()) {
    Choice& last = choices->back();
    if (++last.chosen < last.possible) return true;
    choices->pop_back();
  }
  return false;
}

std::unique_ptr<SimPolicy> NewSimPolicy(
    SimulatedPolicy policy, std::uint64_t seed,
    const std::vector<std::pair<std::uint64_t, std::uint32_t>>& switches) {
  switch (policy) {
    case SimulatedPolicy::kLazy:
      return std::make_unique<RandomPolicy>(seed, true);
    case SimulatedPolicy::kPCT:
      return std::make_unique<PCTPolicy>(seed);
    case SimulatedPolicy::kStarvation:
      return std::make_unique<StarvationPolicy>(seed);
    case SimulatedPolicy::kPriorities:
      return std::make_unique<PrioritiesPolicy>(seed);
    case SimulatedPolicy::kReplay:
      return std::make_unique<ReplayPolicy>(switches);
    default:
      return std::make_unique<RandomPolicy>(seed, false);
  }
}

SimulatedPolicy ChooseSimPolicy(std::uint64_t seed) {
  constexpr std::array<SimulatedPolicy, 10> kPolicies = {
      SimulatedPolicy::kRandom,     SimulatedPolicy::kLazy,       SimulatedPolicy::kLazy,
      SimulatedPolicy::kPCT,        SimulatedPolicy::kPCT,        SimulatedPolicy::kPCT,
      SimulatedPolicy::kStarvation, SimulatedPolicy::kPriorities, SimulatedPolicy::kRandom,
      SimulatedPolicy::kLazy};
  // Not from the low bits: whoever draws other things from those of the seed meets all policies.
  return kPolicies[SimRandom(SimRandom::Mix(seed + 5)).Below(kPolicies.size())];
}

}  // namespace Orvane
