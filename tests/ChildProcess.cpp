#include "ChildProcess.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>

namespace Orvane {
namespace {

constexpr unsigned kChildSeconds = 60;
constexpr int kForkSeconds = 20;
constexpr useconds_t kPollMicro = 1000;

std::string ToText(int status) {
  if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
  return "signal " + std::to_string(WTERMSIG(status));
}

[[noreturn]] void RunChild(const std::function<void()>& facts) {
  alarm(kChildSeconds);  // kills it
  try {
    facts();
  } catch (const char* text) {
    ADD_FAILURE() << "thrown: " << text;
  } catch (const std::exception& exception) {
    ADD_FAILURE() << "thrown: " << exception.what();
  } catch (...) {
    ADD_FAILURE() << "something was thrown";
  }
  std::cout.flush();
  std::fflush(nullptr);
  std::exit(testing::Test::HasFailure() ? 1 : 0);
}

}  // namespace

void InChild(const std::function<void()>& facts) {
  std::cout.flush();
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_LE(0, child);
  if (child == 0) RunChild(facts);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ("exit 0", ToText(status)) << "(signal 14: it took too long)";
}

std::string OutcomeInFork(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child < 0) return "no fork";
  if (child == 0) _exit(work());
  int status = 0;
  for (int i = 0; i < kForkSeconds * 1000; ++i) {
    if (waitpid(child, &status, WNOHANG) == child) return ToText(status);
    usleep(kPollMicro);
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return "still running";
}

std::string TextThrownBy(const std::function<void()>& work) {
  try {
    work();
  } catch (const char* text) {
    return text;
  } catch (...) {
    return "(something else)";
  }
  return "(nothing)";
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
