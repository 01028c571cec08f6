#include "SimBench.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Orvane {
namespace {

using Exempt = SimulatorAllocations::Exempt;

constexpr const char* kFile = "tests/sim/SimBench";
constexpr std::size_t kMostReports = 1024;  // at a time, nested ones included

}  // namespace

SimSource::SimSource(SimBench* bench, SimFileModel* file, Cache* cache)
    : bench_(bench), file_(file), cache_(cache) {}

SimRequest& SimSource::Make(bool isWrite, std::uint64_t offset, std::uint64_t size,
                            SimRequestForm form, bool wait) {
  SimRequest* request = nullptr;
  {
    const Exempt exempt;
    bench_->requests_.push_back(
        std::unique_ptr<SimRequest>(new SimRequest(this, isWrite, offset, size, std::move(form))));
    request = bench_->requests_.back().get();
  }
  if (wait) {
    request->RunSynchronously();
  } else {
    request->Start();
  }
  return *request;
}

SimRequest& SimSource::Read(std::uint64_t offset, std::uint64_t size, SimRequestForm form) {
  return Make(false, offset, size, std::move(form), false);
}

SimRequest& SimSource::Write(std::uint64_t offset, std::uint64_t size, SimRequestForm form) {
  return Make(true, offset, size, std::move(form), false);
}

SimRequest& SimSource::ReadNow(std::uint64_t offset, std::uint64_t size, SimRequestForm form) {
  return Make(false, offset, size, std::move(form), true);
}

SimRequest& SimSource::WriteNow(std::uint64_t offset, std::uint64_t size, SimRequestForm form) {
  return Make(true, offset, size, std::move(form), true);
}

void SimSource::PreRead(std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime) {
  NoteOtherRead();
  source_->PreRead(offset, size, dueTime, MTThread::kPriorityNormal);
}

void SimSource::NoteOtherRead() {
  const Exempt exempt;
  otherReads_.push_back(Simulator::GetTimeMicro());
}

void SimSource::Cancel() {
  const std::size_t event = BeginEvent(true, false, 0, 0);
  source_->Cancel();
  EndEvent(event);
  if (!cache_ || !bench_->IsReporting()) CheckReported(events_[event].begin);
}

void SimSource::Purge() {
  const std::size_t event = BeginEvent(true, false, 0, 0);
  cache_->Purge(source_);
  events_[event].forgetsBefore = events_[event].begin;
  EndEvent(event);
}

void SimSource::Invalidate(std::uint64_t offset, std::uint64_t size) {
  const std::size_t event = BeginEvent(false, false, offset, size);
  cache_->Invalidate(source_, offset, size);
  events_[event].forgetsBefore = events_[event].begin;
  EndEvent(event);
}

bool SimSource::Close() {
  const std::size_t event = BeginEvent(true, true, 0, 0);
  isOpen_ = false;
  const bool closed = source_->Close();
  EndEvent(event);
  if (!cache_) CheckReported(IsAlone(event) ? events_[event].end : events_[event].begin);
  return closed;
}

bool SimSource::Delete() {
  const std::size_t event = BeginEvent(true, true, 0, 0);
  isOpen_ = false;
  const bool deleted = source_->Delete();
  if (deleted) file_->Delete();
  EndEvent(event);
  if (!cache_) CheckReported(IsAlone(event) ? events_[event].end : events_[event].begin);
  return deleted;
}

bool SimSource::Open(bool forRead, bool forWrite) {
  const std::size_t event = BeginEvent(true, true, 0, 0);
  const std::uint64_t faults = Simulator::GetFaults();
  bool opened = false;
  try {
    opened = source_->Open(forRead, forWrite, false);
  } catch (const std::bad_alloc&) {
    if (!HostHasFailed()) Simulator::Fail("Open has thrown without a reason");
  }
  if (opened) {
    // Of two that open and close at a time the bench does not know who was last. A file that is
    // not there can be opened, but that is all.
    isOpen_ = IsAlone(event) && !file_->IsDeleted();
    isWhole_ = Simulator::GetFaults() == faults;
    forRead_ = forRead;
    forWrite_ = forWrite;
    if (cache_) events_[event].forgetsBefore = events_[event].begin;
  }
  EndEvent(event);
  return opened;
}

