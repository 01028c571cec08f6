// One asynchronous read of a file source that found everything in its cache.
#pragma once

#include <cstdint>

#include "Cache/Command.h"
#include "Cache/ReportRegistry.h"
#include "FileSource.h"
#include "OSServices/ReportScope.h"

namespace Orvane {

// Copies on the cache's thread for copies, in order of due time, and reports. What was evicted
// before its turn is read like any other miss, so it says nothing about the answer that what it
// asks for is in memory now. What was invalidated before its turn fails, as a read does that waits
// for a block; after hundreds of other invalidations it is thought to have been evicted. Takes no
// way through blocks and transactions: it is one allocation.
//
// Owned by the processor up to Finish, then by its report.
class ResidentReadCommand : public CacheCommand, private DeferredReport {
 public:
  // kResultPending: started. Otherwise nothing has happened, and the read must take the usual way:
  // not all of the range is in memory, or memory is short.
  // REQUIRES: nothing is null, the list is not empty.
  static CacheSource::Result_t Start(FileSource* source, Cache* cache, std::uint64_t offset,
                                     BufferList* list,
                                     FileSource::ResultCallbackBufferList* callback,
                                     std::uint32_t dueTime);

  bool Execute() override;
  void Finish(bool cancelled) override;

 private:
  ResidentReadCommand(FileSource* source, Cache* cache, std::uint64_t offset, BufferList* list,
                      FileSource::ResultCallbackBufferList* callback, std::uint32_t dueTime,
                      std::uint32_t forgottenNumber);
  ~ResidentReadCommand() override;

  void ReadAsMiss();
  void ReleaseList();
  void ReleaseAll();
  void FinishReport() override;

  // One reference each, and one on the cache, or null once they are given up.
  FileSource* source_;
  BufferList* list_;
  FileSource::ResultCallbackBufferList* callback_;
  const std::uint64_t offset_;
  const std::uint32_t forgottenNumber_;
  CacheSource::Result_t result_ = CacheSource::kResultNone;
  ReportRegistry::Entry entry_;  // from the end of the read to that of the report
};

}  // namespace Orvane
