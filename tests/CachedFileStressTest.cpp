// Everything that a cache over files does at once, from many threads, against a model.
// How long and with what it runs says the environment: see StressOptions.
#include <chrono>
#include <deque>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "BufferFactory.h"
#include "CacheStressRequest.h"
#include "CacheTransaction.h"
#include "MTInterface.h"
#include "OSServices/LibraryThread.h"

namespace Orvane {
namespace {

using Clock = std::chrono::steady_clock;
using Request = std::shared_ptr<StressRequest>;

// On a slow machine, until everything has happened.
constexpr std::chrono::seconds kExtraTime{120};
constexpr std::size_t kThreads = 8;
constexpr std::size_t kRequestsPerThread = 10;
constexpr std::size_t kGraveyard = 64;  // finished requests that are looked at once more
constexpr std::size_t kAdopted = 48;    // requests that reports have started, at a time
constexpr std::size_t kFilePages = 256;
constexpr std::size_t kLogPages = 192;
constexpr std::size_t kCaches = 3;
// Source slots: files 0 and 1 and the log, each with a plain source and cached ones.
constexpr std::size_t kLog = 2;
constexpr struct {
  std::size_t file;
  bool cached;
} kSlots[] = {{0, true}, {0, true},  {0, false},   {1, true},    {1, true},
              {1, true}, {1, false}, {kLog, true}, {kLog, true}, {kLog, false}};
constexpr std::size_t kSlotCount = std::size(kSlots);

// Sleeps only when it takes long.
bool SoonOrEventually(const std::function<bool()>& condition) {
  for (int k = 0; k < 200; ++k) {
    if (condition()) return true;
    std::this_thread::yield();
  }
  return Eventually(condition);
}

// A source with a reference, or none.
class SourceHold {
 public:
  SourceHold() = default;
  // Takes over the caller's reference.
  explicit SourceHold(std::shared_ptr<StressSource> source) : source_(std::move(source)) {}
  SourceHold(SourceHold&& other) noexcept : source_(std::move(other.source_)) {}
  SourceHold(const SourceHold&) = delete;
  SourceHold& operator=(const SourceHold&) = delete;
  SourceHold& operator=(SourceHold&&) = delete;
  ~SourceHold() {
    if (!source_) return;
    source_->RemoveHolder();
    source_->Get()->DecRef("tests", "SourceHold::~SourceHold", 0);
  }

  SourceHold AddRef() const {
    if (source_) {
      source_->Get()->AddRef("tests", "SourceHold::AddRef", 0);
      source_->AddHolder();
    }
    return SourceHold(source_);
  }
  explicit operator bool() const { return source_ != nullptr; }
  StressSource* operator->() const { return source_.get(); }
  const std::shared_ptr<StressSource>& Shared() const { return source_; }
  void Swap(SourceHold* other) { source_.swap(other->source_); }

 private:
  std::shared_ptr<StressSource> source_;
};

// Keeps the outcome of one transaction.
class TransactionOutcome : public CacheTransaction::StatusCallback {
 public:
  void Callback(CacheSource::Result_t result, CacheTransaction*, std::uint64_t bytes) override {
    result_ = result;
    bytes_ = bytes;
    ++count_;
  }
  int Count() const { return count_; }
  CacheSource::Result_t Result() const { return result_; }
  std::uint64_t Bytes() const { return bytes_; }

 protected:
  ~TransactionOutcome() override = default;

 private:
  std::atomic<CacheSource::Result_t> result_{kPending};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<int> count_{0};
};

// What the threads share: files, caches, sources. Reports use it too, so its lock is never held
// while the library is called.
class StressWorld : public StressReactions {
 public:
  StressWorld()
      : files_{std::make_shared<StressFile>(kFilePages, kFilePages),
               std::make_shared<StressFile>(kFilePages, kFilePages), NewLog()} {}
  ~StressWorld() override = default;

  StressCounts& Counts() { return counts_; }
  StressFindings& Findings() { return findings_; }
  StressRequest::World ForRequests() { return {&counts_, &findings_, this}; }

