#include "OwnBench.h"

#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "OrvaneSimulator.h"
#include "SimMemory.h"

namespace Orvane {
namespace {

using Exempt = SimulatorAllocations::Exempt;

constexpr const char* kFile = "tests/sim/OwnBench";

class BufferThatDoesNotLock : public HostBuffer {
 public:
  using HostBuffer::HostBuffer;
  LockState_t Lock() override { return kBufferUnlocked; }
};

}  // namespace

class OwnReader::Told : public CacheTransaction::StatusCallback {
 public:
  explicit Told(OwnReader* reader) : reader_(reader) {}
  void Callback(CacheSource::Result_t result, CacheTransaction* transaction,
                std::uint64_t bytes) override {
    reader_->Report(transaction, result, bytes);
  }

 private:
  OwnReader* const reader_;
};

// The memory of one request.
struct OwnReader::Use {
  Use(std::uint64_t size, const OwnForm& form) : memory(size, form.pieces, /*whole=*/false) {}

  // Throws when memory is short.
  void MakeList(bool doesNotLock) {
    list = new BufferList;
    for (const auto& [address, length] : memory.GetPieces()) {
      Buffer* const buffer = doesNotLock ? new BufferThatDoesNotLock(address, length)
                                         : new HostBuffer(address, length);
      doesNotLock = false;
      try {
        list->AddBuffer(buffer, /*adoptReference=*/false);
      } catch (...) {
        buffer->DecRef(kFile, "Orvane::OwnReader::Use::MakeList", __LINE__);
        throw;
      }
      buffer->DecRef(kFile, "Orvane::OwnReader::Use::MakeList", __LINE__);
    }
  }

