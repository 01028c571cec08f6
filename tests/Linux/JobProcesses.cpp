#include "sim/JobProcesses.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <utility>
#include <vector>

namespace Orvane {
namespace {

class JobProcessesLinux : public JobProcesses {
 public:
  JobProcessesLinux(unsigned char* shared, std::size_t bytesEach, std::vector<pid_t> processes)
      : shared_(shared),
        bytesEach_(bytesEach),
        processes_(std::move(processes)),
        statuses_(processes_.size()) {}

  void* SharedWith(unsigned job) override { return shared_ + job * bytesEach_; }

  bool HasEnded(unsigned job) override {
    pid_t& process = processes_[job];
    if (process > 0 && waitpid(process, &statuses_[job], WNOHANG) == process) process = 0;
    return process <= 0;
  }

  std::string HowItEnded(unsigned job) override {
    const int status = statuses_[job];
    if (processes_[job] < 0) return "it was not started";
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "exit code " + std::to_string(WEXITSTATUS(status));
  }

  void Kill(unsigned job) override {
    if (processes_[job] > 0) kill(processes_[job], SIGKILL);
  }

 private:
  unsigned char* const shared_;
  const std::size_t bytesEach_;
  std::vector<pid_t> processes_;  // 0: has ended; -1: was not started
  std::vector<int> statuses_;
};

}  // namespace

std::unique_ptr<JobProcesses> JobProcesses::Start(unsigned count, std::size_t bytesEach,
                                                  const Work& work) {
  void* const memory =
      mmap(nullptr, bytesEach * count, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  auto* const shared = static_cast<unsigned char*>(memory);
  std::fflush(stdout);
  std::vector<pid_t> processes;
  for (unsigned job = 0; job < count; ++job) {
    const pid_t child = fork();
    if (child == 0) {
      work(job, shared + job * bytesEach);
      std::fflush(stdout);
      _exit(0);
    }
    processes.push_back(child);
  }
  return std::make_unique<JobProcessesLinux>(shared, bytesEach, std::move(processes));
}

}  // namespace Orvane
