// Everything at once, from many threads, against a model of the file in memory.
// How long and with what it runs says the environment: see StressOptions.
#include <atomic>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <random>
#include <thread>

#include "FileTestTools.h"
#include "StressTools.h"

namespace Orvane {
namespace {

using Random = std::mt19937_64;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kThreads = 8;
constexpr std::size_t kRegionPages = 96;  // of the file, per thread
constexpr std::size_t kLanes = 12;        // requests of a thread at a time
constexpr std::size_t kLanePages = 8;     // of the file, per request
constexpr unsigned char kPoison = 0xA5;
static_assert(kLanes * kLanePages == kRegionPages);

std::size_t Pick(Random* random, std::size_t below) {
  return (*random)() % below;
}

// What went wrong, of all threads.
struct Findings {
  std::atomic<std::uint64_t> wrongBytes{0};
  std::atomic<std::uint64_t> wrongResults{0};
  std::atomic<int> lastWrong{0};
  std::atomic<std::uint64_t> touchedAfterReport{0};
  std::atomic<std::uint64_t> lostReports{0};
  std::atomic<std::uint64_t> extraReports{0};
  std::atomic<std::uint64_t> heldLocks{0};
  std::atomic<std::uint64_t> accepted{0};
  std::atomic<std::uint64_t> refused{0};
  std::atomic<std::uint64_t> cancelled{0};
  std::atomic<std::uint64_t> synchronous{0};
  std::atomic<std::uint64_t> comparedBytes{0};
};

// One request over a part of its lane, which may start itself again from its report.
class StressRequest : public FileSource::ResultCallbackBufferList {
 public:
  struct Plan {
    bool write;
    std::uint64_t offset;     // bytes in the file
    unsigned char* expected;  // the model at this offset
    int repeats;              // how often the report starts it again
  };

  StressRequest(Findings* findings, FileSource* source, const Pieces& pieces, const Plan& plan)
      : findings_(findings),
        source_(source),
        pieces_(pieces),
        plan_(plan),
        list_(NewListOf(pieces)) {
    for (const auto& piece : pieces_) size_ += piece.second;
    // Who starts again from a report keeps the source for it; the others leave that to the library.
    keepsSource_ = plan_.repeats > 0;
    if (keepsSource_) source_->AddRef("tests", "StressRequest", 0);
  }

  bool Start() {
    if (plan_.write) PutModelIntoMemory();
    ++expectedReports_;
    const auto result =
        plan_.write ? source_->WriteAsyncWithList(plan_.offset, list_, this, CacheSource::kDueASAP)
                    : source_->ReadAsyncWithList(plan_.offset, list_, this, CacheSource::kDueASAP);
    if (result == kPending) {
      ++findings_->accepted;
      return true;
    }
    --expectedReports_;
    ++findings_->refused;
    if (result != kBusy && result != kNotSupported) ++findings_->wrongResults;
    return false;
  }

  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override {
    if (finished_ || reports_ == expectedReports_) ++findings_->extraReports;
    CheckReport(result, offset, list, bytes);
    Poison();
    ++reports_;
    if (result == kOK && plan_.repeats-- > 0) {
      if (Start()) return;
      Poison();
    }
    Finish();
  }

  // Also instead of a report, after a start that was refused.
  void Finish() {
    if (keepsSource_) source_->DecRef("tests", "StressRequest", 0);
    finished_ = true;
  }

  bool IsFinished() const { return finished_; }
  // Whether the bytes in the file are what the model says.
  bool IsCertain() const { return !plan_.write || !failed_; }
  const Plan& GetPlan() const { return plan_; }

  // REQUIRES: finished.
  void CheckPoison() {
    for (const auto& [address, size] : pieces_) {
      for (std::size_t i = 0; i < size; ++i) {
        if (address[i] == kPoison) continue;
        ++findings_->touchedAfterReport;
        return;
      }
    }
  }

 protected:
  ~StressRequest() override { list_->DecRef("tests", "StressRequest", 0); }

