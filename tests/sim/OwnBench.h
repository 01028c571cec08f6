// Requests that an application makes itself, through Cache::Read, and what is checked of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Orvane.h"
#include "OwnSource.h"
#include "SimBench.h"

namespace Orvane {

class OwnBench;

// How an OwnReader reads.
struct OwnForm {
  std::size_t pieces = 1;
  std::uint32_t dueTime = CacheSource::kDueASAP;
  bool cleansInside = false;  // Cleanup inside the report
  bool doesNotLock = false;   // the first buffer refuses to be locked
  bool mayFail = false;       // also where nothing explains it
};

// A transaction that is read with again and again, one request at a time.
class OwnReader {
 public:
  ~OwnReader();
  OwnReader(const OwnReader&) = delete;
  OwnReader& operator=(const OwnReader&) = delete;

  // Answers what Cache::Read did.
  CacheSource::Result_t Start(std::uint64_t offset, std::uint64_t size, const OwnForm& form = {});
  bool IsOver() const { return isOver_; }
  CacheSource::Result_t Result() const { return result_; }
  SimTime GetEnd() const { return end_; }
  // Tries what is refused while a cache uses the transaction.
  void Disturb();
  // Gives up the bench's reference; the reader cannot be started again.
  void ReleaseTransaction();

 private:
  friend class OwnBench;
  class Told;
  struct Use;

  OwnReader(Cache* cache, OwnSource* source);
  bool MakeObjects(std::uint64_t size, const OwnForm& form);
  void CheckRefusal(CacheSource::Result_t result);
  void Report(CacheTransaction* transaction, CacheSource::Result_t result, std::uint64_t bytes);
  void Check();
  void CheckBytes();
  void Finish();
  [[noreturn]] void Fail(const std::string& what) const;

  Cache* const cache_;
  OwnSource* const source_;
  const std::uint64_t blockBytes_;
  CacheTransaction* transaction_ = nullptr;
  Told* callback_ = nullptr;
  std::vector<std::unique_ptr<Use>> uses_;
  std::uint64_t offset_ = 0;
  std::uint64_t size_ = 0;
  OwnForm form_;
  SimTime begin_ = 0;
  SimTime accepted_ = 0;
  SimTime end_ = 0;
  bool isOver_ = true;
  CacheSource::Result_t result_ = CacheSource::kResultNone;
  std::uint64_t bytes_ = 0;
};

// Own sources, caches and readers of a run. At its end it waits for all, checks and releases them.
class OwnBench {
 public:
  explicit OwnBench(SimBench* bench) : bench_(bench) {}
  ~OwnBench();
  OwnBench(const OwnBench&) = delete;
  OwnBench& operator=(const OwnBench&) = delete;

  // Of heap buffers: own sources need no pages. One reference for the caller.
  static BufferFactory* NewFactory(std::uint64_t blockBytes, std::size_t blocks);
  Cache* NewCacheOver(BufferFactory* factory);
  Cache* NewCache(std::uint64_t blockBytes, std::size_t blocks);
  void ReleaseCache(Cache* cache);
  OwnSource* NewSource(std::uint64_t bytes);
  OwnReader& NewReader(Cache* cache, OwnSource* source);
  void AwaitAll();
  void Cancel(Cache* cache, OwnSource* source);

 private:
  friend class OwnReader;

  SimBench* const bench_;
  std::vector<Cache*> caches_;
  std::vector<OwnSource*> sources_;
  std::vector<std::unique_ptr<OwnReader>> readers_;
};

}  // namespace Orvane
