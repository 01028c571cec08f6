#include "LinuxFileTools.h"

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "OrvaneTest.h"

namespace Orvane {

bool EnterPrivateMounts() {
  static const bool entered =
      unshare(CLONE_NEWNS) == 0 && mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0;
  return entered;
}

Mount::Mount(const std::vector<std::string>& arguments) : point_(OrvaneTest::PathOf("mount")) {
  std::filesystem::create_directories(point_);
  std::vector<std::string> command = {"mount"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  command.push_back(point_);
  mounted_ = RunProgram(command);
}

Mount::~Mount() {
  Unmount();
}

void Mount::Unmount() {
  if (mounted_) umount2(point_.c_str(), MNT_DETACH);
  mounted_ = false;
  rmdir(point_.c_str());
}

bool RunProgram(std::vector<std::string> arguments) {
  std::vector<char*> words;
  for (std::string& argument : arguments) words.push_back(argument.data());
  words.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int output : {STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, output, "/dev/null", O_WRONLY, 0);
  }
  pid_t child = 0;
  const int error = posix_spawnp(&child, words[0], &actions, nullptr, words.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return false;
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace Orvane