 private:
  void CheckReport(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                   std::uint64_t bytes) {
    if (offset != plan_.offset || list != list_) ++findings_->wrongResults;
    for (std::size_t i = 0; i < pieces_.size(); ++i) {
      if (list->GetBuffer(i)->GetLockState() == Buffer::kBufferLocked) ++findings_->heldLocks;
    }
    if (result == kFailed && bytes == 0) {
      ++findings_->cancelled;
      failed_ = true;
      return;
    }
    if (result != kOK || bytes != size_) {
      ++findings_->wrongResults;
      failed_ = true;
      return;
    }
    if (plan_.write) return;
    findings_->comparedBytes += size_;
    if (!MemoryIsLikeModel()) ++findings_->wrongBytes;
  }
  void PutModelIntoMemory() {
    const unsigned char* next = plan_.expected;
    for (const auto& [address, size] : pieces_) {
      std::memcpy(address, next, size);
      next += size;
    }
  }
  bool MemoryIsLikeModel() const {
    const unsigned char* next = plan_.expected;
    for (const auto& [address, size] : pieces_) {
      if (std::memcmp(address, next, size) != 0) return false;
      next += size;
    }
    return true;
  }
  void Poison() {
    for (const auto& [address, size] : pieces_) std::memset(address, kPoison, size);
  }

  Findings* const findings_;
  FileSource* const source_;
  bool keepsSource_ = false;
  const Pieces pieces_;
  Plan plan_;
  BufferList* const list_;  // one reference
  std::size_t size_ = 0;
  // The submitter's until the start, the reports' from then on.
  std::atomic<int> expectedReports_{0};
  std::atomic<int> reports_{0};
  std::atomic<bool> failed_{false};
  std::atomic<bool> finished_{false};
};

// One thread of the test: a source and a region of the file of its own.
class StressThread {
 public:
  StressThread(Findings* findings, std::string path, std::size_t number, std::uint64_t seed)
      : findings_(findings),
        path_(std::move(path)),
        start_(number * kRegionPages * Page()),
        random_(seed * kThreads + number),
        memory_(2 * kRegionPages * Page()),
        model_(kRegionPages * Page()),
        source_(std::make_unique<AutoRelease<NativeFileSource>>(
            OpenSource(path_, OpenFor::kReadAndWrite, /*create=*/true))) {}

  void Run(Clock::time_point end) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) RewriteLane(lane);
    while (Clock::now() < end) {
      if (Pick(&random_, 4) == 0)
        CheckSynchronously();
      else
        RunBatch();
    }
    source_->Release();
  }

  const std::vector<unsigned char>& Model() const { return model_; }
  std::uint64_t Start() const { return start_; }

 private:
  NativeFileSource* Source() { return source_->Get(); }
  unsigned char* ModelAt(std::size_t lane, std::size_t page) {
    return model_.data() + (lane * kLanePages + page) * Page();
  }
  std::uint64_t OffsetOf(std::size_t lane, std::size_t page) const {
    return start_ + (lane * kLanePages + page) * Page();
  }

  // `pages` pages of the lane's memory, in one of many shapes.
  Pieces PickPieces(std::size_t lane, std::size_t pages) {
    unsigned char* const base = memory_.At(lane * 2 * kLanePages * Page());
    Pieces pieces;
    const std::size_t shape = Pick(&random_, 4);
    if (shape == 0) return {{base, pages * Page()}};
    for (std::size_t done = 0; done < pages;) {
      const std::size_t count = shape == 1 ? 1 : 1 + Pick(&random_, pages - done);
      // Back to back, with gaps, or backwards.
      const std::size_t at =
          shape == 3 ? 2 * kLanePages - done - count : done + (shape == 1 ? done : 0);
      pieces.emplace_back(base + at * Page(), count * Page());
      done += count;
    }
    return pieces;
  }

  void NewModelContents(std::size_t lane, std::size_t page, std::size_t pages) {
    FillPattern(ModelAt(lane, page), pages * Page(), OffsetOf(lane, page), random_());
  }

  // Makes file and model agree on a whole lane.
  void RewriteLane(std::size_t lane) {
    NewModelContents(lane, 0, kLanePages);
    for (;;) {
      const AutoRelease<Buffer> buffer(new HostBuffer(ModelAt(lane, 0), kLanePages * Page()));
      // The vector is not aligned: through the lane's memory.
      unsigned char* const base = memory_.At(lane * 2 * kLanePages * Page());
      std::memcpy(base, ModelAt(lane, 0), kLanePages * Page());
      const Outcome outcome = WriteFrom(Source(), OffsetOf(lane, 0), {{base, kLanePages * Page()}});
      if (outcome == Outcome{kOK, kLanePages * Page()}) return;
      if (outcome.result != kBusy) {
        ++findings_->wrongResults;
        return;
      }
      std::this_thread::yield();
    }
  }

