#include <algorithm>
#include <new>
#include <utility>

#include "SimBench.h"

namespace Orvane {
namespace {

using Exempt = SimulatorAllocations::Exempt;

constexpr const char* kFile = "tests/sim/SimRequest";

// While the calling thread is inside of a report.
class ReportMark {
 public:
  explicit ReportMark(std::vector<std::int64_t>* threads) : threads_(threads) {
    const Exempt exempt;
    threads_->push_back(thread_);
  }
  // Moves nothing about: the thread sanitizer would take that for a race.
  ~ReportMark() {
    *std::find(threads_->begin(), threads_->end(), thread_) = threads_->back();
    threads_->pop_back();
  }
  ReportMark(const ReportMark&) = delete;
  ReportMark& operator=(const ReportMark&) = delete;

 private:
  std::vector<std::int64_t>* const threads_;
  const std::int64_t thread_ = MTInterface::GetCurrentThreadID();
};

}  // namespace

class SimRequest::BufferCallback : public FileSource::ResultCallbackBuffer {
 public:
  explicit BufferCallback(SimRequest* request) : request_(request) {}
  void Callback(CacheSource::Result_t result, std::uint64_t offset, Buffer* buffer,
                std::uint64_t bytes) override {
    if (buffer != request_->buffers_[0]) request_->Fail("reported with another buffer");
    request_->Report(result, offset, bytes);
  }

 private:
  SimRequest* const request_;
};

class SimRequest::ListCallback : public FileSource::ResultCallbackBufferList {
 public:
  explicit ListCallback(SimRequest* request) : request_(request) {}
  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override {
    if (list != request_->list_) request_->Fail("reported with another list");
    request_->Report(result, offset, bytes);
  }