void SimSource::Release() {
  const std::size_t event = BeginEvent(true, true, 0, 0);
  const bool isLast = source_->GetRefCount() == 1 && IsAlone(event);
  released_ = true;
  source_->DecRef(kFile, "Orvane::SimSource::Release", __LINE__);
  if (isLast && !cache_) CheckReported(events_[event].begin);
}

std::size_t SimSource::BeginEvent(bool everything, bool closes, std::uint64_t offset,
                                  std::uint64_t size) {
  const std::uint64_t block = cache_ ? cache_->GetBlockSize() : 0;
  const Exempt exempt;
  const std::uint64_t end = offset + size;
  const std::uint64_t first = block == 0 ? offset : offset / block * block;
  const std::uint64_t last = block == 0 ? end : (end + block - 1) / block * block;
  events_.push_back(
      {Simulator::GetStep(), kSimTimeOpen, everything, closes, first, last - first, 0});
  return events_.size() - 1;
}

void SimSource::EndEvent(std::size_t event) {
  events_[event].end = Simulator::GetStep();
}

// Of a write: what was read before its end is not shown by reads that begin after it.
void SimSource::ForgetFrom(std::size_t write) {
  events_[write].forgetsBefore = Simulator::GetStep();
}

// Whether nobody else has opened, closed or released it since the event began.
bool SimSource::IsAlone(std::size_t event) const {
  for (std::size_t k = 0; k < events_.size(); ++k) {
    if (k != event && events_[k].closes && events_[k].end >= events_[event].begin) return false;
  }
  return true;
}

// A cancel returns when everything that was accepted before it has been reported. With a cache
// there are exceptions: inside a callback it does not wait for reports on other threads.
void SimSource::CheckReported(SimTime acceptedBy) const {
  for (const auto& request : bench_->requests_) {
    const bool concerned = request->source_ == this && request->accepted_ <= acceptedBy;
    if (concerned && !request->isOver_) request->Fail("unreported at the end of a cancel");
  }
}

bool SimSource::MayFailSince(SimTime begin, std::uint64_t offset, std::uint64_t size) const {
  return std::any_of(events_.begin(), events_.end(), [&](const Event& event) {
    if (event.end < begin) return false;
    if (event.everything) return true;
    return cache_ && event.offset < offset + size && offset < event.offset + event.size;
  });
}

bool SimSource::MayBeRefusedSince(SimTime begin) const {
  if (!isOpen_ || !forRead_ || !forWrite_) return true;
  return std::any_of(events_.begin(), events_.end(),
                     [&](const Event& event) { return event.closes && event.end >= begin; });
}

// An uncached read shows what is there while it goes on, a cached one also what was there since its
// blocks were forgotten last.
SimTime SimSource::ShowsFrom(SimTime begin, std::uint64_t offset, std::uint64_t size) const {
  if (!cache_) return begin;
  SimTime from = 0;
  for (const Event& event : events_) {
    const bool covers =
        event.everything || (event.offset <= offset && event.offset + event.size >= offset + size);
    if (covers && event.end <= begin) from = std::max(from, event.forgetsBefore);
  }
  return from;
}

// A write may move the end, so blocks that it does not meet forget where they thought it was.
SimTime SimSource::ShowsEndFrom(SimTime begin) const {
  if (!cache_) return begin;
  SimTime from = 0;
  for (const Event& event : events_) {
    const bool isWrite = !event.everything && event.forgetsBefore == event.end;
    if ((isWrite || event.everything) && event.end <= begin) {
      from = std::max(from, event.forgetsBefore);
    }
  }
  return from;
}

SimBench::SimBench() {
  SimMemory::Reset();
  forbidsMemory_ = Simulator::Random(8) == 0;
  const Exempt exempt;
  reporting_.reserve(kMostReports);
}

SimBench::~SimBench() = default;

SimFileModel& SimBench::NewFile(std::uint64_t bytes) {
  const Exempt exempt;
  const auto number = static_cast<std::uint32_t>(files_.size());
  files_.push_back(std::make_unique<SimFileModel>("file" + std::to_string(number), number, bytes));
  return *files_.back();
}

