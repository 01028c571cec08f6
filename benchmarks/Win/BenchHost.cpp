#include "../BenchHost.h"

#include "OSServices/Win/HostHeadersWin.h"
// After the host's main header.
#include <psapi.h>

#include <array>
#include <cstring>
#include <new>
#include <vector>

#include "PeerFile.h"

namespace bench {
namespace {

std::uint64_t peakAtReset = 0;

// A text of the part of the registry that is the machine's, or an empty one.
std::string GetMachineText(const char* key, const char* name) {
  std::array<char, 256> text{};
  auto bytes = static_cast<DWORD>(text.size());
  const LSTATUS status = RegGetValueA(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ,
                                      /*pdwType=*/nullptr, text.data(), &bytes);
  return status == ERROR_SUCCESS ? text.data() : "";
}

// Seconds of a span that the host tells in steps of 100 ns.
double ToSeconds(const FILETIME& span) {
  const std::uint64_t steps = std::uint64_t{span.dwHighDateTime} << 32 | span.dwLowDateTime;
  return static_cast<double>(steps) * 1e-7;
}

PROCESS_MEMORY_COUNTERS GetCounters() {
  PROCESS_MEMORY_COUNTERS counters{};
  GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  return counters;
}

// With what the heap itself needs beside the blocks.
std::uint64_t GetUsedBytes(HANDLE heap) {
  std::uint64_t used = 0;
  if (!HeapLock(heap)) return 0;
  PROCESS_HEAP_ENTRY entry{};
  while (HeapWalk(heap, &entry)) {
    if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) used += entry.cbData + entry.cbOverhead;
  }
  HeapUnlock(heap);
  return used;
}

// A benchmark under Wine is one of Wine.
bool IsUnderWine() {
  const HMODULE module = GetModuleHandleA("ntdll.dll");
  return module && GetProcAddress(module, "wine_get_version");
}

}  // namespace

// In steps of the host's clock: 15.6 ms.
double ProcessorSeconds() {
  FILETIME created{};
  FILETIME ended{};
  FILETIME kernel{};
  FILETIME user{};
  GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user);
  return ToSeconds(kernel) + ToSeconds(user);
}

// The host has one peak for the life of the process, which cannot be reset. Where it has risen
// since, it is the one that is asked for. Otherwise the answer is what is in use at the end: at
// most too little, by what was given back in the meantime.
void ResetPeakMemory() {
  peakAtReset = GetCounters().PeakWorkingSetSize;
}

std::uint64_t GetMemory() {
  return GetCounters().WorkingSetSize;
}

std::uint64_t GetPeakMemory() {
  const PROCESS_MEMORY_COUNTERS counters = GetCounters();
  return counters.PeakWorkingSetSize > peakAtReset ? counters.PeakWorkingSetSize
                                                   : counters.WorkingSetSize;
}

std::uint64_t GetHeapBytes() {
  // There may be a few more by the second call.
  std::vector<HANDLE> heaps(GetProcessHeaps(0, nullptr) + 16);
  const DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  std::uint64_t bytes = 0;
  for (DWORD k = 0; k < count && k < heaps.size(); ++k) bytes += GetUsedBytes(heaps[k]);
  return bytes;
}

std::string DescribeMachine() {
  const std::string model =
      GetMachineText(R"(HARDWARE\DESCRIPTION\System\CentralProcessor\0)", "ProcessorNameString");
  const std::string build =
      GetMachineText(R"(SOFTWARE\Microsoft\Windows NT\CurrentVersion)", "CurrentBuildNumber");
  return (model.empty() ? "x86-64" : model) + ", " +
         std::to_string(GetActiveProcessorCount(ALL_PROCESSOR_GROUPS)) + " cores, Windows build " +
         build + (IsUnderWine() ? " of Wine" : "");
}

std::string DescribeFolder(const std::string& folder) {
  std::array<char, MAX_PATH + 1> volume{};
  std::array<char, MAX_PATH + 1> name{};
  const bool known =
      GetVolumePathNameA(folder.c_str(), volume.data(), static_cast<DWORD>(volume.size())) &&
      GetVolumeInformationA(volume.data(), nullptr, 0, nullptr, nullptr, nullptr, name.data(),
                            static_cast<DWORD>(name.size()));
  return known ? name.data() : "unknown file system";
}

// The host has no file system in memory.
std::string FindMemoryFolder() {
  return "";
}

// No documented call makes the host forget what it caches of one file. All of the cache can be
// emptied, but that takes a privilege of administrators, and takes it from everybody on the
// machine.
void DropFromPageCache(const std::string&) {}

void FlushToDevice(const std::string& name) {
  const Job job{.file = name, .write = true};
  const PeerFile file("flush", job, PageCache::kUsed, Calls::kBlocking);
  if (!FlushFileBuffers(file.Get())) ThrowHostError("cannot flush " + name, GetLastError());
}

// Without huge pages, as the library: they take a privilege that few have here.
AlignedBlocks::AlignedBlocks(std::uint64_t blockBytes, std::size_t blocks)
    : blockBytes_(blockBytes), bytes_(blockBytes * blocks) {
  void* const memory = VirtualAlloc(nullptr, bytes_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (!memory) throw std::bad_alloc();
  memory_ = static_cast<char*>(memory);
  // Now, or the first pass would be slower.
  std::memset(memory_, 0, bytes_);
}

AlignedBlocks::~AlignedBlocks() {
  VirtualFree(memory_, 0, MEM_RELEASE);
}

}  // namespace bench