  std::shared_ptr<StressFile> File(std::size_t number) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return files_[number];
  }
  // A source of the slot; in reports none, if the slot is empty.
  SourceHold Source(std::size_t slot, StressRandom* random) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (sources_[slot] || !random) return sources_[slot].AddRef();
    }
    NewSource(slot, random);
    const std::lock_guard<std::mutex> lock(mutex_);
    return sources_[slot].AddRef();
  }
  void NewSource(std::size_t slot, StressRandom* random);
  void NewCache(std::size_t number, StressRandom* random);
  void NewLogFile();
  // In reports: only gives up.
  void DropSource(std::size_t slot) { PutSource(slot, SourceHold()); }
  void DropCache(std::size_t number);

  Request NewRead(StressRandom* random, const SourceHold& source);
  // Null if the pages are in use.
  Request NewWrite(StressRandom* random, const SourceHold& source);

  void Adopt(const Request& request);
  std::vector<Request> TakeAdopted();

  void React(StressRandom* random) override;
  void Stop() { stopping_ = true; }
  // After all threads have ended.
  void End();
  // For private caches. The caller owns one reference.
  BufferFactory* NewFactory(StressRandom* random);

 private:
  static std::shared_ptr<StressFile> NewLog() { return std::make_shared<StressFile>(0, kLogPages); }
  void PutSource(std::size_t slot, SourceHold source);
  Cache* AcquireCache(std::size_t number, StressRandom* random);
  void ReactOnce(StressRandom* random);
  void ReadOnLibraryThread(const SourceHold& source);
  void CheckFactories();

  StressCounts counts_;
  StressFindings findings_;
  std::mutex mutex_;
  std::shared_ptr<StressFile> files_[3];
  Cache* caches_[kCaches] = {};
  SourceHold sources_[kSlotCount];
  std::vector<BufferFactory*> factories_;
  std::vector<Request> adopted_;
  std::atomic<bool> stopping_{false};
};

BufferFactory* StressWorld::NewFactory(StressRandom* random) {
  constexpr std::size_t kPages[] = {1, 4, 16};
  const std::size_t pages = kPages[random->Below(std::size(kPages))];
  const std::size_t count = 2 + random->Below(96 / pages);
  auto* const factory = new BufferFactoryPhysMem;
  if (!factory->Initialize(pages * Page(), count, count, 0)) findings_.Add("no buffers");
  factory->AddRef("tests", "StressWorld::NewFactory", 0);
  const std::lock_guard<std::mutex> lock(mutex_);
  factories_.push_back(factory);
  return factory;
}

void StressWorld::NewCache(std::size_t number, StressRandom* random) {
  const AutoRelease<BufferFactory> factory(NewFactory(random));
  Cache* cache = new Cache(factory);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::swap(cache, caches_[number]);
  }
  if (cache) cache->DecRef("tests", "StressWorld::NewCache", 0);
  counts_.Add(StressKind::kNewCache);
  CheckFactories();
}

void StressWorld::DropCache(std::size_t number) {
  Cache* cache = nullptr;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::swap(cache, caches_[number]);
  }
  if (cache) cache->DecRef("tests", "StressWorld::DropCache", 0);
}

Cache* StressWorld::AcquireCache(std::size_t number, StressRandom* random) {
  for (;;) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (Cache* const cache = caches_[number]) {
        cache->AddRef("tests", "StressWorld::AcquireCache", 0);
        return cache;
      }
    }
    NewCache(number, random);
  }
}

void StressWorld::PutSource(std::size_t slot, SourceHold source) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    sources_[slot].Swap(&source);
  }
}  // the old one goes here

void StressWorld::NewSource(std::size_t slot, StressRandom* random) {
  const std::shared_ptr<StressFile> file = File(kSlots[slot].file);
  if (kSlots[slot].cached) {
    const AutoRelease<Cache> cache(AcquireCache(random->Below(kCaches), random));
    PutSource(slot, SourceHold(std::make_shared<StressSource>(file, cache)));
  } else {
    PutSource(slot, SourceHold(std::make_shared<StressSource>(file, nullptr)));
  }
  counts_.Add(StressKind::kNewSource);
}

void StressWorld::NewLogFile() {
  {
    const std::shared_ptr<StressFile> log = NewLog();
    const std::lock_guard<std::mutex> lock(mutex_);
    files_[kLog] = log;
  }
  for (std::size_t slot = 0; slot < kSlotCount; ++slot) {
    if (kSlots[slot].file == kLog) DropSource(slot);
  }
}

