// What a file that is rewritten all the time may show to a read, and how a read may end.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Cache.h"
#include "FileTestTools.h"

namespace Orvane {

void RaiseTo(std::atomic<std::uint64_t>* value, std::uint64_t least);

// Something that goes on at times, on any thread.
class StressEvent {
 public:
  // Ticks of one clock for all events.
  static std::uint64_t Now();

  void Begin() { ++active_; }
  void End() {
    RaiseTo(&lastEnd_, Now());
    --active_;
  }
  // Whether it went on at any moment from `time` to now.
  bool WentOnSince(std::uint64_t time) const { return active_ > 0 || lastEnd_ > time; }

 private:
  std::atomic<std::uint64_t> active_{0};
  std::atomic<std::uint64_t> lastEnd_{0};
};

// An event for the length of a block.
class StressEventScope {
 public:
  explicit StressEventScope(StressEvent* event) : event_(event) { event_->Begin(); }
  ~StressEventScope() { event_->End(); }
  StressEventScope(const StressEventScope&) = delete;
  StressEventScope& operator=(const StressEventScope&) = delete;

 private:
  StressEvent* const event_;
};

// A file whose pages are written as wholes, each write with a new version. Every 8 bytes tell which
// file and position they belong to and which version they are, so a read is checked word by word: a
// mixture of two writes is what two writes at a time may leave, any other word is wrong. Version 0
// is what was never written: zeros.
class StressFile {
 public:
  // A file of `pages` written pages, with room for maxPages.
  StressFile(std::size_t pages, std::size_t maxPages);

  const std::string& Path() const { return file_.Path(); }
  std::size_t MaxPages() const { return pages_.size(); }
  // Bytes. The file ends between the two.
  std::uint64_t LeastEnd() const { return leastEnd_; }
  std::uint64_t MostEnd() const { return mostEnd_; }
  std::uint64_t LeastVersion(std::size_t page) const { return pages_[page].written; }
  std::uint64_t MostVersion(std::size_t page) const { return pages_[page].started; }

  // Who writes claims his pages first: one write to a page at a time. False if one is claimed.
  bool Claim(std::size_t page, std::size_t count);
  void Unclaim(std::size_t page, std::size_t count);
  // For claimed pages. Answers the new version, which from now on may show.
  std::uint64_t BeginWrite(std::size_t page, std::size_t count);
  // From now on nothing older shows.
  void EndWrite(std::size_t page, std::size_t count, std::uint64_t version);

  // The bytes of one version at any position.
  void Fill(unsigned char* data, std::size_t size, std::uint64_t offset,
            std::uint64_t version) const;
  // Whether the bytes at `offset` are of versions from least[k] on, for the page k pages behind the
  // first, up to the most that may show now.
  bool CanHold(const unsigned char* data, std::size_t size, std::uint64_t offset,
               const std::vector<std::uint64_t>& least) const;
  // Whether what is on the disk agrees. REQUIRES: nothing writes.
  bool AgreesWithDisk() const;

 private:
  struct PageState {
    std::atomic<bool> claimed{false};
    std::atomic<std::uint64_t> written{0};
    std::atomic<std::uint64_t> started{0};
  };

  std::uint64_t WordAt(std::uint64_t position, std::uint64_t version) const;
  bool WordCanBe(const unsigned char* data, std::uint64_t position, std::size_t size,
                 std::uint64_t least, std::uint64_t most) const;

  const std::uint64_t number_;
  const TestFile file_;
  std::vector<PageState> pages_;
  std::atomic<std::uint64_t> lastVersion_{0};
  std::atomic<std::uint64_t> leastEnd_;
  std::atomic<std::uint64_t> mostEnd_;
};

// A source and what is known about it. What other sources write to its file does not become visible
// through its cache before it is invalidated.
class StressSource {
 public:
  // What was known when a request began.
  struct Start {
    std::uint64_t time = 0;
    std::uint64_t leastEnd = 0;
    std::vector<std::uint64_t> leastVersions;  // of the pages that it meets
  };

  // `cache` may be null.
  StressSource(std::shared_ptr<StressFile> file, Cache* cache);

  // Without a reference; the caller has one.
  NativeFileSource* Get() const { return source_; }
  StressFile& File() const { return *file_; }
  const std::shared_ptr<StressFile>& SharedFile() const { return file_; }
  bool IsCached() const { return blockSize_ != 0; }

  Start BeginRequest(std::uint64_t offset, std::uint64_t size) const;
  bool MayBeCancelled(const Start& start) const { return cancels_.WentOnSince(start.time); }
  // The test's references: an uncached request goes with the last one.
  void AddHolder() { ++holders_; }
  void RemoveHolder() { --holders_; }
  bool IsAbandoned() const { return holders_ == 0; }
  bool MayBeClosed(const Start& start) const { return closes_.WentOnSince(start.time); }
  // Whether blocks of the range were invalidated since.
  bool MayBeInvalidated(const Start& start, std::uint64_t offset, std::uint64_t size) const;

  // Each with its source, in the calling thread.
  void Cancel();
  void Purge();
  void Invalidate(std::uint64_t offset, std::uint64_t size);
  // False if it did not work. Nothing, and true, while another thread does it.
  bool CloseAndOpen();
  // For good.
  void CloseForGood();

  // Around a call that starts a write of whole pages.
  void BeginStartOfWrite(std::size_t page, std::size_t count);
  void EndStartOfWrite(std::size_t page, std::size_t count);
  // A write through this source has been reported.
  void EndWrite(std::size_t page, std::size_t count, std::uint64_t version);

 private:
  struct PageState {
    StressEvent invalidations;
    std::atomic<std::uint64_t> seen{0};  // the oldest version that its blocks may hold
  };
  struct Known {
    std::uint64_t end;
    std::vector<std::uint64_t> versions;
  };

  std::size_t PagesBehind(std::uint64_t offset, std::uint64_t size) const;
  Known WhatFileHolds(std::size_t page, std::size_t count) const;
  void SeesAtLeast(std::size_t page, const Known& known);

  const std::shared_ptr<StressFile> file_;
  const std::uint64_t blockSize_;  // bytes; 0 without a cache
  NativeFileSource* const source_;
  std::vector<PageState> pages_;
  StressEvent invalidationsBehind_;  // of what lies behind the last page
  std::atomic<std::uint64_t> endSeen_;
  std::atomic<int> holders_{1};
  StressEvent cancels_;
  StressEvent closes_;
  std::mutex opening_;
  std::atomic<bool> closedForGood_{false};
};

}  // namespace Orvane
