#include "TestHost.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

#include "LinuxDescriptors.h"

namespace Orvane {

std::uint64_t GetProcessNumber() {
  return static_cast<std::uint64_t>(getpid());
}

std::uint64_t GetHostPageSize() {
  return static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

std::string NewTemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "orvane-tests-XXXXXX").string();
  if (!mkdtemp(name.data())) return std::string();
  // Some tests give up the privileges of root.
  std::filesystem::permissions(name, std::filesystem::perms(0755));
  return name;
}

unsigned char* ReserveMemory(std::size_t size) {
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return static_cast<unsigned char*>(memory);
}

void FreeMemory(unsigned char* memory, std::size_t size) {
  munmap(memory, size);
}

unsigned char* RepeatMemory(std::size_t chunk, std::size_t count) {
  const int file = memfd_create("chunk", MFD_CLOEXEC);
  void* const place = mmap(nullptr, chunk * count, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (file < 0 || place == MAP_FAILED || ftruncate(file, static_cast<off_t>(chunk)) != 0) {
    return nullptr;
  }
  auto* const memory = static_cast<unsigned char*>(place);
  bool mapped = true;
  for (std::size_t i = 0; i < count; ++i) {
    mapped = mapped && mmap(memory + i * chunk, chunk, PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_FIXED, file, 0) != MAP_FAILED;
  }
  close(file);
  return mapped ? memory : nullptr;
}

void FreeRepeatedMemory(unsigned char* memory, std::size_t chunk, std::size_t count) {
  munmap(memory, chunk * count);
}

std::uint64_t GetAvailableMemory() {
  std::ifstream info("/proc/meminfo");
  for (std::string word; info >> word;) {
    std::uint64_t kib = 0;
    if (word == "MemAvailable:" && info >> kib) return kib * 1024;
  }
  return 0;
}

bool IsOpenHere(const std::string& path) {
  return StateOfDescriptorOn(std::filesystem::weakly_canonical(path).string()).found;
}

bool MakeSparse(const std::string&) {
  return true;
}

std::vector<std::string> GetOddFileNames() {
  return {"-rf",
          "%s%n%d",
          "new\nline",
          "tab\tand space ",
          " ",
          "\xFF\xFE",
          "a\\b",
          "*?[a]",
          "$(id)`id`;|&",
          "~",
          "gr\xC3\xBC\xC3\x9F",
          "\xE6\x96\x87\xE4\xBB\xB6",
          "\"'"};
}

std::size_t GetLongestFileName(const std::string&) {
  return 255;
}

bool TakesUnalignedOffsets(const std::string& path) {
  constexpr std::size_t kPage = 4096;
  const int file = open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  if (file < 0) return true;  // it is read through the page cache
  unsigned char* const memory = ReserveMemory(kPage);
  const bool takes = pread(file, memory, kPage, 100) >= 0;
  FreeMemory(memory, kPage);
  close(file);
  return takes;
}

void CallAtEndOfThread(std::function<void()> function) {
  struct Caller {
    std::function<void()> function;
    ~Caller() { function(); }
  };
  thread_local Caller caller;
  caller.function = std::move(function);
}

std::uint64_t GetProcessorMicros() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<std::uint64_t>(used.tv_sec) * 1000000U +
         static_cast<std::uint64_t>(used.tv_nsec) / 1000U;
}

std::uint64_t GetProcessorStepMicros() {
  return 1;
}

std::uint32_t GetLargestSemaphoreCount() {
  return 0xFFFFFFFF;
}

std::uint32_t GetManySemaphoreUnits() {
  return 8000000;
}

}  // namespace Orvane