// Those that only this test holds have all their buffers again, unlocked.
void StressWorld::CheckFactories() {
  std::vector<BufferFactory*> idle;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::erase_if(factories_, [&idle](BufferFactory* factory) {
      const long count = factory->AddRef("tests", "StressWorld::CheckFactories", 0);
      factory->DecRef("tests", "StressWorld::CheckFactories", 0);
      if (count != 2) return false;
      idle.push_back(factory);
      return true;
    });
  }
  for (BufferFactory* const factory : idle) {
    if (factory->GetNumberOfBuffersInUse() != 0) findings_.Add("buffers kept");
    std::vector<Buffer*> buffers;
    while (Buffer* const buffer = factory->GetBufferFromFactory()) {
      const bool wasLocked = buffer->GetLockState() == Buffer::kBufferLocked;
      const bool locks = buffer->Lock() == Buffer::kBufferLocked;
      const bool unlocks = buffer->Unlock() == Buffer::kBufferUnlocked;
      if (wasLocked || !locks || !unlocks) findings_.Add("a buffer's lock count is not 0");
      buffers.push_back(buffer);
    }
    for (Buffer* const buffer : buffers) factory->ReturnBufferToFactory(buffer);
    factory->DecRef("tests", "StressWorld::CheckFactories", 0);
  }
}

Request StressWorld::NewRead(StressRandom* random, const SourceHold& source) {
  const StressFile& file = source->File();
  const std::uint64_t end = file.LeastEnd() + 2 * Page();
  std::uint64_t offset = random->Next() % end;
  std::uint64_t size = 1 + random->Next() % (random->OneIn(2) ? Page() : 24 * Page());
  // Some places are wanted more than others.
  if (random->OneIn(2)) offset %= 24 * Page();
  if (!source->IsCached()) {
    offset -= offset % Page();
    size += Page() - 1 - (size - 1) % Page();
  }
  return std::make_shared<StressRequest>(
      ForRequests(), source.Shared(),
      StressRequest::Plan{/*isWrite=*/false, random->OneIn(2), offset,
                          static_cast<std::size_t>(size), random->Next()});
}

Request StressWorld::NewWrite(StressRandom* random, const SourceHold& source) {
  StressFile& file = source->File();
  const std::size_t pages = static_cast<std::size_t>(file.LeastEnd() / Page());
  if (pages == 0) return nullptr;
  const std::size_t page =
      random->Below(random->OneIn(2) ? std::min<std::size_t>(pages, 24) : pages);
  const std::size_t count = 1 + random->Below(std::min<std::size_t>(8, pages - page));
  if (!file.Claim(page, count)) return nullptr;
  return std::make_shared<StressRequest>(
      ForRequests(), source.Shared(),
      StressRequest::Plan{/*isWrite=*/true, random->OneIn(2), page * Page(), count * Page(),
                          random->Next()});
}

void StressWorld::Adopt(const Request& request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  adopted_.push_back(request);
}

std::vector<Request> StressWorld::TakeAdopted() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(adopted_, {});
}

void StressWorld::React(StressRandom* random) {
  thread_local int depth = 0;
  if (stopping_ || depth >= 3 || !random->OneIn(3)) return;
  struct Depth {
    Depth() { ++depth; }
    ~Depth() { --depth; }
  } const inside;
  ReactOnce(random);
}

void StressWorld::ReactOnce(StressRandom* random) {
  const std::size_t slot = random->Below(kSlotCount);
  const SourceHold source = Source(slot, nullptr);
  if (!source) return;
  const std::uint64_t offset = random->Below(kFilePages) * Page();
  const std::uint64_t size = 1 + random->Below(16 * Page());
  switch (random->Below(40)) {
    case 0:
      counts_.Add(StressKind::kCancelInCallback);
      return source->Cancel();
    case 1:
      counts_.Add(StressKind::kPurgeInCallback);
      return source->Purge();
    case 2:
    case 3:
      counts_.Add(StressKind::kInvalidateInCallback);
      return source->Invalidate(offset, size);
    case 4:
      counts_.Add(StressKind::kCloseInCallback);
      DropSource(slot);
      return source->CloseForGood();
    case 5:
      counts_.Add(StressKind::kReleaseSourceInCallback);
      return DropSource(slot);
    case 6:
      counts_.Add(StressKind::kReleaseCacheInCallback);
      return DropCache(random->Below(kCaches));
    case 7:
    case 8:
      return ReadOnLibraryThread(source);
    case 9:
      counts_.Add(StressKind::kThrow);
      throw std::runtime_error("out of a report");
    case 10:
    case 11:
    case 12:
      counts_.Add(StressKind::kPreReadInCallback);
      return source->Get()->PreRead(offset, size, MTInterface::GetCurrentTimeMilli(),
                                    MTThread::kPriorityNormal);
    default:
      break;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (adopted_.size() >= kAdopted) return;
  }
  const Request request = random->OneIn(4) ? NewWrite(random, source) : NewRead(random, source);
  if (!request) return;
  counts_.Add(StressKind::kReadInCallback);
  Adopt(request);
  request->Start();
}

