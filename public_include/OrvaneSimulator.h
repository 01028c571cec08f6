// A simulated host: threads, locks, time, memory and files of the library under a seeded scheduler.
// One seed gives one schedule, one set of faults and one course of time, the same at every run.
//
//   Orvane::Simulator::Install();
//   Orvane::SimulationResult result = Orvane::Simulator::Explore({}, 1000, [] {
//     Orvane::SimulatedFiles::Create("movie", content);
//     ... open it, read it, compare, call Simulator::Fail when something is wrong ...
//   });
//   if (!result.ok) std::cerr << result.report;
//
// For tests. Comes as a library of its own (Orvane::Simulator) over the static one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Orvane {

// What runs a thread of a simulation. Both make the same of a seed.
enum class SimulatedCarrier : std::uint8_t {
  kFibers,   // one thread of the host for all: several times as fast; `thread_local` of the code
             // under test is shared by all threads of the simulation
  kThreads,  // one of the host's for each, of which one at a time runs: for debuggers
};

// Who runs next, wherever there is a choice.
enum class SimulatedPolicy : std::uint8_t {
  kBySeed,      // one of the following five, chosen by the seed
  kRandom,      // anybody
  kLazy,        // whoever runs goes on, now and then somebody else
  kPCT,         // the first in an order by lot, which changes at a few places by lot
  kStarvation,  // some thread gets a turn only when nobody else wants one
  kPriorities,  // the thread with the highest MTPriority: whoever waits by polling never ends
  kReplay,      // as SimulationSetup::switches say
};

// Failures of the host. Chances are per 1000 calls and drawn by the seed.
struct SimulatedFaults {
  // Files.
  unsigned failOpen = 0;       // the file is represented, each transfer on it fails
  unsigned failIssue = 0;      // a transfer is refused at once
  unsigned failTransfer = 0;   // a transfer fails late, part of a write may have been done
  unsigned shortTransfer = 0;  // a transfer moves less than it was asked for
  unsigned hang = 0;           // a transfer takes up to 200 ms and fails, unless it is cancelled
  unsigned loseWrite = 0;      // a write is reported as done, but is not
  // Threads and memory.
  unsigned failPrimitive = 0;   // a lock, semaphore or atomic value cannot be made: std::bad_alloc
  unsigned failThread = 0;      // a thread cannot be started
  unsigned failPages = 0;       // PhysMemInterface::Allocate answers null
  unsigned failAllocation = 0;  // `new` throws; see SimulatorAllocations
  // The call with this number fails, counted from 1 over all of the above but lost writes and
  // allocations; 0: none.
  std::uint64_t failCall = 0;
  // Likewise over the allocations.
  std::uint64_t failAllocationCall = 0;
  bool andAllLater = false;  // all calls from that one on
};

struct SimulationSetup {
  std::uint64_t seed = 1;
  SimulatedCarrier carrier = SimulatedCarrier::kFibers;
  SimulatedPolicy policy = SimulatedPolicy::kBySeed;
  SimulatedFaults faults;
  // The time at the start, in microseconds, below 2^62; kTimeBySeed: a few of interest, some of
  // them just before the wrap of the millisecond clock.
  static constexpr std::uint64_t kTimeBySeed = ~std::uint64_t{0};
  std::uint64_t startMicro = kTimeBySeed;
  bool timeJumps = true;            // time may also jump while there is work to do, by the seed
  bool allocationsAreSteps = true;  // with SimulatorAllocations: `new` is a place to switch threads
  // Limits; exceeding one is a failure.
  std::uint64_t maxSteps = 5000000;
  std::uint64_t maxSeconds = 4 * 3600;         // of simulated time
  std::uint64_t maxStepsWithoutEvent = 20000;  // while time stands still: somebody is polling
  // kReplay: at step `first` thread `second` goes on; otherwise whoever runs, or the first that
  // can.
  std::vector<std::pair<std::uint64_t, std::uint32_t>> switches;
  bool recordSwitches = false;  // for SimulationResult::switches
  // What Simulator::Random answers first, one each: for fuzzers.
  std::vector<std::uint8_t> firstRandoms;
  bool printTrace = false;  // every step, to standard error
};

struct SimulationResult {
  bool ok = true;
  std::string failure;  // one line; empty if ok
  std::string report;   // failure, seed, owners and waiters, last steps
  std::uint64_t seed = 0;
  std::uint64_t traceHash = 0;  // of every step
  std::uint64_t steps = 0;
  std::uint64_t micros = 0;     // of simulated time
  std::uint64_t hostCalls = 0;  // those that SimulatedFaults::failCall counts
  std::uint64_t allocations = 0;
  std::uint64_t faults = 0;  // failures that the host was made to show
  std::uint64_t runs = 1;
  std::vector<std::pair<std::uint64_t, std::uint32_t>> switches;
};

// Static operations. Install first, instead of OSServices::Init; then any number of runs, one at a
// time, each in a world of its own.
class Simulator {
 public:
  // Installs the simulated host for the rest of the process, with OSServices::InitWithExtensions,
  // and throws what that throws. Outside of a run the library has time standing still and nobody to
  // wait for.
  static void Install();

