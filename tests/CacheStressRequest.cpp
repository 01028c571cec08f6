#include "CacheStressRequest.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr unsigned char kGap = 0x3C;
constexpr unsigned char kPoison = 0xA5;
constexpr std::size_t kFindingsKept = 20;
constexpr std::size_t kOddGap = 24;

bool AllAre(const unsigned char* data, std::size_t size, unsigned char value) {
  return std::all_of(data, data + size, [value](unsigned char byte) { return byte == value; });
}

// The callback objects. Each keeps its request.
class ListCallback : public FileSource::ResultCallbackBufferList {
 public:
  explicit ListCallback(std::shared_ptr<StressRequest> request) : request_(std::move(request)) {}
  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override {
    bool locked = false;
    for (std::size_t k = 0; k < list->GetNumberOfBuffers(); ++k) {
      locked = locked || list->GetBuffer(k)->GetLockState() == Buffer::kBufferLocked;
    }
    request_->Report(locked ? CacheSource::kResultLockFailed : result, offset, bytes);
  }

 protected:
  ~ListCallback() override = default;

 private:
  const std::shared_ptr<StressRequest> request_;
};

class BufferCallback : public FileSource::ResultCallbackBuffer {
 public:
  explicit BufferCallback(std::shared_ptr<StressRequest> request) : request_(std::move(request)) {}
  void Callback(CacheSource::Result_t result, std::uint64_t offset, Buffer* buffer,
                std::uint64_t bytes) override {
    const bool locked = buffer->GetLockState() == Buffer::kBufferLocked;
    request_->Report(locked ? CacheSource::kResultLockFailed : result, offset, bytes);
  }

 protected:
  ~BufferCallback() override = default;

 private:
  const std::shared_ptr<StressRequest> request_;
};

}  // namespace

const char* StressCounts::NameOf(StressKind kind) {
  static constexpr const char* kNames[] = {
#define ORVANE_STRESS_KIND(name) #name,
      ORVANE_STRESS_KINDS(ORVANE_STRESS_KIND)
#undef ORVANE_STRESS_KIND
  };
  return kNames[static_cast<std::size_t>(kind)];
}

std::uint64_t StressCounts::GetOperations() const {
  std::uint64_t operations = 0;
  for (const StressKind end :
       {StressKind::kReportedOK, StressKind::kReportedPartial, StressKind::kReportedOutOfRange,
        StressKind::kReportedFailed, StressKind::kRefused}) {
    operations += Get(end);
  }
  return operations;
}

void StressFindings::Add(const std::string& text) {
  ++count_;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (texts_.size() < kFindingsKept) texts_.push_back(text);
}

std::string StressFindings::Texts() {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::string all;
  for (const std::string& text : texts_) all += text + "\n";
  return all;
}

StressMemory::StressMemory(StressRandom* random, std::size_t size, bool whole, bool onePiece)
    : afterwards_(static_cast<Afterwards>(random->Below(3))) {
  MakePieces(random, size, whole, onePiece);
}

StressMemory::~StressMemory() {
  for (unsigned char* const memory : allocated_) ::operator delete(memory, alignment_);
}

void StressMemory::MakePieces(StressRandom* random, std::size_t size, bool whole, bool onePiece) {
  const std::size_t unit = whole ? Page() : 1;
  const std::size_t gap = whole ? (random->OneIn(2) ? Page() : 0) : kOddGap;
  std::vector<std::size_t> sizes;
  for (std::size_t left = size; left > 0;) {
    const bool takeAll = onePiece || random->OneIn(4) || sizes.size() > 5;
    sizes.push_back(takeAll ? left : unit * (1 + random->Below(left / unit)));
    left -= sizes.back();
  }
  if (afterwards_ == Afterwards::kFree) {
    alignment_ = std::align_val_t(whole ? Page() : std::size_t{1});
    for (const std::size_t piece : sizes) {
      void* const memory = ::operator new(piece, alignment_);
      allocated_.push_back(static_cast<unsigned char*>(memory));
      pieces_.emplace_back(allocated_.back(), piece);
    }
    return;
  }
  mapped_ = std::make_unique<Memory>(size + (sizes.size() + 1) * gap + 1);
  mapped_->FillWith(kGap);
  std::size_t at = gap;
  for (const std::size_t piece : sizes) {
    pieces_.emplace_back(mapped_->At(at), piece);
    at += piece + gap;
  }
  // Not all lists lie in order.
  if (random->OneIn(3)) std::reverse(pieces_.begin(), pieces_.end());
}

std::vector<unsigned char> StressMemory::Gather(std::size_t size) const {
  std::vector<unsigned char> data;
  for (const auto& [address, count] : pieces_) {
    const std::size_t taken = std::min(count, size - data.size());
    data.insert(data.end(), address, address + taken);
  }
  return data;
}

void StressMemory::Scatter(const std::vector<unsigned char>& data) const {
  const unsigned char* next = data.data();
  for (const auto& [address, count] : pieces_) {
    std::memcpy(address, next, count);
    next += count;
  }
}