void StressWorld::ReadOnLibraryThread(const SourceHold& source) {
  if (!LibraryThreadMark::IsSetOnThisThread()) return;
  counts_.Add(StressKind::kSyncReadInCallback);
  const AutoRelease<Buffer> buffer(new HeapBuffer(Page()));
  std::uint64_t bytes = 0;
  if (source->Get()->Read(0, buffer, &bytes) != kError) findings_.Add("read where none can wait");
}

void StressWorld::End() {
  for (std::size_t slot = 0; slot < kSlotCount; ++slot) DropSource(slot);
  for (std::size_t number = 0; number < kCaches; ++number) DropCache(number);
  // The last caches may be destroyed by a helper thread.
  const bool gone = Eventually([this] {
    CheckFactories();
    return factories_.empty();
  });
  if (!gone) findings_.Add("a cache was kept");
  for (const auto& file : files_) {
    if (!file->AgreesWithDisk()) findings_.Add("file and model differ");
  }
}

// One thread of the test.
class StressThread {
 public:
  StressThread(StressWorld* world, std::size_t number, std::uint64_t seed)
      : world_(world), random_(seed * kThreads + number) {}

  void Run(Clock::time_point end) {
    const auto goesOn = [this, end] {
      const auto now = Clock::now();
      return now < end || (now < end + kExtraTime && !world_->Counts().HasAll());
    };
    while (goesOn()) {
      Step();
      // What is still missing is most likely the rarest of all.
      if (Clock::now() >= end) OwnTransactions();
      for (const Request& request : world_->TakeAdopted()) started_.push_back(request);
      while (started_.size() > kRequestsPerThread) CollectFirst();
    }
    world_->Stop();
    Finish();
  }
  // Also of those that were adopted last.
  void Finish() {
    do {
      for (const Request& request : world_->TakeAdopted()) started_.push_back(request);
      while (!started_.empty()) CollectFirst();
    } while (!(started_ = ToDeque(world_->TakeAdopted())).empty());
    while (!graveyard_.empty()) Bury();
  }

 private:
  static std::deque<Request> ToDeque(const std::vector<Request>& requests) {
    return {requests.begin(), requests.end()};
  }
  void Count(StressKind kind) { world_->Counts().Add(kind); }
  void Step();
  void StepRarely(const SourceHold& source, std::size_t slot);
  void Read(const SourceHold& source);
  void Write(const SourceHold& source);
  void Append();
  void Statistics(const SourceHold& source);
  void OwnTransactions();
  void CollectFirst();
  void Bury();

  StressWorld* const world_;
  StressRandom random_;
  std::deque<Request> started_;
  std::deque<Request> graveyard_;
};

void StressThread::Step() {
  const std::size_t slot = random_.Below(kSlotCount);
  const SourceHold source = world_->Source(slot, &random_);
  if (!source) return;  // another thread was faster
  switch (random_.Below(24)) {
    case 0:
      return StepRarely(source, slot);
    case 1:
      return Append();
    case 2:
      Count(StressKind::kInvalidate);
      return source->Invalidate(random_.Below(kFilePages) * Page(), 1 + random_.Below(32 * Page()));
    case 3:
      return Statistics(source);
    case 4:
    case 5:
      Count(StressKind::kPreRead);
      return source->Get()->PreRead(
          random_.Below(kFilePages) * Page(), 1 + random_.Below(32 * Page()),
          MTInterface::GetCurrentTimeMilli() + static_cast<std::uint32_t>(random_.Below(100)) - 20,
          MTThread::kPriorityNormal);
    case 6:
    case 7:
    case 8:
    case 9:
      return Write(source);
    default:
      return Read(source);
  }
}

