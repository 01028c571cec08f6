// orvane_simulate: runs scenarios of the library under seeded schedules. See --help.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "JobProcesses.h"
#include "OrvaneSimulator.h"
#include "OrvaneSimulatorNew.h"
#include "Scenario.h"

// For the thread sanitizer, where that is built in: worlds use the same addresses again.
extern "C" const char* __tsan_default_options() {
  return "suppress_equal_addresses=0";
}

namespace Orvane {
namespace {

enum class Mode { kExplore, kTwice, kEachCall, kEachAllocation, kAll, kMinimise };

struct Options {
  std::vector<std::string> scenarios;
  std::uint64_t seeds = 1000;
  std::uint64_t firstSeed = 1;
  std::uint64_t maxRuns = 3000000;
  unsigned jobs = 0;
  unsigned preemptions = 2;
  Mode mode = Mode::kExplore;
  SimulatedPolicy policy = SimulatedPolicy::kBySeed;
  SimulatedCarrier carrier = SimulatedCarrier::kFibers;
  std::string faults = "seed";
  std::uint64_t failCall = 0;
  std::uint64_t failAllocation = 0;
  bool andAllLater = false;
  bool noJumps = false;
  bool noAllocationSteps = false;
  bool trace = false;
  bool list = false;
  bool lockOrder = false;
  bool hash = false;
  std::vector<std::pair<std::uint64_t, std::uint32_t>> switches;
};

// Of one process that runs scenarios; shared with the one that watches it.
struct Progress {
  std::atomic<std::uint64_t> runs;
  std::atomic<std::uint64_t> steps;
  std::atomic<std::uint64_t> faults;
  std::atomic<std::uint64_t> failures;
  std::atomic<std::uint64_t> traceHashes;  // their sum: runs have no order
  std::atomic<std::uint64_t> seed;
  std::atomic<std::uint64_t> scenario;
  std::atomic<std::uint64_t> failCall;
  std::atomic<bool> andAllLater;
  std::atomic<bool> isThrough;
  std::atomic<std::uint64_t> begun;  // runs, also those that a search makes: a sign of life
};

const std::map<std::string, Mode>& Modes() {
  static const std::map<std::string, Mode> modes{
      {"explore", Mode::kExplore},    {"twice", Mode::kTwice},
      {"each-call", Mode::kEachCall}, {"each-allocation", Mode::kEachAllocation},
      {"all-schedules", Mode::kAll},  {"minimise", Mode::kMinimise}};
  return modes;
}

const std::map<std::string, SimulatedPolicy>& Policies() {
  static const std::map<std::string, SimulatedPolicy> policies{
      {"by-seed", SimulatedPolicy::kBySeed},
      {"random", SimulatedPolicy::kRandom},
      {"lazy", SimulatedPolicy::kLazy},
      {"pct", SimulatedPolicy::kPCT},
      {"starvation", SimulatedPolicy::kStarvation},
      {"priorities", SimulatedPolicy::kPriorities},
      {"replay", SimulatedPolicy::kReplay}};
  return policies;
}

template <typename Value>
std::string NameOf(const std::map<std::string, Value>& names, Value wanted) {
  for (const auto& [name, value] : names) {
    if (value == wanted) return name;
  }
  return std::string();
}

class Session {
 public:
  Session(const Options& options, std::vector<const Scenario*> scenarios)
      : options_(options), scenarios_(std::move(scenarios)) {}
  int Run();

 private:
  unsigned Jobs() const;
  void RunJob(unsigned job, unsigned jobs, Progress* progress);
  void RunOne(const Scenario& scenario, std::uint64_t seed, Progress* progress);
  void EachCall(const Scenario& scenario, std::uint64_t seed, bool allocations, Progress* progress);
  SimulationSetup SetupFor(const Scenario& scenario, std::uint64_t seed) const;
  std::string CommandFor(const Scenario& scenario, const SimulationSetup& setup) const;
  std::string CommandAtEnd(const Progress& progress) const;
  void AllSchedules(const Scenario& scenario, const SimulationSetup& setup, Progress* progress);
  void Minimise(const Scenario& scenario, const SimulationSetup& setup, Progress* progress);
  SimulationResult Check(const Scenario& scenario, const SimulationSetup& setup,
                         Progress* progress);
  void Report(const Scenario& scenario, const SimulationSetup& setup,
              const SimulationResult& result, Progress* progress);
  bool Watch(JobProcesses* processes, const std::vector<Progress*>& progress) const;
  void PrintTotals(const std::vector<Progress*>& progress, double seconds) const;

