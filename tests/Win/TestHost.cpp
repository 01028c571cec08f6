#include "TestHost.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <utility>

#include "OSServices/Win/HostHeadersWin.h"

// Behind that one, whose names it takes.
#include <winioctl.h>

namespace Orvane {
namespace {

// A handle that is closed at the end of the block.
class Handle {
 public:
  explicit Handle(HANDLE handle) : handle_(handle) {}
  ~Handle() {
    if (IsGood()) CloseHandle(handle_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  bool IsGood() const { return handle_ && handle_ != INVALID_HANDLE_VALUE; }
  HANDLE Get() const { return handle_; }

 private:
  const HANDLE handle_;
};

std::uint64_t ToMicros(const FILETIME& time) {
  return ((std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime) / 10;
}

}  // namespace

std::uint64_t GetProcessNumber() {
  return GetCurrentProcessId();
}

std::uint64_t GetHostPageSize() {
  SYSTEM_INFO info{};
  GetSystemInfo(&info);
  return info.dwPageSize;
}

std::string NewTemporaryDirectory() {
  const std::filesystem::path directory = std::filesystem::temp_directory_path() /
                                          ("orvane-tests-" + std::to_string(GetProcessNumber()));
  std::filesystem::remove_all(directory);
  std::filesystem::create_directories(directory);
  return directory.string();
}

unsigned char* ReserveMemory(std::size_t size) {
  void* const memory = VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (!memory) std::abort();
  return static_cast<unsigned char*>(memory);
}

void FreeMemory(unsigned char* memory, std::size_t) {
  VirtualFree(memory, 0, MEM_RELEASE);
}

// The place is found by reserving it; between that and the first view another thread could take it.
unsigned char* RepeatMemory(std::size_t chunk, std::size_t count) {
  const Handle section(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                                          static_cast<DWORD>(std::uint64_t{chunk} >> 32),
                                          static_cast<DWORD>(chunk), nullptr));
  void* const place = VirtualAlloc(nullptr, chunk * count, MEM_RESERVE, PAGE_NOACCESS);
  if (!section.IsGood() || !place) return nullptr;
  VirtualFree(place, 0, MEM_RELEASE);
  auto* const memory = static_cast<unsigned char*>(place);
  for (std::size_t i = 0; i < count; ++i) {
    if (!MapViewOfFileEx(section.Get(), FILE_MAP_ALL_ACCESS, 0, 0, chunk, memory + i * chunk)) {
      FreeRepeatedMemory(memory, chunk, i);
      return nullptr;
    }
  }
  return memory;
}

void FreeRepeatedMemory(unsigned char* memory, std::size_t chunk, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) UnmapViewOfFile(memory + i * chunk);
}

std::uint64_t GetAvailableMemory() {
  MEMORYSTATUSEX status = {};
  status.dwLength = sizeof status;
  return GlobalMemoryStatusEx(&status) ? status.ullAvailPhys : 0;
}

// Nobody else may have it open in a way that does not share it with everybody.
bool IsOpenHere(const std::string& path) {
  const Handle alone(CreateFileA(path.c_str(), GENERIC_READ, /*dwShareMode=*/0, nullptr,
                                 OPEN_EXISTING, 0, nullptr));
  return !alone.IsGood() && GetLastError() == ERROR_SHARING_VIOLATION;
}

bool MakeSparse(const std::string& path) {
  const Handle file(CreateFileA(path.c_str(), GENERIC_WRITE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, 0, nullptr));
  DWORD bytes = 0;
  return file.IsGood() && DeviceIoControl(file.Get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0,
                                          &bytes, nullptr) != 0;
}

// Without the characters that the host keeps for itself, and without a space or dot at the end,
// which it leaves out.
std::vector<std::string> GetOddFileNames() {
  return {"-rf",
          "%s%n%d",
          " before",
          "$(id)`id`;&",
          "~",
          "[a] {b} ^,=+!",
          "gr\xC3\xBC\xC3\x9F",
          "\xE6\x96\x87\xE4\xBB\xB6",
          "'"};
}

// The whole path has less than 260 characters.
std::size_t GetLongestFileName(const std::string& directory) {
  const std::size_t rest =
      MAX_PATH - 1 - (std::filesystem::absolute(directory).string().size() + 1);
  return std::min<std::size_t>(rest, 255);
}

bool TakesUnalignedOffsets(const std::string& path) {
  constexpr DWORD kPage = 4096;
  const Handle file(CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr));
  if (!file.IsGood()) return false;
  unsigned char* const memory = ReserveMemory(kPage);
  OVERLAPPED place = {};
  place.Offset = 100;
  DWORD bytes = 0;
  const bool takes = ReadFile(file.Get(), memory, kPage, &bytes, &place) != 0;
  FreeMemory(memory, kPage);
  return takes;
}

// Not a thread_local object: some run-times take away its memory before they destroy it.
void CallAtEndOfThread(std::function<void()> function) {
  using Function = std::function<void()>;
  static const DWORD slot = FlsAlloc([](void* data) {
    const std::unique_ptr<Function> last(static_cast<Function*>(data));
    if (last) (*last)();
  });
  FlsSetValue(slot, new Function(std::move(function)));
}

std::uint64_t GetProcessorMicros() {
  FILETIME created{};
  FILETIME ended{};
  FILETIME kernel{};
  FILETIME user{};
  if (!GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user)) return 0;
  return ToMicros(kernel) + ToMicros(user);
}

std::uint64_t GetProcessorStepMicros() {
  return 15625;
}

std::uint32_t GetLargestSemaphoreCount() {
  return 0x7FFFFFFF;
}

// Each is a call of the system.
std::uint32_t GetManySemaphoreUnits() {
  return 1000000;
}

}  // namespace Orvane