Cache* SimBench::NewCache(std::uint64_t blockBytes, std::size_t blocks) {
  BufferFactory* factory = nullptr;
  Cache* cache = nullptr;
  const std::uint64_t faults = Simulator::GetFaults();
  try {
    factory = new BufferFactoryPhysMem;
    factory->Initialize(blockBytes, blocks, blocks, 0);
    cache = new Cache(factory);
  } catch (...) {
    // Memory or threads are short.
  }
  if (factory) factory->DecRef(kFile, "Orvane::SimBench::NewCache", __LINE__);
  if (!cache) {
    if (!HostHasFailed()) Simulator::Fail("a cache cannot be made");
    throw SimSetupFailed();
  }
  const Exempt exempt;
  caches_.push_back(cache);
  if (Simulator::GetFaults() != faults) shortCaches_.push_back(cache);
  return cache;
}

SimSource& SimBench::NewClosedSource(SimFileModel& file, Cache* cache) {
  NativeFileSource* source = nullptr;
  try {
    source = NativeFileSysInterface::NewNativeFileSource(file.Name().c_str());
  } catch (const std::bad_alloc&) {
    if (!HostHasFailed()) Simulator::Fail("a source cannot be made");
    throw SimSetupFailed();
  }
  SimSource* made = nullptr;
  {
    const Exempt exempt;
    sources_.push_back(std::unique_ptr<SimSource>(new SimSource(this, &file, cache)));
    made = sources_.back().get();
    made->source_ = source;
  }
  if (cache && !source->UseCache(cache)) Simulator::Fail("the source refuses its cache");
  return *made;
}

SimSource& SimBench::NewSource(SimFileModel& file, Cache* cache) {
  SimSource& source = NewClosedSource(file, cache);
  if (!source.Open()) {
    if (!HostHasFailed()) Simulator::Fail("the source does not open");
    throw SimSetupFailed();
  }
  return source;
}

void SimBench::ReleaseCache(Cache* cache) {
  {
    const Exempt exempt;
    std::erase(caches_, cache);
  }
  cache->DecRef(kFile, "Orvane::SimBench::ReleaseCache", __LINE__);
}

void SimBench::Await(const SimRequest& request) {
  Simulator::WaitUntil([&request] { return request.IsOver(); });
}

void SimBench::AwaitAll() {
  Simulator::WaitUntil([this] { return CountOpen() == 0; });
}

std::size_t SimBench::CountOpen() const {
  return static_cast<std::size_t>(std::count_if(
      requests_.begin(), requests_.end(), [](const auto& request) { return !request->IsOver(); }));
}

bool SimBench::IsReporting() const {
  const std::int64_t thread = MTInterface::GetCurrentThreadID();
  return std::find(reporting_.begin(), reporting_.end(), thread) != reporting_.end();
}

// Whatever has failed before: what is open and was made without a fault can be read.
void SimBench::ReadEverything() {
  constexpr std::uint64_t kMost = 4 * SimFileModel::kPage;
  for (std::size_t k = 0; k < sources_.size(); ++k) {
    SimSource& source = *sources_[k];
    const bool isShort = std::find(shortCaches_.begin(), shortCaches_.end(), source.GetCache()) !=
                         shortCaches_.end();
    if (source.IsReleased() || !source.isOpen_ || !source.isWhole_ || isShort) continue;
    source.ReadNow(0, kMost);
  }
}

void SimBench::Finish() {
  Simulator::StopFaults();
  AwaitAll();
  Simulator::Settle();
  if (Simulator::GetOpenRequests() != 0)
    Simulator::Fail("slots are in use though nothing is asked");
  faultsAreOver_ = true;
  ReadEverything();
  for (const auto& file : files_) {
    const Exempt exempt;
    // Of a write that failed the model knows that it may show in part.
    if (expectsErrors_ || SimulatedFiles::GetLostWrites() != 0) break;
    const std::string wrong = file->CheckDisk();
    if (!wrong.empty()) Simulator::Fail(wrong);
  }
  for (const auto& source : sources_) {
    if (!source->IsReleased()) source->Release();
  }
  while (!caches_.empty()) ReleaseCache(caches_.back());
  Simulator::Settle();
  for (const auto& request : requests_) request->CheckAtEnd();
  const Exempt exempt;
  requests_.clear();
  sources_.clear();
  files_.clear();
}

}  // namespace Orvane
