// What tests of the cache have in common.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

#include "Buffer.h"
#include "BufferFactory.h"
#include "BufferList.h"
#include "Cache.h"
#include "CacheTransaction.h"
#include "FileSource.h"
#include "MemorySource.h"
#include "OrvaneTest.h"

namespace Orvane {

// How a request ended.
struct CacheReport {
  CacheSource::Result_t result;
  std::uint64_t bytes;

  bool operator==(const CacheReport&) const = default;
};
void PrintTo(const CacheReport& report, std::ostream* out);
// In tests of caches; other fixtures have a Report of their own.
using Report = CacheReport;

// Reports as they come, from any thread.
class ReportKeeper {
 public:
  // Keeps the first ones without allocating.
  ReportKeeper() { reports_.reserve(4); }
  // Waits up to 5 seconds.
  bool WaitFor(std::size_t count);
  std::vector<Report> GetReports();
  // The only report; waits for it.
  Report GetOne();

 protected:
  ~ReportKeeper() = default;
  void Keep(const Report& report);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Report> reports_;
};

// Keeps the reports of list requests.
class ReportRecorder : public FileSource::ResultCallbackBufferList, public ReportKeeper {
 public:
  void Callback(CacheSource::Result_t result, std::uint64_t, BufferList*,
                std::uint64_t bytes) override {
    Keep({result, bytes});
  }

 protected:
  ~ReportRecorder() override = default;
};

// Keeps those of transactions.
class StatusRecorder : public CacheTransaction::StatusCallback, public ReportKeeper {
 public:
  void Callback(CacheSource::Result_t result, CacheTransaction*, std::uint64_t bytes) override {
    Keep({result, bytes});
  }

 protected:
  ~StatusRecorder() override = default;
};

// Memory to read into, with its list. Owns one reference of each.
class Target {
 public:
  explicit Target(std::size_t size);
  BufferList* GetList() { return list_; }
  Buffer* GetBuffer() { return buffer_; }
  std::string GetBytes(std::size_t count);
  // How many bytes still are as they were at the start.
  bool IsUntouchedFrom(std::size_t offset);

 private:
  AutoRelease<HeapBuffer> buffer_;
  AutoRelease<BufferList> list_;
  const std::size_t size_;
};

// Caches over heap buffers, and sources in memory.
class CacheFixture : public OrvaneTest {
 protected:
  static constexpr std::size_t kBlock = 4096;

  void TearDown() override;

  // Replaces the cache.
  Cache* MakeCache(std::size_t blocks, std::size_t blockSize = kBlock);
  // A source with the given contents on the cache. Released by TearDown.
  MemorySource* MakeSource(const std::string& contents);
  // Reads on this thread; answers what was read. *report (may be null) becomes the outcome.
  std::string Read(FileSource* source, std::uint64_t offset, std::size_t size,
                   Report* report = nullptr);
  // Waits up to 5 seconds until the condition holds.
  static bool Eventually(const std::function<bool()>& condition);
  void ReleaseCache();
  void ReleaseSources();

  Cache* cache_ = nullptr;
  std::vector<MemorySource*> sources_;
};

}  // namespace Orvane