  const Options options_;
  const std::vector<const Scenario*> scenarios_;
};

std::string Session::CommandFor(const Scenario& scenario, const SimulationSetup& setup) const {
  std::string text = "scripts/simulate --scenario " + std::string(scenario.name) + " --seed " +
                     std::to_string(setup.seed) + " --seeds 1";
  if (options_.mode == Mode::kTwice) text += " --mode twice";
  if (setup.policy != SimulatedPolicy::kBySeed) {
    text += " --policy " + NameOf(Policies(), setup.policy);
  }
  if (setup.carrier == SimulatedCarrier::kThreads) text += " --carrier threads";
  if (options_.faults == "none" || options_.mode == Mode::kAll) text += " --faults none";
  if (setup.faults.failCall != 0) {
    text += " --fail-call " + std::to_string(setup.faults.failCall);
  }
  if (setup.faults.failAllocationCall != 0) {
    text += " --fail-allocation " + std::to_string(setup.faults.failAllocationCall);
  }
  if (setup.faults.andAllLater) text += " --and-all-later";
  if (!setup.timeJumps) text += " --no-time-jumps";
  if (options_.noAllocationSteps || options_.mode == Mode::kAll) text += " --no-allocation-steps";
  for (const auto& [step, thread] : setup.switches) {
    text += " --switch " + std::to_string(step) + ":" + std::to_string(thread);
  }
  return text;
}

SimulationSetup Session::SetupFor(const Scenario& scenario, std::uint64_t seed) const {
  SimulationSetup setup;
  setup.seed = seed;
  setup.policy = options_.switches.empty() ? options_.policy : SimulatedPolicy::kReplay;
  setup.switches = options_.switches;
  setup.carrier = options_.carrier;
  setup.printTrace = options_.trace;
  setup.timeJumps = !options_.noJumps;
  // Against 16, of which the faults are made: each kind of them meets both.
  setup.allocationsAreSteps = seed % 3 == 0 && !options_.noAllocationSteps;
  if (options_.faults == "seed" && scenario.takesFaults) setup.faults = FaultsOfSeed(seed);
  if (options_.failCall != 0 || options_.failAllocation != 0) setup.faults = SimulatedFaults();
  setup.faults.failCall = options_.failCall;
  setup.faults.failAllocationCall = options_.failAllocation;
  setup.faults.andAllLater = options_.andAllLater;
  return setup;
}

SimulationResult Session::Check(const Scenario& scenario, const SimulationSetup& setup,
                                Progress* progress) {
  progress->seed = setup.seed;
  progress->failCall = std::max(setup.faults.failCall, setup.faults.failAllocationCall);
  progress->andAllLater = setup.faults.andAllLater;
  ++progress->begun;
  const SimulationResult result = Simulator::Run(setup, [&] { RunScenario(scenario); });
  ++progress->runs;
  progress->steps += result.steps;
  progress->faults += result.faults;
  progress->traceHashes += result.traceHash;
  if (!result.ok) Report(scenario, setup, result, progress);
  return result;
}

void Session::Report(const Scenario& scenario, const SimulationSetup& setup,
                     const SimulationResult& result, Progress* progress) {
  constexpr std::uint64_t kPrinted = 5;
  if (++progress->failures > kPrinted) {
    if (progress->failures == kPrinted + 1) std::printf("more failures are counted only\n");
    return;
  }
  std::printf("FAILED %s: %srepeat with: %s\n\n", scenario.name, result.report.c_str(),
              CommandFor(scenario, setup).c_str());
  std::fflush(stdout);
}

// Every call of the host, or every allocation, fails once, then with all that follow.
void Session::EachCall(const Scenario& scenario, std::uint64_t seed, bool allocations,
                       Progress* progress) {
  for (const bool andAllLater : {false, true}) {
    for (std::uint64_t call = 1;; ++call) {
      SimulationSetup setup = SetupFor(scenario, seed);
      setup.faults = SimulatedFaults();
      (allocations ? setup.faults.failAllocationCall : setup.faults.failCall) = call;
      setup.faults.andAllLater = andAllLater;
      const SimulationResult result = Check(scenario, setup, progress);
      if (!result.ok) return;
      if (result.faults == 0) break;
    }
  }
}

void Session::RunOne(const Scenario& scenario, std::uint64_t seed, Progress* progress) {
  const SimulationSetup setup = SetupFor(scenario, seed);
  switch (options_.mode) {
    case Mode::kExplore:
      Check(scenario, setup, progress);
      return;
    case Mode::kTwice: {
      const SimulationResult first = Check(scenario, setup, progress);
      SimulationResult second = Check(scenario, setup, progress);
      if (first.traceHash == second.traceHash && first.steps == second.steps) return;
      second.report = "two runs of a seed differ\n";
      Report(scenario, setup, second, progress);
      return;
    }
    case Mode::kEachCall:
    case Mode::kEachAllocation:
      if (!scenario.takesFaults) return;
      EachCall(scenario, seed, options_.mode == Mode::kEachAllocation, progress);
      return;
    case Mode::kAll:
      if (scenario.isSmall) AllSchedules(scenario, setup, progress);
      return;
    case Mode::kMinimise:
      Minimise(scenario, setup, progress);
      return;
  }
}

void Session::AllSchedules(const Scenario& scenario, const SimulationSetup& setup,
                           Progress* progress) {
  SimulationSetup plain = setup;
  plain.faults = SimulatedFaults();
  plain.timeJumps = false;
  plain.allocationsAreSteps = false;
  plain.recordSwitches = true;
  progress->seed = setup.seed;
  const SimulationResult result =
      Simulator::ExploreAll(plain, options_.preemptions, options_.maxRuns, [&] {
        ++progress->begun;
        RunScenario(scenario);
      });
  progress->runs += result.runs;
  const bool complete = result.ok && result.runs < options_.maxRuns;
  std::printf("%-40s %10llu schedules%s\n", scenario.name,
              static_cast<unsigned long long>(result.runs), complete ? "" : ", not all of them");
  std::fflush(stdout);
  if (result.ok) return;
  plain.policy = SimulatedPolicy::kReplay;
  plain.switches = result.switches;
  Report(scenario, plain, result, progress);
}

void Session::Minimise(const Scenario& scenario, const SimulationSetup& setup, Progress* progress) {
  progress->seed = setup.seed;
  const SimulationResult result = Simulator::Minimise(setup, [&] {
    ++progress->begun;
    RunScenario(scenario);
  });
  ++progress->runs;
  if (result.ok) return;
  SimulationSetup replay = setup;
  replay.policy = SimulatedPolicy::kReplay;
  replay.switches = result.switches;
  Report(scenario, replay, result, progress);
}

void Session::RunJob(unsigned job, unsigned jobs, Progress* progress) {
  Simulator::Install();
  const std::uint64_t all = options_.seeds * scenarios_.size();
  for (std::uint64_t k = job; k < all; k += jobs) {
    const std::size_t index = k % scenarios_.size();
    progress->scenario = index;
    RunOne(*scenarios_[index], options_.firstSeed + k / scenarios_.size(), progress);
  }
  progress->isThrough = true;
  if (options_.lockOrder) std::fputs(Simulator::GetLockOrder().c_str(), stdout);
}

unsigned Session::Jobs() const {
  if (options_.lockOrder || options_.trace || options_.mode == Mode::kMinimise) return 1;
  if (options_.jobs != 0) return options_.jobs;
  return std::max(1U, std::thread::hardware_concurrency());
}

// What a process did last that has ended in the middle of it.
std::string Session::CommandAtEnd(const Progress& progress) const {
  const Scenario& scenario = *scenarios_[progress.scenario];
  SimulationSetup setup = SetupFor(scenario, progress.seed);
  if (options_.mode == Mode::kEachCall || options_.mode == Mode::kEachAllocation) {
    setup.faults = SimulatedFaults();
    (options_.mode == Mode::kEachAllocation ? setup.faults.failAllocationCall
                                            : setup.faults.failCall) = progress.failCall;
    setup.faults.andAllLater = progress.andAllLater;
  }
  std::string command = CommandFor(scenario, setup);
  if (options_.mode == Mode::kAll || options_.mode == Mode::kMinimise) {
    command += " --mode " + NameOf(Modes(), options_.mode);
    command += " --preemptions " + std::to_string(options_.preemptions);
  }
  return command;
}

// A world that goes wrong may end its process, or keep it for ever.
bool Session::Watch(JobProcesses* processes, const std::vector<Progress*>& progress) const {
  constexpr int kHangSeconds = 180;
  constexpr int kLooksPerSecond = 50;
  bool good = true;
  std::vector<std::uint64_t> seen(progress.size());
  std::vector<int> idle(progress.size());
  std::vector<unsigned> left(progress.size());
  std::iota(left.begin(), left.end(), 0U);
  while (!left.empty()) {
    std::this_thread::sleep_for(std::chrono::microseconds(1000000 / kLooksPerSecond));
    std::erase_if(left, [&](unsigned job) {
      const bool ended = processes->HasEnded(job);
      const std::uint64_t now = progress[job]->begun;
      idle[job] = now == seen[job] ? idle[job] + 1 : 0;
      seen[job] = now;
      const bool hangs = idle[job] > kHangSeconds * kLooksPerSecond;
      if (!ended && hangs) processes->Kill(job);
      if (!ended) return false;
      const std::string outcome = processes->HowItEnded(job);
      if (progress[job]->isThrough && outcome == "exit code 0") return true;
      good = false;
      // The one it was at; what it had still to do is left undone.
      ++progress[job]->runs;
      ++progress[job]->failures;
      std::printf("FAILED: a process %s (%s) before it was through with its share, in %s\n",
                  hangs ? "was ended, for it stood still," : "ended", outcome.c_str(),
                  CommandAtEnd(*progress[job]).c_str());
      return true;
    });
  }
  return good;
}

void Session::PrintTotals(const std::vector<Progress*>& progress, double seconds) const {
  std::uint64_t runs = 0;
  std::uint64_t steps = 0;
  std::uint64_t faults = 0;
  std::uint64_t failures = 0;
  std::uint64_t traceHashes = 0;
  for (const Progress* const of : progress) {
    runs += of->runs;
    steps += of->steps;
    faults += of->faults;
    failures += of->failures;
    traceHashes += of->traceHashes;
  }
  std::printf("%zu scenarios, %llu schedules, %llu steps, %llu faults, %.0f s, %.0f schedules/s\n",
              scenarios_.size(), static_cast<unsigned long long>(runs),
              static_cast<unsigned long long>(steps), static_cast<unsigned long long>(faults),
              seconds, static_cast<double>(runs) / std::max(seconds, 0.001));
  if (options_.hash) {
    std::printf("traces %016llx\n", static_cast<unsigned long long>(traceHashes));
  }
  if (runs == 0) std::printf("nothing was run\n");
  std::printf("%llu passed, %llu failed\n",
              static_cast<unsigned long long>(runs - std::min(runs, failures)),
              static_cast<unsigned long long>(failures));
}

int Session::Run() {
  const unsigned jobs = Jobs();
  const auto start = std::chrono::steady_clock::now();
  bool good = true;
  Progress own{};
  std::vector<Progress*> progress;
  std::unique_ptr<JobProcesses> processes;
  if (options_.carrier == SimulatedCarrier::kThreads && jobs == 1) {
    // For debuggers: nobody watches.
    RunJob(0, 1, &own);
    progress.push_back(&own);
  } else {
    processes =
        JobProcesses::Start(jobs, sizeof(Progress), [this, jobs](unsigned job, void* shared) {
          RunJob(job, jobs, static_cast<Progress*>(shared));
        });
    if (!processes) return 2;
    for (unsigned job = 0; job < jobs; ++job) {
      progress.push_back(static_cast<Progress*>(processes->SharedWith(job)));
    }
    good = Watch(processes.get(), progress);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  PrintTotals(progress, took.count());
  std::uint64_t runs = 0;
  for (const Progress* const of : progress) {
    good = good && of->failures == 0;
    runs += of->runs;
  }
  return good && runs != 0 ? 0 : 1;
}

std::vector<const Scenario*> Choose(const Options& options) {
  if (options.scenarios.empty()) return Scenario::All();
  std::vector<const Scenario*> chosen;
  for (const std::string& name : options.scenarios) {
    const Scenario* const scenario = Scenario::Find(name);
    if (!scenario) throw CLI::ValidationError("there is no scenario " + name);
    chosen.push_back(scenario);
  }
  return chosen;
}

void AddOptions(CLI::App* app, Options* options) {
  app->add_flag("--list", options->list, "List the scenarios");
  app->add_option("--scenario", options->scenarios, "Which ones; all without it")->delimiter(',');
  app->add_option("--seeds", options->seeds, "Seeds per scenario (1000)");
  app->add_option("--seed", options->firstSeed, "The first seed (1)");
  app->add_option("--jobs", options->jobs, "Processes; one per processor without it");
  app->add_option("--mode", options->mode,
                  "explore; twice: every seed two times, with equal traces; each-call, "
                  "each-allocation: fail each in turn, alone and with all later ones; "
                  "all-schedules: of the small scenarios; minimise: the fewest switches of "
                  "threads with which a seed still fails")
      ->transform(CLI::CheckedTransformer(Modes()));
  app->add_option("--policy", options->policy, "Who runs next")
      ->transform(CLI::CheckedTransformer(Policies()));
  const std::map<std::string, SimulatedCarrier> carriers{{"fibers", SimulatedCarrier::kFibers},
                                                         {"threads", SimulatedCarrier::kThreads}};
  app->add_option("--carrier", options->carrier, "fibers, or threads of the host")
      ->transform(CLI::CheckedTransformer(carriers));
  app->add_option("--faults", options->faults, "seed, or none")
      ->check(CLI::IsMember({"seed", "none"}));
  app->add_option("--fail-call", options->failCall, "The call of the host that fails");
  app->add_option("--fail-allocation", options->failAllocation, "The allocation that fails");
  app->add_flag("--and-all-later", options->andAllLater, "With all that follow");
  app->add_flag("--no-time-jumps", options->noJumps, "Time moves only when nobody can go on");
  app->add_flag("--no-allocation-steps", options->noAllocationSteps,
                "Threads are not switched at allocations");
  app->add_option("--preemptions", options->preemptions, "For all-schedules (2)");
  app->add_option("--max-runs", options->maxRuns, "For all-schedules, per scenario");
  app->add_flag("--trace", options->trace, "Print every step to standard error");
  app->add_flag("--hash", options->hash,
                "Print a hash of all traces, the same on every host and with any number of jobs");
  app->add_flag("--lock-order", options->lockOrder, "Print which locks were entered inside which");
}

}  // namespace
}  // namespace Orvane

int main(int argc, char** argv) {
  Orvane::Options options;
  CLI::App app("Runs the library under a seeded scheduler, clock, memory and device.");
  Orvane::AddOptions(&app, &options);
  std::vector<std::string> switches;
  app.add_option("--switch", switches, "STEP:THREAD, as printed by --mode minimise");
  std::vector<const Orvane::Scenario*> scenarios;
  try {
    app.parse(argc, argv);
    for (const std::string& text : switches) {
      const std::size_t colon = text.find(':');
      if (colon == std::string::npos) throw CLI::ValidationError("--switch is STEP:THREAD");
      options.switches.emplace_back(std::stoull(text),
                                    static_cast<std::uint32_t>(std::stoul(text.substr(colon + 1))));
    }
    scenarios = Orvane::Choose(options);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  } catch (const std::exception&) {
    return app.exit(CLI::ValidationError("--switch is STEP:THREAD"));
  }
  if (options.list) {
    for (const Orvane::Scenario* const scenario : scenarios) {
      std::printf("%-40s %s%s\n", scenario->name, scenario->isSmall ? "(small) " : "",
                  scenario->about);
    }
    return 0;
  }
  return Orvane::Session(options, std::move(scenarios)).Run();
}