bool StressMemory::GapsAreIntact() const {
  if (!mapped_) return true;
  Pieces sorted = pieces_;
  std::sort(sorted.begin(), sorted.end());
  const unsigned char* next = mapped_->At();
  for (const auto& [address, count] : sorted) {
    if (!AllAre(next, static_cast<std::size_t>(address - next), kGap)) return false;
    next = address + count;
  }
  return AllAre(next, static_cast<std::size_t>(mapped_->At(mapped_->Size()) - next), kGap);
}

void StressMemory::LetGo() {
  switch (afterwards_) {
    case Afterwards::kPoison:
      mapped_->FillWith(kPoison);
      break;
    case Afterwards::kUnmap:
      mapped_.reset();
      break;
    case Afterwards::kFree:
      for (unsigned char* const memory : allocated_) ::operator delete(memory, alignment_);
      allocated_.clear();
      break;
  }
}

bool StressMemory::IsUntouched() const {
  return !mapped_ || mapped_->IsFilledWith(kPoison, 0, mapped_->Size());
}

StressRequest::StressRequest(const World& world, std::shared_ptr<StressSource> source,
                             const Plan& plan)
    : world_(world),
      source_(std::move(source)),
      plan_(plan),
      random_(plan.seed),
      memory_(&random_, plan.size, plan.isWrite || !source_->IsCached(), !plan.asList) {}

// REQUIRES for a write: its pages are claimed.
void StressRequest::Prepare() {
  if (plan_.isWrite) {
    version_ = source_->File().BeginWrite(FirstPage(), PageCount());
    std::vector<unsigned char> data(plan_.size);
    source_->File().Fill(data.data(), data.size(), plan_.offset, version_);
    memory_.Scatter(data);
    source_->BeginStartOfWrite(FirstPage(), PageCount());
  }
  start_ = source_->BeginRequest(plan_.offset, plan_.size);
}

bool StressRequest::Start() {
  Prepare();
  // The memory and this stay, whatever the report does.
  const std::shared_ptr<StressRequest> keep = shared_from_this();
  const auto result = plan_.asList ? StartWithList() : StartWithBuffer();
  if (plan_.isWrite) source_->EndStartOfWrite(FirstPage(), PageCount());
  if (result == kPending) return true;
  if (reports_ != 0) Find("reported, though refused", result, 0);
  CheckRefusal(result);
  if (plan_.isWrite) EndWrite(/*good=*/false);
  memory_.LetGo();
  finished_ = true;
  return false;
}

std::uint32_t StressRequest::PickDueTime() {
  if (random_.OneIn(2)) return CacheSource::kDueASAP;
  return MTInterface::GetCurrentTimeMilli() + static_cast<std::uint32_t>(random_.Below(60)) - 10;
}

CacheSource::Result_t StressRequest::StartWithList() {
  const AutoRelease<BufferList> list(NewListOf(memory_.GetPieces()));
  const AutoRelease<ListCallback> callback(new ListCallback(shared_from_this()));
  const std::uint32_t due = PickDueTime();
  return plan_.isWrite ? source_->Get()->WriteAsyncWithList(plan_.offset, list, callback, due)
                       : source_->Get()->ReadAsyncWithList(plan_.offset, list, callback, due);
}

// A start that fails releases a reference of the callback.
CacheSource::Result_t StressRequest::StartWithBuffer() {
  const auto& [address, size] = memory_.GetPieces()[0];
  const AutoRelease<Buffer> buffer(new HostBuffer(address, size));
  const AutoRelease<BufferCallback> callback(new BufferCallback(shared_from_this()));
  callback->AddRef("tests", "StressRequest::StartWithBuffer", 0);
  const std::uint32_t due = PickDueTime();
  const auto result = plan_.isWrite
                          ? source_->Get()->WriteAsync(plan_.offset, buffer, callback, due)
                          : source_->Get()->ReadAsync(plan_.offset, buffer, callback, due);
  if (result == kPending) callback->DecRef("tests", "StressRequest::StartWithBuffer", 0);
  return result;
}

bool StressRequest::Run() {
  Prepare();
  std::uint64_t bytes = 0;
  CacheSource::Result_t result = kError;
  FileSource* const source = source_->Get();
  if (plan_.asList) {
    const AutoRelease<BufferList> list(NewListOf(memory_.GetPieces()));
    result = plan_.isWrite ? source->WriteWithList(plan_.offset, list, &bytes)
                           : source->ReadWithList(plan_.offset, list, &bytes);
  } else {
    const auto& [address, size] = memory_.GetPieces()[0];
    const AutoRelease<Buffer> buffer(new HostBuffer(address, size));
    result = plan_.isWrite ? source->Write(plan_.offset, buffer, &bytes)
                           : source->Read(plan_.offset, buffer, &bytes);
  }
  if (plan_.isWrite) source_->EndStartOfWrite(FirstPage(), PageCount());
  if (result == kNotSupported || result == kBusy) {
    CheckRefusal(result);
  } else {
    CheckOutcome(result, bytes);
  }
  if (plan_.isWrite) EndWrite(result == kOK);
  memory_.LetGo();
  finished_ = true;
  return result == kOK;
}

