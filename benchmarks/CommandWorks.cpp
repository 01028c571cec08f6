// Queues of commands with shuffled due times.
#include <algorithm>
#include <atomic>
#include <numeric>
#include <random>
#include <string>

#include "Cache/CommandProcessor.h"
#include "OSServices/LockClass.h"
#include "Orvane.h"
#include "Suite.h"

namespace bench {
namespace {

constexpr std::size_t kCommands = 100000;

class CountingCommand : public Orvane::Command {
 public:
  CountingCommand(std::uint32_t dueTime, std::atomic<std::size_t>* left,
                  Orvane::MTSemaphore* finished)
      : Command(Orvane::kCommandRead, dueTime), left_(left), finished_(finished) {}
  bool Execute() override { return true; }
  void Finish(bool) override {
    std::atomic<std::size_t>* const left = left_;
    Orvane::MTSemaphore* const finished = finished_;
    delete this;
    if (left->fetch_sub(1) == 1) finished->Release(1);
  }

 private:
  std::atomic<std::size_t>* const left_;
  Orvane::MTSemaphore* const finished_;
};

// Those of the others are behind it, a millisecond apart.
std::uint32_t FirstDueTime() {
  return Orvane::MTInterface::GetCurrentTimeMilli() + 1000;
}

// Queues some while the worker is held, then lets it run them all; as often as it takes for
// kCommands.
class CommandRunner : public Runner {
 public:
  explicit CommandRunner(std::size_t queued)
      : finished_(Orvane::MTInterface::NewSemaphore(1, 0)),
        dueTimes_(queued),
        processor_(&kKind, 1, Orvane::MTThread::kPriorityNormal, Orvane::LockClass::kReadSection) {
    std::iota(dueTimes_.begin(), dueTimes_.end(), FirstDueTime());
    std::shuffle(dueTimes_.begin(), dueTimes_.end(), std::mt19937_64(3));
  }

  void Pass(LatencyHistogram*) override {
    for (std::size_t done = 0; done < kCommands; done += dueTimes_.size()) {
      left_ = dueTimes_.size();
      processor_.Hold();
      for (const std::uint32_t dueTime : dueTimes_) {
        processor_.Add(new CountingCommand(dueTime, &left_, finished_.get()));
      }
      processor_.Release();
      finished_->Wait(0xFFFFFFFF, 1);
    }
  }

 private:
  static constexpr std::uint32_t kKind = Orvane::kCommandRead;

  const std::unique_ptr<Orvane::MTSemaphore> finished_;
  std::vector<std::uint32_t> dueTimes_;
  std::atomic<std::size_t> left_{0};
  Orvane::CommandProcessor processor_;
};

// What the objects themselves cost, on one thread: made, run in the order of their due times, which
// is known beforehand, and gone. With the same due times: a command reads the clock for one.
class ObjectRunner : public Runner {
 public:
  explicit ObjectRunner(std::size_t count)
      : finished_(Orvane::MTInterface::NewSemaphore(1, 0)),
        firstDueTime_(FirstDueTime()),
        order_(count),
        commands_(count) {
    std::iota(order_.begin(), order_.end(), std::size_t{0});
    std::shuffle(order_.begin(), order_.end(), std::mt19937_64(3));
  }

  void Pass(LatencyHistogram*) override {
    for (std::size_t done = 0; done < kCommands; done += order_.size()) {
      left_ = order_.size();
      for (const std::size_t place : order_) {
        const std::uint32_t dueTime = firstDueTime_ + static_cast<std::uint32_t>(place);
        commands_[place] = new CountingCommand(dueTime, &left_, finished_.get());
      }
      for (CountingCommand* const command : commands_) {
        command->Execute();
        command->Finish(/*cancelled=*/false);
      }
      finished_->Wait(0xFFFFFFFF, 1);
    }
  }

 private:
  const std::unique_ptr<Orvane::MTSemaphore> finished_;
  const std::uint32_t firstDueTime_;
  std::vector<std::size_t> order_;
  std::vector<CountingCommand*> commands_;
  std::atomic<std::size_t> left_{0};
};

}  // namespace

void AddCommandWorks(Suite* suite) {
  Work work{
      "growth: commands with shuffled due times, queued together", "commands", kCommands, {}, {}};
  Work objects{
      "growth: the same commands, in a known order without a queue", "commands", kCommands, {}, {}};
  const auto name = [](std::size_t queued) { return std::to_string(queued) + " queued"; };
  for (std::size_t queued = kCommands / 100; queued <= kCommands; queued *= 10) {
    const auto place = static_cast<double>(queued);
    work.contenders.push_back(
        {name(queued), [queued] { return std::make_unique<CommandRunner>(queued); }, place});
    objects.contenders.push_back(
        {name(queued), [queued] { return std::make_unique<ObjectRunner>(queued); }, place});
  }
  work.aims.push_back(
      {"P13", name(kCommands), {name(kCommands / 100)}, Measure::kTime, false, 1.5});
  suite->works.push_back(work);
  suite->works.push_back(objects);
}

}  // namespace bench
