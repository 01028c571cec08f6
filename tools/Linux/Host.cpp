#include "Host.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace OrvaneTool {
namespace {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set inside a signal handler");

void OnInterruption(int) {
  interrupted.store(true);
}

void Catch(int number) {
  struct sigaction old = {};
  if (sigaction(number, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) return;
  struct sigaction action = {};
  action.sa_handler = OnInterruption;
  // Reset after the first one, so that a second one ends a process that hangs.
  action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
  sigaction(number, &action, nullptr);
}

}  // namespace

void CatchInterruptions() {
  Catch(SIGINT);
  Catch(SIGTERM);
  signal(SIGXFSZ, SIG_IGN);
}

bool Interrupted() {
  return interrupted.load();
}

bool StandardErrorIsTerminal() {
  return isatty(STDERR_FILENO) == 1;
}

unsigned TerminalColumns() {
  winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

std::filesystem::path ToPath(const std::string& file) {
  return file;
}

std::error_code CreateNewFile(const std::string& file) {
  const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (descriptor < 0) return {errno, std::generic_category()};
  close(descriptor);
  return {};
}

std::uint64_t PhysicalMemoryBytes() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageBytes = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || pageBytes <= 0) return 0;
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageBytes);
}

}  // namespace OrvaneTool