void StressRequest::Report(CacheSource::Result_t result, std::uint64_t offset,
                           std::uint64_t bytes) {
  if (reports_++ != 0) {
    Find("reported twice", result, bytes);
    return;
  }
  if (offset != plan_.offset) Find("wrong offset", result, bytes);
  CheckOutcome(result, bytes);
  if (plan_.isWrite) EndWrite(result == kOK);
  memory_.LetGo();
  // Whoever sees it finished may look at it; nothing of it is used from here on.
  StressRandom random(random_.Next());
  const World world = world_;
  finished_ = true;
  world.reactions->React(&random);
}

std::shared_ptr<StressRequest> StressRequest::NewReadBack(std::uint64_t seed) const {
  const std::size_t before = plan_.offset >= Page() && seed % 2 == 0 ? Page() : 0;
  const std::size_t behind = seed % 3 * Page();
  return std::make_shared<StressRequest>(
      world_, source_,
      Plan{/*isWrite=*/false, seed % 5 != 0, plan_.offset - before, before + plan_.size + behind,
           seed});
}

void StressRequest::CheckAfterwards() {
  if (!memory_.IsUntouched()) Find("memory written after the report", 0, 0);
}

void StressRequest::CheckRefusal(CacheSource::Result_t result) {
  world_.counts->Add(StressKind::kRefused);
  const bool direct = plan_.isWrite || !source_->IsCached();
  if (direct && result == kBusy) return;
  const bool mayBeRefused = direct ? source_->MayBeClosed(start_) : source_->MayBeCancelled(start_);
  if (result != kNotSupported || !mayBeRefused) Find("refused", result, 0);
}

void StressRequest::CheckOutcome(CacheSource::Result_t result, std::uint64_t bytes) {
  if (!memory_.GapsAreIntact()) Find("written beside the buffers", result, bytes);
  switch (result) {
    case kOK:
    case kPartial:
    case kOutOfRange:
      world_.counts->Add(result == kOK        ? StressKind::kReportedOK
                         : result == kPartial ? StressKind::kReportedPartial
                                              : StressKind::kReportedOutOfRange);
      if (!plan_.isWrite) {
        CheckData(bytes);
        if ((result == kOK) != (bytes == plan_.size) || (result == kOutOfRange) != (bytes == 0)) {
          Find("result and bytes disagree", result, bytes);
        }
      } else if (result != kOK || bytes != plan_.size) {
        Find("wrong end of a write", result, bytes);
      }
      return;
    case kFailed:
      world_.counts->Add(StressKind::kReportedFailed);
      if (bytes != 0) Find("failed with bytes", result, bytes);
      if (source_->MayBeCancelled(start_)) return;
      if (!source_->IsCached() && source_->IsAbandoned()) return;
      if (!plan_.isWrite && source_->MayBeInvalidated(start_, plan_.offset, plan_.size)) return;
      Find("failed without a reason", result, bytes);
      return;
    case kError:
      if (!plan_.isWrite && source_->IsCached() && source_->MayBeClosed(start_)) return;
      [[fallthrough]];
    default:
      Find("wrong result", result, bytes);
  }
}

void StressRequest::CheckData(std::uint64_t bytes) {
  const auto clip = [this](std::uint64_t end) {
    return end <= plan_.offset ? 0 : std::min<std::uint64_t>(end - plan_.offset, plan_.size);
  };
  if (bytes < clip(start_.leastEnd) || bytes > clip(source_->File().MostEnd())) {
    Find("wrong end of the data", 0, bytes);
    return;
  }
  const auto data = memory_.Gather(static_cast<std::size_t>(bytes));
  world_.counts->AddComparedBytes(data.size());
  if (!source_->File().CanHold(data.data(), data.size(), plan_.offset, start_.leastVersions)) {
    Find("wrong bytes", 0, bytes);
  }
}

void StressRequest::EndWrite(bool good) {
  if (good) source_->EndWrite(FirstPage(), PageCount(), version_);
  source_->File().Unclaim(FirstPage(), PageCount());
}

void StressRequest::Find(const std::string& what, int result, std::uint64_t bytes) {
  std::ostringstream text;
  text << what << ": result " << result << ", " << bytes << " bytes; " << ToString();
  world_.findings->Add(text.str());
}

std::string StressRequest::ToString() const {
  std::ostringstream text;
  text << (source_->IsCached() ? "cached " : "uncached ") << (plan_.isWrite ? "write" : "read")
       << " of " << plan_.size << " bytes at " << plan_.offset << " of " << source_->File().Path()
       << ", which ends between " << start_.leastEnd << " and " << source_->File().MostEnd();
  return text.str();
}

}  // namespace Orvane
