#include "OwnRead.h"

#include <algorithm>
#include <new>
#include <string>

namespace Orvane {
namespace {

using Exempt = SimulatorAllocations::Exempt;

constexpr const char* kFile = "tests/sim/OwnRead";

}  // namespace

class OwnRead::Status : public CacheTransaction::StatusCallback {
 public:
  explicit Status(OwnRead* read) : read_(read) {}
  void Callback(CacheSource::Result_t result, CacheTransaction* transaction,
                std::uint64_t bytes) override {
    if (transaction != read_->transaction_) read_->Fail("reported with another transaction");
    read_->Report(result, bytes);
  }

 private:
  OwnRead* const read_;
};

OwnRead::OwnRead(SimSource* source, std::uint64_t offset, std::uint64_t size)
    : source_(source), offset_(offset), size_(size), memory_(size, 2, /*whole=*/false) {}

OwnRead::~OwnRead() {
  if (!memory_.IsUntouched()) Fail("memory was written to after the report");
  Release();
}

bool OwnRead::Make() {
  try {
    for (const auto& [address, length] : memory_.GetPieces()) {
      buffers_.reserve(buffers_.size() + 1);
      buffers_.push_back(new HostBuffer(address, length));
    }
    list_ = new BufferList(buffers_.size());
    for (Buffer* const buffer : buffers_) list_->AddBuffer(buffer, /*adoptReference=*/false);
    status_ = new Status(this);
    transaction_ = new CacheTransaction;
    return transaction_->Setup(source_->Get(), offset_, list_, status_, CacheSource::kDueASAP,
                               MTThread::kPriorityNormal);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void OwnRead::Release() {
  if (transaction_ && !transaction_->Cleanup()) Fail("still used though it is over");
  if (transaction_) transaction_->DecRef(kFile, "Orvane::OwnRead::Release", __LINE__);
  if (status_) status_->DecRef(kFile, "Orvane::OwnRead::Release", __LINE__);
  if (list_ && list_->GetRefCount() != 1) Fail("the list is still referenced");
  if (list_) list_->DecRef(kFile, "Orvane::OwnRead::Release", __LINE__);
  for (Buffer* const buffer : buffers_) {
    buffer->DecRef(kFile, "Orvane::OwnRead::Release", __LINE__);
  }
}

void OwnRead::Start(Cache* cache, std::uint64_t sinceMicro) {
  sinceMicro_ = sinceMicro;
  hasBlocks_ = cache->GetBlockSize() != 0;
  if (!Make()) {
    if (Simulator::GetFaults() == 0) Fail("a transaction cannot be made");
    isOver_ = true;
    return;
  }
  const CacheSource::Result_t result = cache->Read(transaction_);
  if (result == CacheSource::kResultPending) return;
  if (result == CacheSource::kResultNotSupported) Fail("refused without a reason");
  if (reports_ != 1 || result_ != result) Fail("refused, but not reported");
}

void OwnRead::Report(CacheSource::Result_t result, std::uint64_t bytes) {
  Simulator::Step();
  const Exempt exempt;
  if (reports_++ != 0) Fail("reported twice");
  result_ = result;
  bytes_ = bytes;
  switch (result) {
    case CacheSource::kResultOK:
    case CacheSource::kResultPartial:
    case CacheSource::kResultOutOfRange:
      CheckData(bytes);
      break;
    case CacheSource::kResultFailed:  // the cache goes
      if (bytes != 0) Fail("failed with bytes");
      break;
    case CacheSource::kResultError:
      if (!hasBlocks_ || Simulator::GetFaults() != 0) break;
      if (Simulator::GetTimeMicro() - sinceMicro_ >= kMostQueueMicros) break;
      Fail("an error without a reason");
      break;
    default:
      Fail("an impossible result");
  }
  if (!memory_.IsIntactAround()) Fail("somebody wrote beside the buffers");
  memory_.LetGo(SimMemory::Afterwards::kWatch);
  isOver_ = true;
}

void OwnRead::CheckData(std::uint64_t bytes) const {
  const SimTime now = Simulator::GetStep();
  const std::uint64_t end = source_->File().LeastEnd(now);
  const std::uint64_t there = end <= offset_ ? 0 : std::min(end - offset_, size_);
  if (bytes != there) Fail("wrong end of the data");
  if ((result_ == CacheSource::kResultOK) != (bytes == size_)) {
    Fail("result and bytes do not agree");
  }
  const std::vector<unsigned char> data = memory_.Gather(bytes);
  const std::string wrong = source_->File().Check(data.data(), bytes, offset_, now, now);
  if (!wrong.empty()) Fail(wrong.c_str());
}

void OwnRead::Fail(const char* what) const {
  const Exempt exempt;
  Simulator::Fail(std::string(what) + ": a transaction of " + std::to_string(size_) + " bytes at " +
                  std::to_string(offset_) + " of " + source_->File().Name() + ", result " +
                  std::to_string(result_) + ", " + std::to_string(bytes_) + " bytes");
}

OwnReads::~OwnReads() {
  Simulator::WaitUntil([this] { return AreOver(); });
  Simulator::Settle();
}

void OwnReads::Start(Cache* cache, SimSource& source, std::uint64_t offset, std::uint64_t size) {
  OwnRead* read = nullptr;
  {
    const Exempt exempt;
    if (reads_.empty()) sinceMicro_ = Simulator::GetTimeMicro();
    reads_.push_back(std::make_unique<OwnRead>(&source, offset, size));
    read = reads_.back().get();
  }
  source.NoteOtherRead();
  read->Start(cache, sinceMicro_);
}

void OwnReads::RequireOver(const char* when) const {
  if (!AreOver()) Simulator::Fail(std::string("a transaction is not over when ") + when);
}

bool OwnReads::AreOver() const {
  return std::all_of(reads_.begin(), reads_.end(), [](const auto& read) { return read->IsOver(); });
}

}  // namespace Orvane