void StressThread::StepRarely(const SourceHold& source, std::size_t slot) {
  switch (random_.Below(8)) {
    case 0:
    case 1:
      Count(StressKind::kCancel);
      return source->Cancel();
    case 2:
      Count(StressKind::kPurge);
      return source->Purge();
    case 3:
      Count(StressKind::kCloseAndOpen);
      if (!source->CloseAndOpen()) world_->Findings().Add("Close and Open failed");
      return;
    case 4:
    case 5:
      return world_->NewSource(slot, &random_);
    case 6:
      return world_->NewCache(random_.Below(kCaches), &random_);
    default:
      return OwnTransactions();
  }
}

void StressThread::Read(const SourceHold& source) {
  const bool waits = random_.OneIn(3);
  StressRandom random(random_.Next());
  const Request request = world_->NewRead(&random, source);
  Count(waits ? (request->IsList() ? StressKind::kSyncListRead : StressKind::kSyncBufferRead)
              : (request->IsList() ? StressKind::kAsyncListRead : StressKind::kAsyncBufferRead));
  if (waits) {
    request->Run();
  } else {
    started_.push_back(request);
    request->Start();
  }
}

void StressThread::Write(const SourceHold& source) {
  const Request write = world_->NewWrite(&random_, source);
  if (!write) return;
  if (random_.OneIn(2)) {
    Count(StressKind::kWrite);
    started_.push_back(write);
    write->Start();
    return;
  }
  Count(StressKind::kWriteAndReadBack);
  if (!write->Run()) return;
  write->NewReadBack(random_.Next())->Run();
}

void StressThread::Append() {
  static std::mutex oneAtATime;
  const std::unique_lock<std::mutex> lock(oneAtATime, std::try_to_lock);
  if (!lock.owns_lock()) return;
  const std::size_t slot = kSlotCount - 1 - random_.Below(3);
  const SourceHold source = world_->Source(slot, &random_);
  if (!source) return;
  StressFile& file = source->File();
  const std::size_t page = static_cast<std::size_t>(file.LeastEnd() / Page());
  const std::size_t count = 1 + random_.Below(5);
  if (!file.Claim(page, count)) return world_->NewLogFile();
  const auto append = std::make_shared<StressRequest>(
      world_->ForRequests(), source.Shared(),
      StressRequest::Plan{/*isWrite=*/true, random_.OneIn(2), page * Page(), count * Page(),
                          random_.Next()});
  Count(StressKind::kAppend);
  if (!append->Run()) return;
  append->NewReadBack(random_.Next())->Run();
}

void StressThread::Statistics(const SourceHold& source) {
  Cache* const cache = source->Get()->GetCache();
  if (!cache) return;
  Count(StressKind::kStatistics);
  if (cache->GetCacheHits() != 0) Count(StressKind::kHit);
  cache->GetCacheMisses();
  cache->GetCacheDirectReads();
  cache->GetCachePreReads();
  if (random_.OneIn(8)) cache->Dump();
  if (random_.OneIn(8)) cache->ResetCacheStats();
  if (random_.OneIn(4)) cache->CollectCacheStats(random_.OneIn(2));
}