  SimMemory memory;
  BufferList* list = nullptr;  // one reference
};

OwnReader::OwnReader(Cache* cache, OwnSource* source)
    : cache_(cache), source_(source), blockBytes_(cache->GetBlockSize()) {}

OwnReader::~OwnReader() = default;

CacheSource::Result_t OwnReader::Start(std::uint64_t offset, std::uint64_t size,
                                       const OwnForm& form) {
  if (!isOver_) Fail("the scenario starts a reader that is busy");
  if (!MakeObjects(size, form)) {
    if (Simulator::GetFaults() == 0) Fail("a transaction cannot be loaded");
    return result_ = CacheSource::kResultError;
  }
  offset_ = offset;
  size_ = size;
  form_ = form;
  if (!transaction_->Setup(source_, offset, uses_.back()->list, callback_, form.dueTime,
                           MTThread::kPriorityNormal)) {
    if (Simulator::GetFaults() == 0) Fail("a transaction cannot be loaded");
    return result_ = CacheSource::kResultError;
  }
  isOver_ = false;
  begin_ = Simulator::GetStep();
  accepted_ = kSimTimeOpen;
  const CacheSource::Result_t result = cache_->Read(transaction_);
  accepted_ = Simulator::GetStep();
  if (result != CacheSource::kResultPending) CheckRefusal(result);
  return result;
}

bool OwnReader::MakeObjects(std::uint64_t size, const OwnForm& form) {
  {
    const Exempt exempt;
    uses_.push_back(std::make_unique<Use>(size, form));
  }
  try {
    if (!callback_) callback_ = new Told(this);
    if (!transaction_) transaction_ = new CacheTransaction;
    uses_.back()->MakeList(form.doesNotLock);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// Refused with its answer as the result: the callback has run.
void OwnReader::CheckRefusal(CacheSource::Result_t result) {
  if (result == CacheSource::kResultNotSupported) {
    if (isOver_) Fail("reported although it was refused");
    Fail("refused without a reason");
  }
  if (!isOver_) Fail("refused, and not reported");
  if (result_ != result) Fail("refused with one result and reported with another");
}

void OwnReader::Disturb() {
  if (!transaction_ || isOver_) return;
  switch (Simulator::Random(3)) {
    case 0:
      // It may be reported meanwhile; then it is loaded no more.
      if (transaction_->Cleanup() && !isOver_) Fail("cleaned while it was in use");
      break;
    case 1:
      if (transaction_->Setup(nullptr, 0, nullptr, nullptr, 0, MTThread::kPriorityNormal)) {
        Fail("loaded without a source");
      }
      if (!isOver_ && transaction_->GetSource() == nullptr) Fail("loaded while it was in use");
      break;
    default:
      if (cache_->Read(transaction_) == CacheSource::kResultPending) Fail("started twice");
      break;
  }
}

void OwnReader::ReleaseTransaction() {
  if (!transaction_) return;
  std::exchange(transaction_, nullptr)
      ->DecRef(kFile, "Orvane::OwnReader::ReleaseTransaction", __LINE__);
}

// In the transaction's lock.
void OwnReader::Report(CacheTransaction* transaction, CacheSource::Result_t result,
                       std::uint64_t bytes) {
  Simulator::Step();
  if (transaction_ && transaction != transaction_) Fail("reported with another transaction");
  if (isOver_) Fail("reported twice");
  result_ = result;
  bytes_ = bytes;
  end_ = Simulator::GetStep();
  Check();
  {
    const Exempt exempt;
    uses_.back()->memory.LetGo(SimMemory::Afterwards::kWatch);
  }
  if (form_.cleansInside && !transaction->Cleanup()) Fail("in use inside its report");
  isOver_ = true;
  Simulator::Step();
}

void OwnReader::Check() {
  if (!uses_.back()->memory.IsIntactAround()) Fail("somebody wrote beside the buffers");
  const bool excused = Simulator::GetFaults() > 0 || form_.mayFail;
  const bool refused = source_->HasRefusedSince(begin_, offset_, size_);
  switch (result_) {
    case CacheSource::kResultOK:
    case CacheSource::kResultPartial:
    case CacheSource::kResultOutOfRange:
      if ((result_ == CacheSource::kResultOK) != (bytes_ == size_ && size_ > 0) ||
          (result_ == CacheSource::kResultOutOfRange) != (bytes_ == 0)) {
        Fail("result and bytes do not agree");
      }
      CheckBytes();
      return;
    case CacheSource::kResultFailed:
      if (bytes_ != 0) Fail("failed with bytes");
      if (!excused && !refused && !source_->MayFailSince(begin_)) Fail("failed without a reason");
      return;
    case CacheSource::kResultError:
      if (excused || refused || form_.doesNotLock) return;
      Fail("an error without a reason");
    default:
      Fail("an impossible result");
  }
}

void OwnReader::CheckBytes() {
  if (form_.doesNotLock && bytes_ > 0) Fail("copied into a buffer that does not lock");
  const std::uint64_t end = offset_ + bytes_;
  const std::uint64_t dataEnd = source_->GetBytes();
  bool isRight = end == std::clamp(dataEnd, offset_, offset_ + size_);
  for (const OwnSource::Asked& asked : source_->GetAsked()) {
    const std::uint64_t askedEnd = asked.offset + asked.size;
    // What the source told of the end, or where a block begins that has nothing of it.
    const bool isThere = end == asked.dataEnd ||
                         (end > asked.dataEnd && end < askedEnd && end % blockBytes_ == 0) ||
                         (bytes_ == 0 && end > asked.dataEnd && end < askedEnd);
    isRight = isRight || (asked.dataEnd < askedEnd && isThere);
  }
  if (!isRight) Fail("wrong end of the data");
  const Exempt exempt;
  const std::vector<unsigned char> data = uses_.back()->memory.Gather(bytes_);
  const std::string wrong =
      source_->GetData().Check(data.data(), data.size(), offset_, 0, Simulator::GetStep());
  if (!wrong.empty()) Fail(wrong);
}

void OwnReader::Finish() {
  if (!isOver_) Fail("never reported");
  if (transaction_) {
    if (transaction_->GetRefCount() != 1) Fail("the transaction is still referenced");
    if (!transaction_->Cleanup()) Fail("still in use");
    ReleaseTransaction();
  }
  for (const auto& use : uses_) {
    if (!use->memory.IsUntouched()) Fail("memory was written to after the report");
    if (!use->list) continue;
    if (use->list->GetRefCount() != 1) Fail("the list is still referenced");
    use->list->DecRef(kFile, "Orvane::OwnReader::Finish", __LINE__);
  }
  if (!callback_) return;
  if (callback_->GetRefCount() != 1) Fail("the callback is still referenced");
  callback_->DecRef(kFile, "Orvane::OwnReader::Finish", __LINE__);
}

void OwnReader::Fail(const std::string& what) const {
  const Exempt exempt;
  Simulator::Fail(what + ": an own read of " + std::to_string(size_) + " bytes at " +
                  std::to_string(offset_) + ", begun at step " + std::to_string(begin_) +
                  ", result " + std::to_string(result_) + ", " + std::to_string(bytes_) + " bytes");
}

OwnBench::~OwnBench() {
  Simulator::StopFaults();
  for (OwnSource* const source : sources_) source->SetGate(true);
  AwaitAll();
  Simulator::Settle();
  while (!caches_.empty()) ReleaseCache(caches_.back());
  Simulator::Settle();
  for (const auto& reader : readers_) reader->Finish();
  for (OwnSource* const source : sources_) {
    if (source->GetRefCount() != 1) Simulator::Fail("an own source is still referenced");
    source->DecRef(kFile, "Orvane::OwnBench::~OwnBench", __LINE__);
  }
  const Exempt exempt;
  readers_.clear();
  sources_.clear();
  sources_.shrink_to_fit();
  caches_.shrink_to_fit();
}

BufferFactory* OwnBench::NewFactory(std::uint64_t blockBytes, std::size_t blocks) {
  BufferFactory* factory = nullptr;
  try {
    factory = new BufferFactoryHeap;
    factory->Initialize(blockBytes, blocks, blocks, 0);
    return factory;
  } catch (const std::bad_alloc&) {
    if (Simulator::GetFaults() == 0) Simulator::Fail("a factory cannot be made");
    if (factory) factory->DecRef(kFile, "Orvane::OwnBench::NewFactory", __LINE__);
    throw SimSetupFailed();
  }
}

Cache* OwnBench::NewCacheOver(BufferFactory* factory) {
  try {
    Cache* const cache = new Cache(factory);
    const Exempt exempt;
    caches_.push_back(cache);
    return cache;
  } catch (...) {
    // Memory or threads are short.
    if (Simulator::GetFaults() == 0) Simulator::Fail("a cache cannot be made");
    throw SimSetupFailed();
  }
}

Cache* OwnBench::NewCache(std::uint64_t blockBytes, std::size_t blocks) {
  BufferFactory* const factory = NewFactory(blockBytes, blocks);
  try {
    Cache* const cache = NewCacheOver(factory);
    factory->DecRef(kFile, "Orvane::OwnBench::NewCache", __LINE__);
    return cache;
  } catch (...) {
    factory->DecRef(kFile, "Orvane::OwnBench::NewCache", __LINE__);
    throw;
  }
}

void OwnBench::ReleaseCache(Cache* cache) {
  {
    const Exempt exempt;
    std::erase(caches_, cache);
  }
  for (OwnSource* const source : sources_) source->BeginEvent();
  cache->DecRef(kFile, "Orvane::OwnBench::ReleaseCache", __LINE__);
  for (OwnSource* const source : sources_) source->EndEvent();
}

OwnSource* OwnBench::NewSource(std::uint64_t bytes) {
  SimFileModel& data = bench_->NewFile(bytes);
  try {
    auto* const source = new OwnSource(&data, bytes);
    const Exempt exempt;
    sources_.push_back(source);
    return source;
  } catch (const std::bad_alloc&) {
    throw SimSetupFailed();
  }
}

OwnReader& OwnBench::NewReader(Cache* cache, OwnSource* source) {
  const Exempt exempt;
  readers_.push_back(std::unique_ptr<OwnReader>(new OwnReader(cache, source)));
  return *readers_.back();
}

void OwnBench::AwaitAll() {
  Simulator::WaitUntil([this] {
    return std::all_of(readers_.begin(), readers_.end(),
                       [](const auto& reader) { return reader->IsOver(); });
  });
}

// Not inside a callback: there a cancel does not wait for reports on other threads.
void OwnBench::Cancel(Cache* cache, OwnSource* source) {
  const SimTime begin = Simulator::GetStep();
  source->BeginEvent();
  cache->Cancel(source);
  source->EndEvent();
  for (const auto& reader : readers_) {
    const bool concerned =
        reader->cache_ == cache && reader->source_ == source && reader->accepted_ <= begin;
    if (concerned && !reader->isOver_) reader->Fail("unreported at the end of a cancel");
  }
}

}  // namespace Orvane
