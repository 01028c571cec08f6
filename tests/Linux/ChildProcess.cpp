#include "ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "LinuxChildTools.h"

namespace Orvane {
namespace {

constexpr unsigned kChildSeconds = 60;

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
  EXPECT_EQ("exit 0", OutcomeOfChild(status)) << "(signal 14: it took too long)";
}

}  // namespace Orvane