  void CheckSynchronously() {
    const std::size_t lane = Pick(&random_, kLanes);
    const std::size_t page = Pick(&random_, kLanePages);
    const std::size_t pages = 1 + Pick(&random_, kLanePages - page);
    const Pieces pieces = PickPieces(lane, pages);
    const Outcome outcome = ReadInto(Source(), OffsetOf(lane, page), pieces);
    ++findings_->synchronous;
    if (outcome.result == kBusy) return;
    findings_->comparedBytes += pages * Page();
    if (outcome != Outcome{kOK, pages * Page()}) ++findings_->wrongResults;
    const unsigned char* next = ModelAt(lane, page);
    for (const auto& [address, size] : pieces) {
      if (std::memcmp(address, next, size) != 0) ++findings_->wrongBytes;
      next += size;
    }
  }

  void RunBatch() {
    std::vector<StressRequest*> requests;
    std::vector<std::size_t> lanes;
    const std::size_t count = 1 + Pick(&random_, kLanes);
    const std::size_t first = Pick(&random_, kLanes);
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t lane = (first + i) % kLanes;
      const std::size_t page = Pick(&random_, kLanePages);
      const std::size_t pages = 1 + Pick(&random_, kLanePages - page);
      const bool write = Pick(&random_, 3) == 0;
      const Pieces pieces = PickPieces(lane, pages);
      if (write) NewModelContents(lane, page, pages);
      auto* const request = new StressRequest(
          findings_, Source(), pieces,
          {write, OffsetOf(lane, page), ModelAt(lane, page), static_cast<int>(Pick(&random_, 4))});
      if (request->Start()) {
        requests.push_back(request);
        lanes.push_back(lane);
      } else {
        request->Finish();
        request->DecRef("tests", "StressThread::RunBatch", 0);
        if (write) RewriteLane(lane);
      }
    }
    Disturb();
    Collect(requests, lanes);
  }

  // Cancels, closes or releases in the midst of it, or does not.
  void Disturb() {
    switch (Pick(&random_, 8)) {
      case 0:
        Source()->Cancel();
        break;
      case 1:
        if (!Source()->Close() || !Source()->Open(true, true, false)) ++findings_->wrongResults;
        break;
      case 2:
        source_->Release();
        source_ = std::make_unique<AutoRelease<NativeFileSource>>(
            OpenSource(path_, OpenFor::kReadAndWrite));
        break;
      default:
        break;
    }
  }

  void Collect(const std::vector<StressRequest*>& requests, const std::vector<std::size_t>& lanes) {
    for (std::size_t i = 0; i < requests.size(); ++i) {
      if (!Eventually([&] { return requests[i]->IsFinished(); })) {
        ++findings_->lostReports;
        continue;  // its memory may still be written to: left alone
      }
    }
    for (std::size_t i = 0; i < requests.size(); ++i) {
      if (!requests[i]->IsFinished()) continue;
      requests[i]->CheckPoison();
      const bool certain = requests[i]->IsCertain();
      requests[i]->DecRef("tests", "StressThread::Collect", 0);
      if (!certain) RewriteLane(lanes[i]);
    }
  }

  Findings* const findings_;
  const std::string path_;
  const std::uint64_t start_;
  Random random_;
  const Memory memory_;
  std::vector<unsigned char> model_;
  std::unique_ptr<AutoRelease<NativeFileSource>> source_;
};

class FileStressTest : public OrvaneTest {};

TEST_F(FileStressTest, ManyThreadsAgreeWithAModelInMemory) {
  const StressOptions options = StressOptions::FromEnvironment();
  const TestFile file("stress");
  Findings findings;
  std::vector<std::unique_ptr<StressThread>> bodies;
  std::vector<std::thread> threads;
  const auto end = Clock::now() + std::chrono::seconds(options.seconds);
  for (std::size_t i = 0; i < kThreads; ++i) {
    bodies.push_back(std::make_unique<StressThread>(&findings, file.Path(), i, options.seed));
  }
  for (const auto& body : bodies) {
    threads.emplace_back([&body, end] { body->Run(end); });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& body : bodies) {
    EXPECT_EQ(body->Model(), file.Read(body->Start(), body->Model().size()));
  }
  EXPECT_EQ(0u, findings.wrongBytes);
  EXPECT_EQ(0u, findings.wrongResults);
  EXPECT_EQ(0u, findings.touchedAfterReport);
  EXPECT_EQ(0u, findings.lostReports);
  EXPECT_EQ(0u, findings.extraReports);
  EXPECT_EQ(0u, findings.heldLocks);
  EXPECT_TRUE(Eventually([] { return CountFreeSlots() == kRequestSlots; }));
  std::cout << findings.accepted << " requests accepted, " << findings.refused << " refused, "
            << findings.cancelled << " cancelled" << std::endl;
  PrintStressTotals(findings.accepted + findings.refused + findings.synchronous,
                    findings.comparedBytes);
}

}  // namespace
}  // namespace Orvane
