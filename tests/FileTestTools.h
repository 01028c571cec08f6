// The vocabulary of the tests on real files.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Buffer.h"
#include "BufferList.h"
#include "FilePattern.h"
#include "NativeFileSysInterface.h"
#include "OrvaneTest.h"

namespace Orvane {

constexpr auto kOK = CacheSource::kResultOK;
constexpr auto kPartial = CacheSource::kResultPartial;
constexpr auto kPending = CacheSource::kResultPending;
constexpr auto kFailed = CacheSource::kResultFailed;
constexpr auto kOutOfRange = CacheSource::kResultOutOfRange;
constexpr auto kNotSupported = CacheSource::kResultNotSupported;
constexpr auto kError = CacheSource::kResultError;
constexpr auto kBusy = CacheSource::kResultBusy;

constexpr std::size_t kRequestSlots = 61;
constexpr std::uint64_t kUntouched = 0xDEAD;

// Bytes per page.
std::size_t Page();

// Polls until the condition holds; false after half a minute.
bool Eventually(const std::function<bool()>& condition);

// Page-aligned memory of its own, all zero.
class Memory {
 public:
  explicit Memory(std::size_t size);
  ~Memory();
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  unsigned char* At(std::size_t offset = 0) const { return data_ + offset; }
  std::size_t Size() const { return size_; }
  void FillWith(unsigned char value) const;
  // Whether every byte of the range is `value`.
  bool IsFilledWith(unsigned char value, std::size_t offset, std::size_t size) const;

 private:
  const std::size_t size_;
  unsigned char* data_;
};

// Addresses and sizes, in the order in which they form a list.
using Pieces = std::vector<std::pair<unsigned char*, std::size_t>>;

// One buffer object for each piece; one reference for the caller.
BufferList* NewListOf(const Pieces& pieces);

// A list over memory that holds its pages in this order, each page a buffer of its own.
Pieces PagesOf(const Memory& memory, const std::vector<std::size_t>& order);
// Every second page, last to first: no two buffers are adjacent.
Pieces ScatteredPagesOf(const Memory& memory);

// What a request was answered or reported with.
struct Outcome {
  CacheSource::Result_t result;
  std::uint64_t bytes;

  bool operator==(const Outcome&) const = default;
};
void PrintTo(const Outcome& outcome, std::ostream* out);

Outcome ReadInto(FileSource* source, std::uint64_t offset, const Pieces& pieces);
Outcome WriteFrom(FileSource* source, std::uint64_t offset, const Pieces& pieces);

// A file in the directory of the tests, made and looked at without the library, removed at the end.
class TestFile {
 public:
  explicit TestFile(const std::string& name);
  ~TestFile();
  TestFile(const TestFile&) = delete;
  TestFile& operator=(const TestFile&) = delete;

  const std::string& Path() const { return path_; }
  bool Exists() const;
  std::uint64_t Size() const;
  // Takes away its name; false if there is none.
  bool Remove() const;
  // Makes the file if need be; false if the host refuses.
  bool Resize(std::uint64_t size) const;
  bool FillWithPattern(std::uint64_t position, std::uint64_t size, std::uint64_t seed = 0) const;
  bool HasPattern(std::uint64_t position, std::uint64_t size, std::uint64_t seed = 0) const;
  std::vector<unsigned char> Read(std::uint64_t position, std::size_t size) const;

 private:
  const std::string path_;
};

enum class OpenFor { kRead, kWrite, kReadAndWrite, kNeither };

// A source with one reference for the caller.
NativeFileSource* NewSource(const std::string& path);
NativeFileSource* OpenSource(const std::string& path, OpenFor direction, bool create = false);

// Counts and keeps the reports of any number of requests.
class Reports : public FileSource::ResultCallbackBufferList {
 public:
  // `then` is called with the outcome inside every report, after it was noted.
  explicit Reports(std::function<void(Outcome)> then = nullptr) : then_(std::move(then)) {}

  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override;

  std::size_t Count();
  // The reports so far, once there are at least `count`; fewer after a minute.
  std::vector<Outcome> WaitFor(std::size_t count);
  // The start offsets, in the order of the reports.
  std::vector<std::uint64_t> Offsets();
  // Whether every buffer was unlocked when its report came.
  bool AllBuffersWereUnlocked();

 protected:
  ~Reports() override = default;

 private:
  const std::function<void(Outcome)> then_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Outcome> outcomes_;
  std::vector<std::uint64_t> offsets_;
  bool allUnlocked_ = true;
};

// Holds the I/O thread inside a callback: what is submitted meanwhile stays queued.
class BusyIoThread {
 public:
  // Returns once the thread is held.
  BusyIoThread();
  // Lets it go.
  ~BusyIoThread();
  BusyIoThread(const BusyIoThread&) = delete;
  BusyIoThread& operator=(const BusyIoThread&) = delete;

  // Has the thread do something, still in the callback, when it is let go.
  void BeforeLettingGo(std::function<void()> work);
  // Lets it go now and waits until the work is done.
  void LetGo();

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> work_;
  bool held_ = false;
  bool letGo_ = false;
  bool done_ = false;
  Memory memory_;
  AutoRelease<NativeFileSource> source_;
  AutoRelease<Reports> reports_;
  AutoRelease<BufferList> list_;
};

// How many requests are accepted while the I/O thread is held: the free slots, at most 62.
// Cancels them again.
std::size_t CountFreeSlots();

}  // namespace Orvane