// Transactions of the test's own, of a plain source, through a cache that may go while they are
// under way.
void StressThread::OwnTransactions() {
  Count(StressKind::kOwnTransactions);
  const std::shared_ptr<StressFile> file = world_->File(0);
  StressSource source(file, nullptr);
  AutoRelease<NativeFileSource> release(source.Get());
  const AutoRelease<BufferFactory> factory(world_->NewFactory(&random_));
  AutoRelease<Cache> cache(new Cache(factory));
  constexpr std::size_t kCount = 4;
  const std::size_t size = (1 + random_.Below(8)) * Page() - random_.Below(Page());
  std::vector<std::unique_ptr<StressMemory>> memory;
  std::vector<std::unique_ptr<AutoRelease<TransactionOutcome>>> outcomes;
  std::vector<std::unique_ptr<AutoRelease<CacheTransaction>>> transactions;
  std::vector<std::uint64_t> offsets;
  // What the cache holds may be as old as its first read.
  std::vector<StressSource::Start> starts;
  for (std::size_t k = 0; k < kCount; ++k) {
    offsets.push_back(random_.Below((kFilePages - 8) * Page()));
    starts.push_back(source.BeginRequest(offsets[k], size));
    memory.push_back(std::make_unique<StressMemory>(&random_, size, false, false));
    outcomes.push_back(std::make_unique<AutoRelease<TransactionOutcome>>(new TransactionOutcome));
    const AutoRelease<BufferList> list(NewListOf(memory[k]->GetPieces()));
    transactions.push_back(std::make_unique<AutoRelease<CacheTransaction>>(
        new CacheTransaction(source.Get(), offsets[k], list, *outcomes[k], CacheSource::kDueASAP)));
  }
  for (const auto& transaction : transactions) {
    if (cache->Read(*transaction) != kPending) world_->Findings().Add("own read refused");
  }
  const std::size_t disturbance = random_.Below(4);
  if (random_.OneIn(2)) MTInterface::Sleep(0);
  if (disturbance == 0) cache->Cancel(source.Get());
  if (disturbance == 1) cache.Release();
  if (disturbance == 2) cache->Invalidate(source.Get(), 0, kFilePages * Page());
  const bool isOver = disturbance < 2;
  bool failed = false;
  for (std::size_t k = 0; k < kCount; ++k) {
    TransactionOutcome* const outcome = *outcomes[k];
    const auto reported = [outcome] { return outcome->Count() != 0; };
    if (!(isOver ? reported() : SoonOrEventually(reported))) {
      world_->Findings().Add("an own read was not reported, disturbance " +
                             std::to_string(disturbance));
      SoonOrEventually(reported);
    }
    failed = failed || outcome->Result() == kFailed;
    if (outcome->Count() != 1) world_->Findings().Add("an own read was reported twice");
    const auto data = memory[k]->Gather(size);
    if (outcome->Result() == kOK) world_->Counts().AddComparedBytes(size);
    const bool good = outcome->Result() == kOK && outcome->Bytes() == size &&
                      file->CanHold(data.data(), size, offsets[k], starts[k].leastVersions);
    const bool mayFail = disturbance < 3 && outcome->Result() == kFailed && outcome->Bytes() == 0;
    if (!good && !mayFail) {
      world_->Findings().Add("wrong end of an own read: " + std::to_string(outcome->Result()));
    }
    memory[k]->LetGo();
  }
  if (disturbance == 1 && failed) Count(StressKind::kCacheOrphans);
}

void StressThread::CollectFirst() {
  const Request request = started_.front();
  started_.pop_front();
  if (!SoonOrEventually([&] { return request->IsFinished(); })) {
    world_->Findings().Add("never reported: " + request->ToString());
    // Its memory may still be written to.
    static std::deque<Request> leftAlone;
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    leftAlone.push_back(request);
    return;
  }
  graveyard_.push_back(request);
  if (graveyard_.size() > kGraveyard) Bury();
}

void StressThread::Bury() {
  graveyard_.front()->CheckAfterwards();
  graveyard_.pop_front();
}

class CachedFileStressTest : public OrvaneTest {};

TEST_F(CachedFileStressTest, ManyThreadsAgreeWithAModel) {
  const StressOptions options = StressOptions::FromEnvironment();
  {
    StressWorld world;
    std::vector<std::unique_ptr<StressThread>> bodies;
    std::vector<std::thread> threads;
    const auto end = Clock::now() + std::chrono::seconds(options.seconds);
    for (std::size_t k = 0; k < kThreads; ++k) {
      bodies.push_back(std::make_unique<StressThread>(&world, k, options.seed));
    }
    for (const auto& body : bodies) {
      threads.emplace_back([&body, end] { body->Run(end); });
    }
    for (std::thread& thread : threads) thread.join();
    bodies[0]->Finish();
    world.End();
    EXPECT_EQ(0u, world.Findings().Count()) << world.Findings().Texts();
    std::ostringstream summary;
    for (std::size_t k = 0; k < static_cast<std::size_t>(StressKind::kCount); ++k) {
      const auto kind = static_cast<StressKind>(k);
      EXPECT_NE(0u, world.Counts().Get(kind)) << StressCounts::NameOf(kind) << " never happened";
      summary << ' ' << StressCounts::NameOf(kind) << ' ' << world.Counts().Get(kind);
    }
    std::cout << "cached stress:" << summary.str() << std::endl;
    PrintStressTotals(world.Counts().GetOperations(), world.Counts().GetComparedBytes());
  }
  EXPECT_TRUE(Eventually([] { return CountFreeSlots() == kRequestSlots; }));
}

}  // namespace
}  // namespace Orvane
