#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {
namespace {

constexpr DWORD kChildMs = 60000;
constexpr const char* kVariable = "ORVANE_TEST_CHILD";  // which call of InChild the child is for

// "Suite.Test" of the running test, and the calls of InChild in it so far.
struct Place {
  std::string test;
  int calls = 0;
};

int CountCall() {
  static Place place;
  const testing::TestInfo* const info = testing::UnitTest::GetInstance()->current_test_info();
  const std::string test = std::string(info->test_suite_name()) + "." + info->name();
  if (place.test != test) place = {test, 0};
  return ++place.calls;
}

[[noreturn]] void RunChild(const std::function<void()>& facts) {
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
  // The threads of the library do not end, and the run-time library must not wait for them.
  TerminateProcess(GetCurrentProcess(), testing::Test::HasFailure() ? 1 : 0);
  std::abort();
}

std::string RunAgain(const std::string& test, int call) {
  char program[MAX_PATH] = {};
  GetModuleFileNameA(nullptr, program, MAX_PATH);
  std::string command = "\"" + std::string(program) + "\" --gtest_filter=" + test;
  SetEnvironmentVariableA(kVariable, std::to_string(call).c_str());
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  const bool started = CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                      nullptr, &startup, &process) != 0;
  SetEnvironmentVariableA(kVariable, nullptr);
  if (!started) return "not started";
  CloseHandle(process.hThread);
  DWORD code = 0;
  std::string outcome = "still running";
  if (WaitForSingleObject(process.hProcess, kChildMs) == WAIT_OBJECT_0) {
    GetExitCodeProcess(process.hProcess, &code);
    outcome = "exit " + std::to_string(code);
  } else {
    TerminateProcess(process.hProcess, 1);
  }
  CloseHandle(process.hProcess);
  return outcome;
}

}  // namespace

void InChild(const std::function<void()>& facts) {
  const int call = CountCall();
  const char* const wanted = std::getenv(kVariable);
  if (wanted) {
    // What comes before was not asked for.
    if (std::to_string(call) == wanted) RunChild(facts);
    return;
  }
  std::cout.flush();
  std::fflush(nullptr);
  const testing::TestInfo* const info = testing::UnitTest::GetInstance()->current_test_info();
  EXPECT_EQ("exit 0", RunAgain(std::string(info->test_suite_name()) + "." + info->name(), call));
}

}  // namespace Orvane
