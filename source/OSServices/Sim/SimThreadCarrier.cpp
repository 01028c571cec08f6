// Each thread of a world on a thread of the host.
#include <thread>
#include <vector>

#include "OSServices/Sim/SimCarrier.h"
#include "OSServices/Sim/SimGate.h"
#include "OSServices/Sim/SimSanitizers.h"

namespace Orvane {
namespace {

#if defined(ORVANE_SIM_TSAN)
// What one thread of a world has done is not ordered before what the next one does.
constexpr bool kRunnersAreKept = false;
#else
constexpr bool kRunnersAreKept = true;
#endif

// A thread of the host, kept for the next thread of a world when it has ended one.
struct Runner {
  const std::unique_ptr<SimGate> gate = NewSimGate();
  SimThread* thread = nullptr;
};

class ThreadCarrier : public SimCarrier {
 public:
  explicit ThreadCarrier(Entry entry) : entry_(entry) {}
  void Prepare(SimThread* thread) override;
  void Switch(SimThread* from, SimThread* to) override;
  void Abandon(SimThread* thread) override { thread->context = nullptr; }

 private:
  void RunnerMain(Runner* runner);
  static Runner* RunnerOf(SimThread* thread) { return static_cast<Runner*>(thread->context); }

  const Entry entry_;
  const std::unique_ptr<SimGate> root_ = NewSimGate();
  std::vector<Runner*> idle_;
};

void ThreadCarrier::Prepare(SimThread* thread) {
  if (!idle_.empty()) {
    thread->context = idle_.back();
    idle_.pop_back();
    RunnerOf(thread)->thread = thread;
    return;
  }
  auto* const runner = new Runner;
  runner->thread = thread;
  thread->context = runner;
  // Never joined: it ends, or waits for its next thread until the process ends.
  std::thread([this, runner] { RunnerMain(runner); }).detach();
}

void ThreadCarrier::RunnerMain(Runner* runner) {
  SimIgnoreBegin();
  do {
    runner->gate->Take();
    entry_(runner->thread);
  } while (kRunnersAreKept);
  delete runner;
  SimIgnoreEnd();
}

void ThreadCarrier::Switch(SimThread* from, SimThread* to) {
  const bool ends = from && from->finished;
  if (ends && kRunnersAreKept) idle_.push_back(RunnerOf(from));
  SimGate& mine = from ? *RunnerOf(from)->gate : *root_;
  (to ? *RunnerOf(to)->gate : *root_).Give();
  if (!ends) mine.Take();
}

}  // namespace

std::unique_ptr<SimCarrier> NewSimThreadCarrier(SimCarrier::Entry entry) {
  return std::make_unique<ThreadCarrier>(entry);
}

}  // namespace Orvane