  // Not inside of a run; after Install. Runs `scenario` as the first thread of a new world, and
  // ends the world: what the scenario started must have ended, what it made must be gone. A run
  // that failed is abandoned in the middle, with its memory; the next one starts afresh.
  static SimulationResult Run(const SimulationSetup& setup, const std::function<void()>& scenario);
  // Runs with the seeds from setup.seed on, until one fails. The result is that of the last run,
  // but for `runs`, `steps` and `faults`, which are those of all of them.
  static SimulationResult Explore(const SimulationSetup& setup, std::uint64_t runs,
                                  const std::function<void()>& scenario);
  // Runs every schedule with at most `preemptions` changes away from a thread that could go on
  // (policy and seed play no part in who runs), until one fails or maxRuns were made. Without
  // faults by chance and time jumps. What is left to the device, such as how long a transfer takes
  // and which of several ends first, stays as the seed says. The result is that of the last run,
  // but for `runs`.
  static SimulationResult ExploreAll(const SimulationSetup& setup, unsigned preemptions,
                                     std::uint64_t maxRuns, const std::function<void()>& scenario);
  // The least switches of threads with which the run of `setup` still fails, with the same line but
  // for numbers in it: SimulationResult::switches, for a run with kReplay. None of them can be left
  // out. Takes as many runs as there are switches, or a few times as many.
  static SimulationResult Minimise(const SimulationSetup& setup,
                                   const std::function<void()>& scenario);

  // The rest: inside of a run, by any of its threads, unless it says otherwise.

  // Whether the calling code runs in a world.
  static bool IsRunning();
  // Ends the run here and now.
  [[noreturn]] static void Fail(const std::string& text);
  // A place where another thread may go on. For callbacks and other code that shares data without a
  // primitive of the library.
  static void Step();
  // Starts a thread of the application. Needs no MTThread and never fails; a run ends only when it
  // has returned.
  static void Spawn(std::function<void()> main);
  // Waits until `condition` holds, which is asked whenever somebody is to be chosen to go on, by
  // whichever thread: it looks at things, calls nothing of the library and throws nothing. Time
  // does not pass for its sake.
  static void WaitUntil(const std::function<bool()>& condition);
  // Waits until no other thread can go on and no transfer can end, however much time passes.
  static void Settle();
  // Whether the run prints its trace: notes that cost something need not be made otherwise.
  static bool IsTracing();
  // A line of the trace.
  static void Note(const std::string& text);
  // For ExploreAll: whether the order from here on is varied, as it is at first. While it is not,
  // whoever runs goes on, and then the first that can: what a scenario prepares, and how it cleans
  // up, need not multiply its schedules. Elsewhere it means nothing.
  static void VaryOrder(bool varied);
  // From the seed; below `limit`, which is not 0. Independent of the schedule's own numbers.
  static std::uint64_t Random(std::uint64_t limit);
  // From now on no fault is drawn, and no file hangs. Transfers that a fault lets hang still take
  // their time and fail.
  static void StopFaults();
  // Text sent to MTInterface::DebugString since the last call.
  static std::string TakeDebugText();
  // Failures that the host was made to show so far.
  static std::uint64_t GetFaults();
  // Microseconds on the clock of the world; not a step.
  static std::uint64_t GetTimeMicro();
  // Steps so far: a clock that never stands still.
  static std::uint64_t GetStep();
  // Requests that the I/O thread has accepted and not reported.
  static std::uint64_t GetOpenRequests();

  // The order in which locks of the library were entered, in all runs of the process: one line per
  // class that was entered at all, and behind it one line "outer -> inner" per class that was
  // entered inside. Anywhere.
  static std::string GetLockOrder();

 private:
  Simulator();
};

// The files of the world, by name. Without a run: nothing to be called.
class SimulatedFiles {
 public:
  // Replaces the content of one that is there, also for whoever has it open.
  static void Create(const std::string& name, std::vector<unsigned char> content);
  // Of those below only Exists and Read say something of a file that is not there: that it is not,
  // and no bytes.
  static bool Exists(const std::string& name);
  static std::vector<unsigned char> Read(const std::string& name);
  static void Resize(const std::string& name, std::uint64_t size);
  // Transfers may then start and end anywhere. Concerns later opens.
  static void SetBuffered(const std::string& name, bool buffered);
  // Bytes of all files together; what would pass it fails.
  static void SetCapacity(std::uint64_t bytes);
  // Microseconds that a transfer takes at most, 300 at first; 0: it ends at any time from its start
  // on.
  static void SetLatency(std::uint64_t micros);
  // From now on transfers of the file do not end before they are cancelled, or before it is called
  // with false.
  static void SetHanging(const std::string& name, bool hanging);
  // Writes that were reported as done and were not, so far.
  static std::uint64_t GetLostWrites();
  // Transfers that were made to come short, so far: part of Simulator::GetFaults, but none that a
  // request may fail of.
  static std::uint64_t GetShortTransfers();

 private:
  SimulatedFiles();
};

// Connects `new` and `delete` to the simulation. The program defines the operators (or includes
// OrvaneSimulatorNew.h in one source file) and calls this for each allocation.
class SimulatorAllocations {
 public:
  // For the length of a block the allocations of the calling thread are no steps and do not fail:
  // for the bookkeeping of a test. Calls of the library do not belong inside.
  class Exempt {
   public:
    Exempt();
    ~Exempt();
    Exempt(const Exempt&) = delete;
    Exempt& operator=(const Exempt&) = delete;
  };

  // A step of the calling thread; false if the allocation is to fail. True outside of a run.
  static bool OnAllocation(std::size_t size) noexcept;
};

}  // namespace Orvane
