#include "sim/JobProcesses.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

namespace Orvane {
namespace {

constexpr const char* kVariable = "ORVANE_SIMULATE_JOB";  // "JOB MAPPING" of a started process

class JobProcessesWin : public JobProcesses {
 public:
  JobProcessesWin(unsigned char* shared, std::size_t bytesEach, std::vector<HANDLE> processes)
      : shared_(shared), bytesEach_(bytesEach), processes_(std::move(processes)) {}
  ~JobProcessesWin() override {
    for (const HANDLE process : processes_) {
      if (process) CloseHandle(process);
    }
  }

  void* SharedWith(unsigned job) override { return shared_ + job * bytesEach_; }

  bool HasEnded(unsigned job) override {
    return !processes_[job] || WaitForSingleObject(processes_[job], 0) == WAIT_OBJECT_0;
  }

  std::string HowItEnded(unsigned job) override {
    if (!processes_[job]) return "it was not started";
    DWORD code = 0;
    GetExitCodeProcess(processes_[job], &code);
    char text[32];
    std::snprintf(text, sizeof text, code > 0xFFFF ? "exit code 0x%lX" : "exit code %lu", code);
    return text;
  }

  void Kill(unsigned job) override {
    if (processes_[job]) TerminateProcess(processes_[job], 9);
  }

 private:
  unsigned char* const shared_;
  const std::size_t bytesEach_;
  const std::vector<HANDLE> processes_;  // null: was not started
};

[[noreturn]] void RunJob(const char* place, std::size_t bytesEach, const JobProcesses::Work& work) {
  char* rest = nullptr;
  const auto job = static_cast<unsigned>(std::strtoul(place, &rest, 10));
  const auto mapping = reinterpret_cast<HANDLE>(std::strtoull(rest, nullptr, 10));
  void* const shared = MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0);
  if (!shared) std::abort();
  // Nobody is there to read the windows that tell of a crash.
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  work(job, static_cast<unsigned char*>(shared) + job * bytesEach);
  std::fflush(stdout);
  // Threads of a world that was given up do not end.
  TerminateProcess(GetCurrentProcess(), 0);
  std::abort();
}

HANDLE StartAgain(unsigned job, HANDLE mapping) {
  const std::string place =
      std::to_string(job) + " " + std::to_string(reinterpret_cast<std::uintptr_t>(mapping));
  SetEnvironmentVariableA(kVariable, place.c_str());
  std::string command = GetCommandLineA();
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  char program[MAX_PATH] = {};
  GetModuleFileNameA(nullptr, program, MAX_PATH);
  const bool started =
      CreateProcessA(program, command.data(), nullptr, nullptr,
                     /*bInheritHandles=*/TRUE, 0, nullptr, nullptr, &startup, &process) != 0;
  SetEnvironmentVariableA(kVariable, nullptr);
  if (!started) return nullptr;
  CloseHandle(process.hThread);
  return process.hProcess;
}

}  // namespace

std::unique_ptr<JobProcesses> JobProcesses::Start(unsigned count, std::size_t bytesEach,
                                                  const Work& work) {
  if (const char* const place = std::getenv(kVariable)) RunJob(place, bytesEach, work);
  SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, /*bInheritHandle=*/TRUE};
  const HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, &inherited, PAGE_READWRITE, 0,
                                            static_cast<DWORD>(bytesEach * count), nullptr);
  void* const memory = mapping ? MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0) : nullptr;
  if (!memory) return nullptr;
  std::fflush(stdout);
  std::vector<HANDLE> processes;
  for (unsigned job = 0; job < count; ++job) processes.push_back(StartAgain(job, mapping));
  CloseHandle(mapping);
  return std::make_unique<JobProcessesWin>(static_cast<unsigned char*>(memory), bytesEach,
                                           std::move(processes));
}

}  // namespace Orvane
