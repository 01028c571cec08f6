#include "FaultyFileSystem.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "OrvaneTest.h"

namespace Orvane {
namespace {

constexpr int kAnswerLimitMs = 60000;

}  // namespace

FaultyFileSystem::FaultyFileSystem() : point_(OrvaneTest::PathOf("faulty")) {
  std::filesystem::create_directories(point_);
  int commands[2];
  int answers[2];
  if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, commands[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, answers[1], STDOUT_FILENO);
  std::string program = ORVANE_FAULTY_FS;
  std::string point = point_;
  char* arguments[] = {program.data(), point.data(), nullptr};
  if (posix_spawn(&server_, program.c_str(), &actions, nullptr, arguments, environ) != 0) {
    server_ = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  close(commands[0]);
  close(answers[1]);
  commands_ = commands[1];
  answers_ = answers[0];
  mounted_ = server_ > 0 && Ask("");
}

FaultyFileSystem::~FaultyFileSystem() {
  if (commands_ >= 0) close(commands_);
  if (answers_ >= 0) close(answers_);
  int status = 0;
  while (server_ > 0 && waitpid(server_, &status, 0) < 0 && errno == EINTR) {
  }
  rmdir(point_.c_str());
}

bool FaultyFileSystem::AwaitHeld(std::size_t count) {
  return Ask("await " + std::to_string(count));
}

void FaultyFileSystem::ReleaseHeld() {
  Ask("release");
}

void FaultyFileSystem::HoldAgain() {
  Ask("hold");
}

// Each command is a line, and so is each answer; the first answer says that it is mounted.
bool FaultyFileSystem::Ask(const std::string& command) {
  if (!command.empty()) {
    const std::string line = command + "\n";
    if (write(commands_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      return false;
    }
  }
  std::string answer;
  char next = 0;
  pollfd event{answers_, POLLIN, 0};
  while (next != '\n') {
    if (poll(&event, 1, kAnswerLimitMs) <= 0 || read(answers_, &next, 1) != 1) return false;
    answer += next;
  }
  return answer == "ok\n";
}

}  // namespace Orvane
