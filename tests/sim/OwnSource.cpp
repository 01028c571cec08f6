#include "OwnSource.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

namespace Orvane {
namespace {

using Exempt = SimulatorAllocations::Exempt;

constexpr const char* kFile = "tests/sim/OwnSource";

bool IsRefusedAtOnce(OwnAnswer answer) {
  return answer == OwnAnswer::kError || answer == OwnAnswer::kRefuse || answer == OwnAnswer::kThrow;
}

bool IsRefusal(OwnAnswer answer) {
  return IsRefusedAtOnce(answer) || answer == OwnAnswer::kLateError ||
         answer == OwnAnswer::kInsideError;
}

}  // namespace

void OwnSource::BeginEvent() {
  const Exempt exempt;
  events_.push_back({Simulator::GetStep(), kSimTimeOpen});
}

void OwnSource::EndEvent() {
  for (Span& event : events_) {
    if (event.end == kSimTimeOpen) event.end = Simulator::GetStep();
  }
}

bool OwnSource::MayFailSince(SimTime begin) const {
  return std::any_of(events_.begin(), events_.end(),
                     [begin](const Span& event) { return event.end >= begin; });
}

bool OwnSource::HasRefusedSince(SimTime begin, std::uint64_t offset, std::uint64_t size) const {
  return std::any_of(asked_.begin(), asked_.end(), [=](const Asked& asked) {
    return IsRefusal(asked.answer) && asked.end >= begin && asked.offset < offset + size &&
           offset < asked.offset + asked.size;
  });
}

bool OwnSource::CanGatherReads() {
  ++timesGathersAsked_;
  return gathers;
}

CacheSource::Result_t OwnSource::ReadTransaction(CacheTransaction* transaction) {
  Simulator::Step();
  const std::uint64_t offset = transaction->GetOffset();
  const std::uint64_t size = transaction->GetSize();
  OwnAnswer answer = choose ? choose(offset, size) : OwnAnswer::kInside;
  if (answer == OwnAnswer::kBusy) return kResultBusy;
  // There is no whole answer past the end.
  if (answer == OwnAnswer::kWhole && offset + size > bytes_) answer = OwnAnswer::kInside;
  // One is asked for after the other: what was refused before has come to its end.
  for (Asked& earlier : asked_) {
    if (IsRefusedAtOnce(earlier.answer) && earlier.end == kSimTimeOpen) {
      earlier.end = Simulator::GetStep();
    }
  }
  std::size_t number = 0;
  {
    const Exempt exempt;
    number = asked_.size();
    asked_.push_back({offset, size, answer, Simulator::GetStep()});
  }
  switch (answer) {
    case OwnAnswer::kError:
      return kResultError;
    case OwnAnswer::kRefuse:
      return kResultNotSupported;
    case OwnAnswer::kThrow:
      throw std::runtime_error("the source does not want to");
    case OwnAnswer::kInside:
    case OwnAnswer::kInsideError: {
      SharedObjectAutoRef keep(transaction);
      Give(transaction, number);
      return kResultPending;
    }
    case OwnAnswer::kWhole:
      for (std::uint64_t done = 0; done < size;) {
        std::uint64_t at = 0;
        std::uint64_t there = 0;
        Buffer* const buffer = transaction->GetBufferAtOffset(offset + done, &at, &there);
        data_->Fill(static_cast<unsigned char*>(buffer->GetAddress()) + at, there, offset + done,
                    1);
        done += there;
      }
      asked_[number].end = Simulator::GetStep();
      return kResultOK;
    default:
      AnswerLater(transaction, number);
      return kResultPending;
  }
}

void OwnSource::AnswerLater(CacheTransaction* transaction, std::size_t asked) {
  transaction->AddRef(kFile, "Orvane::OwnSource::AnswerLater", __LINE__);
  AddRef(kFile, "Orvane::OwnSource::AnswerLater", __LINE__);
  const Exempt exempt;
  outstanding_.push_back({transaction, asked});
  const auto sleepMs = static_cast<std::uint32_t>(Simulator::Random(4) * Simulator::Random(10));
  Simulator::Spawn([this, transaction, asked, sleepMs] {
    if (sleepMs > 0) MTInterface::Sleep(sleepMs);
    Simulator::WaitUntil([this, asked] { return gateIsOpen_ || !IsOutstanding(asked); });
    if (Take(asked)) {
      ++answering_;
      Give(transaction, asked);
      --answering_;
      transaction->DecRef(kFile, "Orvane::OwnSource::AnswerLater", __LINE__);
    } else {
      asked_[asked].end = Simulator::GetStep();
    }
    DecRef(kFile, "Orvane::OwnSource::AnswerLater", __LINE__);
  });
}

bool OwnSource::IsOutstanding(std::size_t asked) const {
  return std::any_of(outstanding_.begin(), outstanding_.end(),
                     [asked](const Outstanding& entry) { return entry.asked == asked; });
}

// Whoever takes it ends it, and has its reference.
bool OwnSource::Take(std::size_t asked) {
  return std::erase_if(outstanding_,
                       [asked](const Outstanding& entry) { return entry.asked == asked; }) == 1;
}

void OwnSource::Give(CacheTransaction* transaction, std::size_t asked) {
  const OwnAnswer answer = asked_[asked].answer;
  const std::uint64_t offset = asked_[asked].offset;
  const std::uint64_t end = offset + asked_[asked].size;
  const std::uint64_t half = offset + asked_[asked].size / 2;
  std::uint64_t dataEnd = std::clamp(bytes_, offset, end);
  if (answer == OwnAnswer::kShort) dataEnd = std::min(dataEnd, half);
  if (answer == OwnAnswer::kNothing) dataEnd = offset;
  asked_[asked].dataEnd = dataEnd;
  const Result_t last = dataEnd < end ? kResultPartial : kResultOK;
  if (answer == OwnAnswer::kInsideError) {
    transaction->SetResult(kResultError);
  } else if (answer == OwnAnswer::kLateError) {
    Copy(transaction, offset, half, kResultOK);
    transaction->SetResult(kResultError);
  } else if (dataEnd == offset) {
    transaction->Complete(offset, 0, kResultOutOfRange);
  } else if (answer == OwnAnswer::kPieces) {
    const std::uint64_t first = offset + 1 + Simulator::Random(dataEnd - offset);
    if (first < dataEnd) Copy(transaction, first, dataEnd, last);
    Simulator::Step();
    Copy(transaction, offset, first, first < dataEnd ? kResultOK : last);
  } else {
    Copy(transaction, offset, dataEnd, last);
  }
  asked_[asked].end = Simulator::GetStep();
}

void OwnSource::Copy(CacheTransaction* transaction, std::uint64_t from, std::uint64_t to,
                     Result_t result) {
  std::vector<unsigned char> data;
  {
    const Exempt exempt;
    data.resize(to - from);
    data_->Fill(data.data(), data.size(), from, 1);
  }
  transaction->CopyInto(data.data(), from, data.size(), result, nullptr, nullptr);
}

void OwnSource::CancelAllTransactions() {
  std::vector<Outstanding> taken;
  {
    const Exempt exempt;
    taken.swap(outstanding_);
  }
  for (const auto& [transaction, asked] : taken) {
    transaction->SetResult(kResultFailed);
    transaction->DecRef(kFile, "Orvane::OwnSource::CancelAllTransactions", __LINE__);
  }
  Simulator::WaitUntil([this] { return answering_ == 0; });
}

void OwnSource::PreReadTransaction(CacheTransaction*) {
  ++preReads_;
}

}  // namespace Orvane
