// What a scenario of the simulator is made of, and what is checked of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Orvane.h"
#include "OrvaneSimulator.h"
#include "SimCalm.h"
#include "SimFileModel.h"
#include "SimMemory.h"

namespace Orvane {

class SimBench;
class SimRequest;
class SimSource;

// Thrown out of the bench when something that the scenario stands on could not be made because the
// host was made to fail; ends the scenario early, which is no failure.
struct SimSetupFailed {};

// Whether anything has failed so far for which a call may fail in turn: one that comes short goes
// on with the rest.
inline bool HostHasFailed() {
  return Simulator::GetFaults() > SimulatedFiles::GetShortTransfers();
}

// How a request is made.
struct SimRequestForm {
  std::size_t pieces = 1;  // more than one: as a list
  bool asList = false;     // also with one piece
  bool anywhere = false;   // memory need not be page-aligned (cached reads only)
  std::uint32_t dueTime = 0;
  bool mayBeBusy = false;        // more requests than slots are in flight
  bool onLibraryThread = false;  // a synchronous call that must be refused
  // Runs inside the report, after it was checked, between two steps. May throw.
  std::function<void(SimRequest&)> onReport;
};

// A read or write, from its start to its report.
class SimRequest {
 public:
  bool IsWrite() const { return isWrite_; }
  std::uint64_t Offset() const { return offset_; }
  std::uint64_t Size() const { return size_; }
  // Reported, or refused at its start.
  bool IsOver() const { return isOver_; }
  // What it was started or reported with last.
  CacheSource::Result_t Result() const { return result_; }
  std::uint64_t Bytes() const { return bytes_; }
  SimSource& Source() const { return *source_; }

 private:
  friend class SimBench;
  friend class SimSource;
  class BufferCallback;
  class ListCallback;

  SimRequest(SimSource* source, bool isWrite, std::uint64_t offset, std::uint64_t size,
             const SimRequestForm& form);

  void Start();
  void RunSynchronously();
  void Prepare();
  bool MakeObjects();
  CacheSource::Result_t StartWithList();
  CacheSource::Result_t StartWithBuffer();
  void Report(CacheSource::Result_t result, std::uint64_t offset, std::uint64_t bytes);
  void CheckRefusal();
  void CheckOutcome();
  void CheckBytes();
  void CheckUnlocked();
  void End();
  bool MayFail() const;
  bool MayHaveWaitedTooLong() const;
  [[noreturn]] void Fail(const std::string& what) const;
  std::string ToText() const;
  void Note(const char* what) const;
  void CheckAtEnd();

  SimSource* const source_;
  const bool isWrite_;
  const std::uint64_t offset_;
  const std::uint64_t size_;
  const SimRequestForm form_;
  std::unique_ptr<SimMemory> memory_;
  SimMemory::Afterwards afterwards_;
  std::uint64_t version_ = 0;
  SimTime begin_ = 0;
  std::size_t writeEvent_ = 0;  // of its source
  SimTime end_ = kSimTimeOpen;
  std::uint64_t beginMicro_ = 0;
  SimTime accepted_ = kSimTimeOpen;  // when its start had returned
  bool isOver_ = false;
  int reports_ = 0;
  CacheSource::Result_t result_ = CacheSource::kResultNone;
  std::uint64_t bytes_ = 0;
  // One reference each, until the end of the run.
  BufferList* list_ = nullptr;
  std::vector<Buffer*> buffers_;
  SharedObject* callback_ = nullptr;
};

// A file source of one file, with or without a cache, and what was done with it. Every operation
// calls the source's in the calling thread.
class SimSource {
 public:
  NativeFileSource* Get() const { return source_; }
  SimFileModel& File() const { return *file_; }
  Cache* GetCache() const { return cache_; }

