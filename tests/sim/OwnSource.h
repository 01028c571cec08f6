// Sources and requests that an application makes itself, past FileSource.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Orvane.h"
#include "OrvaneSimulator.h"
#include "SimBench.h"
#include "SimFileModel.h"

namespace Orvane {

// How an own source answers one read.
enum class OwnAnswer : std::uint8_t {
  kInside,       // completed inside the call
  kWhole,        // the list is filled, the call answers kResultOK
  kLate,         // completed by another thread
  kPieces,       // the same, in pieces, last one first
  kShort,        // the same, half of it, as if the data ended there
  kError,        // the call answers kResultError
  kLateError,    // half of it, then kResultError, by another thread
  kInsideError,  // kResultError inside the call
  kNothing,      // kResultOutOfRange by another thread, whatever was asked for
  kRefuse,       // the call answers kResultNotSupported
  kThrow,        // the call throws
  kBusy,         // no room; asked again later
};

// A source in memory, with the first version of a simulated file as its data. Chooses an answer for
// each read; remembers them.
class OwnSource : public CacheSource {
 public:
  // What it was asked for, and how it went.
  struct Asked {
    std::uint64_t offset;
    std::uint64_t size;
    OwnAnswer answer;
    SimTime begin;
    SimTime end = kSimTimeOpen;
    std::uint64_t dataEnd = kSimTimeOpen;  // that it told its reader
  };

  OwnSource(const SimFileModel* data, std::uint64_t bytes) : data_(data), bytes_(bytes) {}

  // Settings, before it is shared.
  bool gathers = true;
  bool supportsPreReads = false;
  std::function<OwnAnswer(std::uint64_t offset, std::uint64_t size)> choose;  // empty: kInside

  // While it is shut nothing is answered late.
  void SetGate(bool open) { gateIsOpen_ = open; }
  const std::vector<Asked>& GetAsked() const { return asked_; }
  std::uint64_t GetTimesGathersAsked() const { return timesGathersAsked_; }
  std::uint64_t GetPreReads() const { return preReads_; }
  std::uint64_t GetBytes() const { return bytes_; }
  const SimFileModel& GetData() const { return *data_; }
  // A cache is told to cancel, purge or invalidate; requests may fail meanwhile.
  void BeginEvent();
  void EndEvent();
  bool MayFailSince(SimTime begin) const;
  // Whether an answer other than data, given since, explains a failure of the range.
  bool HasRefusedSince(SimTime begin, std::uint64_t offset, std::uint64_t size) const;

  bool CanGatherReads() override;

 protected:
  Result_t ReadTransaction(CacheTransaction* transaction) override;
  void CancelAllTransactions() override;
  void PreReadTransaction(CacheTransaction* transaction) override;
  bool SupportsPreReadTransactions() override { return supportsPreReads; }

 private:
  struct Span {
    SimTime begin;
    SimTime end;
  };

  // Accepted, not yet taken by who ends it.
  struct Outstanding {
    CacheTransaction* transaction;  // one reference
    std::size_t asked;
  };

  void AnswerLater(CacheTransaction* transaction, std::size_t asked);
  bool IsOutstanding(std::size_t asked) const;
  bool Take(std::size_t asked);
  void Give(CacheTransaction* transaction, std::size_t asked);
  void Copy(CacheTransaction* transaction, std::uint64_t from, std::uint64_t to, Result_t result);

  const SimFileModel* const data_;
  const std::uint64_t bytes_;
  bool gateIsOpen_ = true;
  int answering_ = 0;
  std::uint64_t timesGathersAsked_ = 0;
  std::uint64_t preReads_ = 0;
  std::vector<Asked> asked_;
  std::vector<Outstanding> outstanding_;
  std::vector<Span> events_;
};

}  // namespace Orvane
