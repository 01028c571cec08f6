#include "LinuxChildTools.h"

#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace Orvane {
namespace {

constexpr int kForkSeconds = 20;
constexpr useconds_t kPollMicro = 1000;

}  // namespace

std::string OutcomeOfChild(int status) {
  if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
  return "signal " + std::to_string(WTERMSIG(status));
}

std::string OutcomeInFork(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child < 0) return "no fork";
  if (child == 0) _exit(work());
  int status = 0;
  for (int i = 0; i < kForkSeconds * 1000; ++i) {
    if (waitpid(child, &status, WNOHANG) == child) return OutcomeOfChild(status);
    usleep(kPollMicro);
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return "still running";
}

bool DropPrivileges() {
  if (geteuid() != 0) return true;
  constexpr uid_t kNobody = 65534;
  if (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
      setresuid(kNobody, kNobody, kNobody) != 0) {
    return false;
  }
  prctl(PR_SET_DUMPABLE, 1);  // the leak check at the end of a process needs it
  return true;
}

}  // namespace Orvane
