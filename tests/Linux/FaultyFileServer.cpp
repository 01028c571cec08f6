// orvane_faulty_fs MOUNTPOINT: serves the file system that FaultyFileSystem.h describes. Takes
// commands from standard input, a line each, and answers each with a line; ends with its input.
#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "FaultyFileSystem.h"
#include "FilePattern.h"

namespace {

using Faulty = Orvane::FaultyFileSystem;

enum class Fault { kNone, kHold, kInterrupt, kFail, kFailLater, kShort, kTiny, kNothing, kFull };

struct FaultyFile {
  const char* name;
  Fault fault;
  bool refusesUnbuffered;
};

constexpr FaultyFile kFiles[] = {
    {"plain", Fault::kNone, false},
    {"held", Fault::kHold, false},
    {"interruptible", Fault::kInterrupt, false},
    {"eio", Fault::kFail, false},
    {"eio-later", Fault::kFailLater, false},
    {"short", Fault::kShort, false},
    {"tiny", Fault::kTiny, false},
    {"nothing", Fault::kNothing, false},
    {"full", Fault::kFull, false},
    {"buffered", Fault::kNone, true},
    {"buffered-tiny", Fault::kTiny, true},
};
constexpr fuse_ino_t kFirstFile = FUSE_ROOT_ID + 1;

const FaultyFile& FileOf(fuse_ino_t number) {
  return kFiles[number - kFirstFile];
}

struct Held {
  fuse_req_t request;
  std::size_t offset;
  std::size_t size;
  bool write;
};

std::vector<Held> held;
bool holding = true;
std::size_t awaited = 0;  // answer once so many are held; 0: nobody waits

struct stat AttributesOf(fuse_ino_t number) {
  struct stat status {};
  status.st_ino = number;
  const bool isFile = number != FUSE_ROOT_ID;
  status.st_mode = isFile ? S_IFREG | 0666 : S_IFDIR | 0777;
  status.st_nlink = 1;
  if (isFile) status.st_size = Faulty::kSize;
  return status;
}

void Answer(bool good = true) {
  std::cout << (good ? "ok" : "failed") << std::endl;
}

void AnswerIfAwaited() {
  if (awaited == 0 || held.size() < awaited) return;
  awaited = 0;
  Answer();
}

void Move(fuse_req_t request, std::size_t offset, std::size_t size, bool write) {
  if (write) {
    fuse_reply_write(request, size);
    return;
  }
  std::vector<char> data(size);
  Orvane::FillPattern(data.data(), size, offset);
  fuse_reply_buf(request, data.data(), size);
}

void OnInterrupt(fuse_req_t request, void*) {
  const auto found = std::find_if(
      held.begin(), held.end(), [request](const Held& entry) { return entry.request == request; });
  if (found == held.end()) return;
  held.erase(found);
  fuse_reply_err(request, EINTR);
}

void Hold(fuse_req_t request, std::size_t offset, std::size_t size, bool write,
          bool interruptible) {
  if (!holding) {
    Move(request, offset, size, write);
    return;
  }
  held.push_back({request, offset, size, write});
  if (interruptible) fuse_req_interrupt_func(request, OnInterrupt, nullptr);
  AnswerIfAwaited();
}

// `size` bytes at `offset`, already cut to the size of the file for reads.
void Serve(fuse_req_t request, fuse_ino_t number, std::size_t offset, std::size_t size,
           bool write) {
  const Fault fault = FileOf(number).fault;
  const std::size_t good = offset < Faulty::kGoodBytes ? Faulty::kGoodBytes - offset : 0;
  switch (fault) {
    case Fault::kHold:
    case Fault::kInterrupt:
      Hold(request, offset, size, write, fault == Fault::kInterrupt);
      return;
    case Fault::kFail:
      fuse_reply_err(request, EIO);
      return;
    case Fault::kFailLater:
    case Fault::kFull:
      if (write != (fault == Fault::kFull)) break;
      if (good == 0) {
        fuse_reply_err(request, write ? ENOSPC : EIO);
        return;
      }
      size = std::min(size, good);
      break;
    case Fault::kShort:
      size = std::min(size, Faulty::kShortBytes);
      break;
    case Fault::kTiny:
      if (!write) size = std::min(size, Faulty::kTinyBytes);
      break;
    case Fault::kNothing:
      if (!write) size = 0;
      break;
    case Fault::kNone:
      break;
  }
  Move(request, offset, size, write);
}

void Lookup(fuse_req_t request, fuse_ino_t, const char* name) {
  for (fuse_ino_t i = 0; i < std::size(kFiles); ++i) {
    if (std::strcmp(name, kFiles[i].name) != 0) continue;
    fuse_entry_param entry{};
    entry.ino = kFirstFile + i;
    entry.attr = AttributesOf(entry.ino);
    fuse_reply_entry(request, &entry);
    return;
  }
  fuse_reply_err(request, ENOENT);
}

void GetAttributes(fuse_req_t request, fuse_ino_t number, fuse_file_info*) {
  const struct stat status = AttributesOf(number);
  fuse_reply_attr(request, &status, 0);
}

void SetAttributes(fuse_req_t request, fuse_ino_t number, struct stat*, int, fuse_file_info* file) {
  GetAttributes(request, number, file);
}

void Open(fuse_req_t request, fuse_ino_t number, fuse_file_info* file) {
  if (FileOf(number).refusesUnbuffered && (file->flags & O_DIRECT)) {
    fuse_reply_err(request, EINVAL);
    return;
  }
  file->direct_io = 1;
  fuse_reply_open(request, file);
}

void Read(fuse_req_t request, fuse_ino_t number, std::size_t size, off_t offset, fuse_file_info*) {
  const auto start = static_cast<std::size_t>(offset);
  const std::size_t left = start < Faulty::kSize ? Faulty::kSize - start : 0;
  if (left == 0) {
    fuse_reply_buf(request, nullptr, 0);
    return;
  }
  Serve(request, number, start, std::min(size, left), /*write=*/false);
}

void Write(fuse_req_t request, fuse_ino_t number, const char*, std::size_t size, off_t offset,
           fuse_file_info*) {
  Serve(request, number, static_cast<std::size_t>(offset), size, /*write=*/true);
}

void Synchronise(fuse_req_t request, fuse_ino_t, int, fuse_file_info*) {
  fuse_reply_err(request, 0);
}

void ReleaseHeld() {
  const std::vector<Held> released = std::exchange(held, {});
  for (const Held& entry : released) Move(entry.request, entry.offset, entry.size, entry.write);
}

void Execute(const std::string& command) {
  if (command.starts_with("await ")) {
    awaited = static_cast<std::size_t>(std::stoul(command.substr(6)));
    AnswerIfAwaited();
    return;
  }
  const bool known = command == "release" || command == "hold";
  if (known) holding = command == "hold";
  if (command == "release") ReleaseHeld();
  Answer(known);
}

// False at the end of the input.
bool ReadCommands(std::string* pending) {
  char data[256];
  const ssize_t count = read(STDIN_FILENO, data, sizeof data);
  if (count <= 0) return count < 0 && errno == EINTR;
  pending->append(data, static_cast<std::size_t>(count));
  for (std::size_t end = 0; (end = pending->find('\n')) != std::string::npos;) {
    Execute(pending->substr(0, end));
    pending->erase(0, end + 1);
  }
  return true;
}

void Run(fuse_session* session) {
  fuse_buf buffer{};
  std::string pending;
  pollfd events[] = {{fuse_session_fd(session), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  while (!fuse_session_exited(session)) {
    if (poll(events, 2, -1) < 0 && errno != EINTR) break;
    if (events[0].revents != 0) {
      const int count = fuse_session_receive_buf(session, &buffer);
      if (count <= 0 && count != -EINTR && count != -EAGAIN) break;
      if (count > 0) fuse_session_process_buf(session, &buffer);
    }
    if (events[1].revents != 0 && !ReadCommands(&pending)) break;
  }
  ReleaseHeld();
  std::free(buffer.mem);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: orvane_faulty_fs MOUNTPOINT\n";
    return 2;
  }
  char* arguments[] = {argv[0], nullptr};
  fuse_args options = FUSE_ARGS_INIT(1, arguments);
  fuse_lowlevel_ops operations{};
  operations.lookup = Lookup;
  operations.getattr = GetAttributes;
  operations.setattr = SetAttributes;
  operations.open = Open;
  operations.read = Read;
  operations.write = Write;
  operations.fsync = Synchronise;
  fuse_session* const session = fuse_session_new(&options, &operations, sizeof operations, nullptr);
  if (!session) return 1;
  const bool mounted = fuse_session_mount(session, argv[1]) == 0;
  Answer(mounted);
  if (mounted) {
    Run(session);
    fuse_session_unmount(session);
  }
  fuse_session_destroy(session);
  fuse_opt_free_args(&options);
  return mounted ? 0 : 1;
}
