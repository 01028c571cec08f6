// What the tests need of the operating system beyond the library and the standard library. One
// implementation per host folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Orvane {

std::uint64_t GetProcessNumber();
std::uint64_t GetHostPageSize();

// A new empty directory below that for temporary files; others may look into it.
std::string NewTemporaryDirectory();

// Page-aligned memory, all zero, of which only what is touched takes room. Ends the process where
// there is none.
unsigned char* ReserveMemory(std::size_t size);
void FreeMemory(unsigned char* memory, std::size_t size);

// The same memory many times in a row: gigabytes for the price of one chunk. Null where the host
// cannot.
unsigned char* RepeatMemory(std::size_t chunk, std::size_t count);
void FreeRepeatedMemory(unsigned char* memory, std::size_t chunk, std::size_t count);

// Bytes of memory that could be had without paging; 0 when unknown.
std::uint64_t GetAvailableMemory();

// Whether this process has the file open.
bool IsOpenHere(const std::string& path);

// Has an existing file take no more room where it is made longer. False where the host cannot.
bool MakeSparse(const std::string& path);

// Names of files that something between the library and the disk might take for something else.
std::vector<std::string> GetOddFileNames();
// In bytes, of a file in the directory; 255 at most.
std::size_t GetLongestFileName(const std::string& directory);

// Whether unbuffered reads of the file may begin anywhere.
bool TakesUnalignedOffsets(const std::string& path);

// Has it called as one of the last things that the calling thread does; once per thread.
void CallAtEndOfThread(std::function<void()> function);

// The time that the process has used of all processors, in microseconds.
std::uint64_t GetProcessorMicros();
// In steps of that.
std::uint64_t GetProcessorStepMicros();

// What a semaphore can count to.
std::uint32_t GetLargestSemaphoreCount();
// So many units a semaphore gives out one at a time within seconds.
std::uint32_t GetManySemaphoreUnits();

}  // namespace Orvane
