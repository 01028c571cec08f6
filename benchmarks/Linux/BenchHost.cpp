#include "../BenchHost.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <new>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

constexpr std::uint64_t kHugePage = std::uint64_t{2} << 20;

// The value of a line "name : value" of a file of /proc, or an empty text.
std::string GetProcValue(const std::string& file, const std::string& name) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, name.size(), name) != 0) continue;
    const std::size_t start = line.find_first_not_of(" \t", line.find(':') + 1);
    return start == std::string::npos ? "" : line.substr(start);
  }
  return "";
}

std::uint64_t GetStatusBytes(const std::string& name) {
  std::uint64_t kilobytes = 0;
  std::istringstream(GetProcValue("/proc/self/status", name)) >> kilobytes;
  return kilobytes * 1024;
}

// Of a file system, or 0.
std::uint64_t GetMagic(const std::string& folder) {
  struct statfs status {};
  if (statfs(folder.c_str(), &status) != 0) return 0;
  return static_cast<std::uint32_t>(status.f_type);
}

class OpenFile {
 public:
  explicit OpenFile(const std::string& name)
      : name_(name), descriptor_(open(name.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) Fail("cannot open");
  }
  ~OpenFile() { close(descriptor_); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int Get() const { return descriptor_; }
  void Flush() const {
    if (fsync(descriptor_) != 0) Fail("cannot flush");
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw std::runtime_error(what + " " + name_ + ": " + std::strerror(errno));
  }

  const std::string name_;
  const int descriptor_;
};

}  // namespace

double ProcessorSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

void ResetPeakMemory() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

std::uint64_t GetMemory() {
  return GetStatusBytes("VmRSS");
}

std::uint64_t GetPeakMemory() {
  return GetStatusBytes("VmHWM");
}

std::uint64_t GetHeapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::string DescribeMachine() {
  utsname names{};
  uname(&names);
  // Not every architecture has it.
  std::string model = GetProcValue("/proc/cpuinfo", "model name");
  if (model.empty()) model = names.machine;
  return model + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " cores, " + names.sysname +
         " " + names.release;
}

std::string DescribeFolder(const std::string& folder) {
  constexpr std::uint64_t kXfs = 0x58465342;
  constexpr std::uint64_t kZfs = 0x2fc12fc1;
  // ext2 and ext3 have the same one; who uses them knows.
  const std::pair<std::uint64_t, const char*> kNames[] = {
      {EXT4_SUPER_MAGIC, "ext4"},         {kXfs, "xfs"},
      {BTRFS_SUPER_MAGIC, "btrfs"},       {kZfs, "zfs"},
      {F2FS_SUPER_MAGIC, "f2fs"},         {TMPFS_MAGIC, "tmpfs"},
      {OVERLAYFS_SUPER_MAGIC, "overlay"}, {NFS_SUPER_MAGIC, "nfs"},
      {FUSE_SUPER_MAGIC, "fuse"},         {V9FS_MAGIC, "9p"},
  };
  const std::uint64_t magic = GetMagic(folder);
  for (const auto& [known, name] : kNames) {
    if (magic == known) return name;
  }
  std::ostringstream text;
  text << "file system 0x" << std::hex << magic;
  return text.str();
}

std::string FindMemoryFolder() {
  const std::string folder = "/dev/shm";
  const bool usable = GetMagic(folder) == TMPFS_MAGIC && access(folder.c_str(), W_OK | X_OK) == 0;
  return usable ? folder : "";
}

void DropFromPageCache(const std::string& name) {
  const OpenFile file(name);
  file.Flush();  // it keeps what is not on the device yet
  posix_fadvise(file.Get(), 0, 0, POSIX_FADV_DONTNEED);
}

void FlushToDevice(const std::string& name) {
  OpenFile(name).Flush();
}

AlignedBlocks::AlignedBlocks(std::uint64_t blockBytes, std::size_t blocks)
    : blockBytes_(blockBytes),
      bytes_((blockBytes * blocks + kHugePage - 1) / kHugePage * kHugePage) {
  // One huge page more than needed, to start where one starts; the rest is given back.
  const std::size_t mapped = bytes_ + kHugePage;
  void* const memory =
      mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  char* const start = static_cast<char*>(memory);
  const std::size_t before =
      (kHugePage - reinterpret_cast<std::uintptr_t>(start) % kHugePage) % kHugePage;
  memory_ = start + before;
  if (before > 0) munmap(start, before);
  munmap(memory_ + bytes_, kHugePage - before);
  madvise(memory_, bytes_, MADV_HUGEPAGE);
  std::memset(memory_, 0, bytes_);
}

AlignedBlocks::~AlignedBlocks() {
  munmap(memory_, bytes_);
}

}  // namespace bench