  SimRequest& Read(std::uint64_t offset, std::uint64_t size, SimRequestForm form = {});
  SimRequest& Write(std::uint64_t offset, std::uint64_t size, SimRequestForm form = {});
  SimRequest& ReadNow(std::uint64_t offset, std::uint64_t size, SimRequestForm form = {});
  SimRequest& WriteNow(std::uint64_t offset, std::uint64_t size, SimRequestForm form = {});
  void PreRead(std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime = 0);
  // Somebody reads it past the bench; a request that waits too long fails the others of its file.
  void NoteOtherRead();
  void Cancel();
  void Purge();
  void Invalidate(std::uint64_t offset, std::uint64_t size);
  bool Close();
  bool Open(bool forRead = true, bool forWrite = true);
  // Closes it too. Answers whether the file is gone.
  bool Delete();
  // Gives up the bench's reference; nothing is to be called after it.
  void Release();
  bool IsReleased() const { return released_; }

 private:
  friend class SimBench;
  friend class SimRequest;

  // From its beginning to its end other requests of the source may fail.
  struct Event {
    SimTime begin;
    SimTime end;
    bool everything;       // else: of the range, and with a cache only
    bool closes;           // requests may also be refused
    std::uint64_t offset;  // of blocks
    std::uint64_t size;
    SimTime forgetsBefore;  // nothing that was read before it is shown by a later read
  };

  SimSource(SimBench* bench, SimFileModel* file, Cache* cache);
  std::size_t BeginEvent(bool everything, bool closes, std::uint64_t offset, std::uint64_t size);
  void EndEvent(std::size_t event);
  void ForgetFrom(std::size_t write);
  bool IsAlone(std::size_t event) const;
  void CheckReported(SimTime acceptedBy) const;
  SimRequest& Make(bool isWrite, std::uint64_t offset, std::uint64_t size, SimRequestForm form,
                   bool wait);
  bool MayFailSince(SimTime begin, std::uint64_t offset, std::uint64_t size) const;
  bool MayBeRefusedSince(SimTime begin) const;
  SimTime ShowsFrom(SimTime begin, std::uint64_t offset, std::uint64_t size) const;
  SimTime ShowsEndFrom(SimTime begin) const;

  SimBench* const bench_;
  SimFileModel* const file_;
  Cache* const cache_;
  NativeFileSource* source_ = nullptr;
  bool released_ = false;
  bool forRead_ = false;
  bool forWrite_ = false;
  bool isOpen_ = false;   // false also where nobody knows
  bool isWhole_ = false;  // nothing failed while it was opened
  std::vector<Event> events_;
  std::vector<std::uint64_t> otherReads_;  // when they were asked for, microseconds
};

// Everything of one run. A scenario makes one, does its work and calls Finish.
class SimBench {
 public:
  SimBench();
  ~SimBench();
  SimBench(const SimBench&) = delete;
  SimBench& operator=(const SimBench&) = delete;

  SimFileModel& NewFile(std::uint64_t bytes);
  // Has one reference of the bench. Null if memory is short.
  Cache* NewCache(std::uint64_t blockBytes, std::size_t blocks);
  // Open for reading and writing.
  SimSource& NewSource(SimFileModel& file, Cache* cache = nullptr);
  // Closed.
  SimSource& NewClosedSource(SimFileModel& file, Cache* cache = nullptr);
  void ReleaseCache(Cache* cache);

  void Await(const SimRequest& request);
  void AwaitAll();
  std::size_t CountOpen() const;
  // Results that would be wrong otherwise are expected: the disk is full, a file was deleted, ...
  void ExpectErrors() { expectsErrors_ = true; }

  // Ends the faults, waits for everything, reads what can be read, releases everything, checks
  // everything.
  void Finish();

 private:
  friend class SimRequest;
  friend class SimSource;

  std::vector<std::unique_ptr<SimFileModel>> files_;
  std::vector<std::unique_ptr<SimSource>> sources_;
  std::vector<std::unique_ptr<SimRequest>> requests_;
  std::vector<Cache*> caches_;
  std::vector<const Cache*> shortCaches_;  // something failed while they were made
  // Whether the calling thread is inside of a report of a request.
  bool IsReporting() const;
  // Whether a request may fail because the host did, now or before.
  bool IsExcused() const { return (!faultsAreOver_ && HostHasFailed()) || expectsErrors_; }
  void ReadEverything();

  std::vector<std::int64_t> reporting_;  // threads, once per report
  bool expectsErrors_ = false;
  bool forbidsMemory_ = false;
  bool faultsAreOver_ = false;
};

}  // namespace Orvane