 private:
  SimRequest* const request_;
};

SimRequest::SimRequest(SimSource* source, bool isWrite, std::uint64_t offset, std::uint64_t size,
                       const SimRequestForm& form)
    : source_(source), isWrite_(isWrite), offset_(offset), size_(size), form_(form) {
  const Exempt exempt;
  memory_ = std::make_unique<SimMemory>(size, form.pieces, !form.anywhere);
  afterwards_ = source->bench_->forbidsMemory_ ? SimMemory::Afterwards::kForbid
                                               : SimMemory::Afterwards::kWatch;
}

void SimRequest::Prepare() {
  const Exempt exempt;
  begin_ = Simulator::GetStep();
  beginMicro_ = Simulator::GetTimeMicro();
  Note("begins");
  if (!isWrite_) return;
  version_ = source_->File().BeginWrite(offset_, size_, begin_);
  std::vector<unsigned char> data(size_);
  source_->File().Fill(data.data(), size_, offset_, version_);
  memory_->Scatter(data);
}

// False if the host did not let it: then nothing is left.
bool SimRequest::MakeObjects() {
  const bool asList = form_.asList || form_.pieces > 1;
  try {
    for (const auto& [address, length] : memory_->GetPieces()) {
      buffers_.reserve(buffers_.size() + 1);
      buffers_.push_back(new HostBuffer(address, length));
    }
    if (asList) {
      list_ = new BufferList(buffers_.size());
      for (Buffer* const buffer : buffers_) list_->AddBuffer(buffer, /*adoptReference=*/false);
      callback_ = new ListCallback(this);
    } else {
      callback_ = new BufferCallback(this);
    }
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void SimRequest::Start() {
  if (!MakeObjects()) {
    isOver_ = true;
    result_ = CacheSource::kResultError;
    return;
  }
  Prepare();
  writeEvent_ = isWrite_ ? source_->BeginEvent(false, false, offset_, size_) : std::size_t{0};
  CacheSource::Result_t result = CacheSource::kResultNone;
  try {
    result = list_ ? StartWithList() : StartWithBuffer();
  } catch (const std::bad_alloc&) {
    if (!HostHasFailed()) Fail("a start has thrown without a reason");
    result = CacheSource::kResultError;
  }
  if (result == CacheSource::kResultPending) {
    accepted_ = Simulator::GetStep();
    return;
  }
  if (reports_ != 0) Fail("reported although its start was refused");
  result_ = result;
  CheckRefusal();
  End();
}

CacheSource::Result_t SimRequest::StartWithList() {
  auto* const callback = static_cast<ListCallback*>(callback_);
  NativeFileSource* const source = source_->Get();
  return isWrite_ ? source->WriteAsyncWithList(offset_, list_, callback, form_.dueTime)
                  : source->ReadAsyncWithList(offset_, list_, callback, form_.dueTime);
}

// A start that fails gives up a reference of the callback.
CacheSource::Result_t SimRequest::StartWithBuffer() {
  auto* const callback = static_cast<BufferCallback*>(callback_);
  NativeFileSource* const source = source_->Get();
  Buffer* const buffer = buffers_[0];
  callback->AddRef(kFile, "Orvane::SimRequest::StartWithBuffer", __LINE__);
  try {
    const CacheSource::Result_t result =
        isWrite_ ? source->WriteAsync(offset_, buffer, callback, form_.dueTime)
                 : source->ReadAsync(offset_, buffer, callback, form_.dueTime);
    if (result == CacheSource::kResultPending) {
      callback->DecRef(kFile, "Orvane::SimRequest::StartWithBuffer", __LINE__);
    }
    return result;
  } catch (...) {
    if (callback->GetRefCount() == 2) {
      callback->DecRef(kFile, "Orvane::SimRequest::StartWithBuffer", __LINE__);
    }
    throw;
  }
}

void SimRequest::RunSynchronously() {
  if (!MakeObjects()) {
    isOver_ = true;
    result_ = CacheSource::kResultError;
    return;
  }
  Prepare();
  writeEvent_ = isWrite_ ? source_->BeginEvent(false, false, offset_, size_) : std::size_t{0};
  NativeFileSource* const source = source_->Get();
  try {
    if (list_) {
      result_ = isWrite_ ? source->WriteWithList(offset_, list_, &bytes_)
                         : source->ReadWithList(offset_, list_, &bytes_);
    } else {
      result_ = isWrite_ ? source->Write(offset_, buffers_[0], &bytes_)
                         : source->Read(offset_, buffers_[0], &bytes_);
    }
  } catch (const std::bad_alloc&) {
    if (!HostHasFailed()) Fail("a synchronous call has thrown without a reason");
    result_ = CacheSource::kResultError;
  }
  end_ = Simulator::GetStep();
  if (form_.onLibraryThread) {
    if (result_ != CacheSource::kResultError)
      Fail("a synchronous call on a library thread went on");
  } else if (result_ == CacheSource::kResultNotSupported || result_ == CacheSource::kResultBusy) {
    CheckRefusal();
  } else {
    CheckOutcome();
  }
  End();
}

void SimRequest::Report(CacheSource::Result_t result, std::uint64_t offset, std::uint64_t bytes) {
  Simulator::Step();
  if (reports_++ != 0) Fail("reported twice");
  if (isOver_) Fail("reported although its start was refused");
  if (offset != offset_) Fail("reported with the offset " + std::to_string(offset));
  result_ = result;
  bytes_ = bytes;
  end_ = Simulator::GetStep();
  CheckOutcome();
  End();
  if (form_.onReport) {
    const ReportMark mark(&source_->bench_->reporting_);
    form_.onReport(*this);
  }
  Simulator::Step();
}

void SimRequest::CheckRefusal() {
  // What began before is over before its outcome is known.
  end_ = Simulator::GetStep();
  const bool excused = source_->bench_->IsExcused();
  switch (result_) {
    case CacheSource::kResultBusy:
      if (form_.mayBeBusy || excused) return;
      break;
    case CacheSource::kResultNotSupported:
      if (excused || source_->MayBeRefusedSince(begin_)) return;
      if (source_->GetCache() && !isWrite_ && source_->MayFailSince(begin_, offset_, size_)) return;
      break;
    case CacheSource::kResultError:
      if (excused) return;
      break;
    case CacheSource::kResultOutOfRange:
      if (!source_->GetCache() && offset_ + (size_ - 1) < offset_) return;
      break;
    default:
      break;
  }
  Fail("refused without a reason");
}

void SimRequest::CheckOutcome() {
  if (!memory_->IsIntactAround()) Fail("somebody wrote beside the buffers");
  CheckUnlocked();
  const bool excused = source_->bench_->IsExcused();
  switch (result_) {
    case CacheSource::kResultOK:
    case CacheSource::kResultPartial:
    case CacheSource::kResultOutOfRange:
      if ((result_ == CacheSource::kResultOK) != (bytes_ == size_) ||
          (result_ == CacheSource::kResultOutOfRange) != (bytes_ == 0)) {
        Fail("result and bytes do not agree");
      }
      if (isWrite_ && result_ != CacheSource::kResultOK) Fail("a write met the end of the data");
      if (!isWrite_) CheckBytes();
      return;
    case CacheSource::kResultFailed:
      if (bytes_ != 0) Fail("failed with bytes");
      if (!MayFail() && !excused) Fail("failed without a reason");
      return;
    case CacheSource::kResultError:
      if (excused || MayHaveWaitedTooLong()) return;
      if (source_->MayBeRefusedSince(begin_)) return;
      Fail("an error without a reason");
    default:
      Fail("an impossible result");
  }
}

void SimRequest::CheckBytes() {
  // Of a device that lies nothing is known.
  if (SimulatedFiles::GetLostWrites() != 0) return;
  const Exempt exempt;
  const SimFileModel& file = source_->File();
  const SimTime showsFrom =
      std::max(source_->ShowsFrom(begin_, offset_, size_), source_->ShowsEndFrom(begin_));
  const auto clip = [this](std::uint64_t end) {
    return end <= offset_ ? 0 : std::min(end - offset_, size_);
  };
  const bool endIsKnown = !source_->bench_->expectsErrors_;
  if (endIsKnown &&
      (bytes_ < clip(file.LeastEnd(showsFrom)) || bytes_ > clip(file.MostEnd(end_)))) {
    Fail("wrong end of the data");
  }
  const std::vector<unsigned char> data = memory_->Gather(bytes_);
  for (std::uint64_t done = 0; done < bytes_;) {
    const std::uint64_t place = offset_ + done;
    const std::uint64_t count =
        std::min(SimFileModel::kPage - place % SimFileModel::kPage, bytes_ - done);
    const std::string wrong = file.Check(data.data() + done, count, place,
                                         source_->ShowsFrom(begin_, place, count), end_);
    if (!wrong.empty()) Fail(wrong);
    done += count;
  }
}

void SimRequest::CheckUnlocked() {
  for (Buffer* const buffer : buffers_) {
    if (buffer->GetLockState() != Buffer::kBufferUnlocked) Fail("reported with a locked buffer");
  }
}

void SimRequest::End() {
  const Exempt exempt;
  Note("ends");
  if (isWrite_) {
    // A write that the device has lost is reported as done all the same.
    const bool good = result_ == CacheSource::kResultOK && SimulatedFiles::GetLostWrites() == 0;
    source_->File().EndWrite(version_, end_, good);
    // One that was refused has changed nothing that a cache would have to forget.
    const bool wasStarted = reports_ != 0 || result_ == CacheSource::kResultOK;
    if (wasStarted) source_->ForgetFrom(writeEvent_);
    source_->EndEvent(writeEvent_);
  }
  memory_->LetGo(afterwards_);
  isOver_ = true;
}

bool SimRequest::MayFail() const {
  return source_->MayFailSince(begin_, offset_, size_) || source_->IsReleased();
}

// With it, or with another request of the file that had. Through a cache that may be one which was
// over long ago: a fill goes on when those that waited for it have failed.
bool SimRequest::MayHaveWaitedTooLong() const {
  const std::uint64_t now = Simulator::GetTimeMicro();
  if (now < kMostQueueMicros) return false;
  const auto old = [now](std::uint64_t since) { return since <= now - kMostQueueMicros; };
  if (old(beginMicro_)) return true;
  for (const std::uint64_t asked : source_->otherReads_) {
    if (old(asked)) return true;
  }
  return std::any_of(source_->bench_->requests_.begin(), source_->bench_->requests_.end(),
                     [&](const auto& other) {
                       return other->source_ == source_ && old(other->beginMicro_) &&
                              (source_->GetCache() || !other->isOver_ || other->end_ >= begin_);
                     });
}

void SimRequest::Fail(const std::string& what) const {
  const Exempt exempt;
  Simulator::Fail(what + ": " + ToText());
}

std::string SimRequest::ToText() const {
  return std::string("a ") + (isWrite_ ? "write" : "read") + " of " + std::to_string(size_) +
         " bytes at " + std::to_string(offset_) + " of " + source_->File().Name() +
         (source_->GetCache() ? ", cached, key " : ", key ") +
         std::to_string(source_->Get()->GetSourceKey()) + ", begun at step " +
         std::to_string(begin_) + ", result " + std::to_string(result_) + ", " +
         std::to_string(bytes_) + " bytes";
}

void SimRequest::Note(const char* what) const {
  if (!Simulator::IsTracing()) return;
  const Exempt exempt;
  Simulator::Note(what + (": " + ToText()));
}

void SimRequest::CheckAtEnd() {
  if (!isOver_) Fail("never reported");
  if (!memory_->IsUntouched()) Fail("memory was written to after the report");
  if (list_ && list_->GetRefCount() != 1) Fail("the list is still referenced");
  if (callback_ && callback_->GetRefCount() != 1) Fail("the callback is still referenced");
  for (Buffer* const buffer : buffers_) {
    if (buffer->GetRefCount() != (list_ ? 2 : 1)) Fail("a buffer is still referenced");
  }
  if (callback_) callback_->DecRef(kFile, "Orvane::SimRequest::CheckAtEnd", __LINE__);
  if (list_) list_->DecRef(kFile, "Orvane::SimRequest::CheckAtEnd", __LINE__);
  for (Buffer* const buffer : buffers_) {
    buffer->DecRef(kFile, "Orvane::SimRequest::CheckAtEnd", __LINE__);
  }
}

}  // namespace Orvane
