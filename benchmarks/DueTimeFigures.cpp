// Requests with due times at a source that is slower than they come.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "InlineSource.h"
#include "LatencyHistogram.h"
#include "LibraryObjects.h"
#include "Suite.h"

namespace bench {
namespace {

using Millis = std::chrono::duration<double, std::milli>;

constexpr std::uint64_t kBlock = 4096;
constexpr std::size_t kBlocks = 4096;
constexpr double kServiceMs = 0.5;

struct Request {
  double comesMs;
  double dueMs;
};

// One read at a time, kServiceMs each, on a thread of its own.
class SlowSource : public InlineSource {
 public:
  explicit SlowSource(Orvane::Cache* cache) : InlineSource(cache), thread_([this] { Serve(); }) {}

  bool CanGatherReads() override { return false; }
  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, Orvane::BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    const std::lock_guard lock(mutex_);
    if (busy_) return kResultBusy;
    busy_ = true;
    list->AddRef("benchmarks/DueTimeFigures", "SlowSource::Read", __LINE__);
    callback->AddRef("benchmarks/DueTimeFigures", "SlowSource::Read", __LINE__);
    read_ = {offset, list, callback};
    changed_.notify_one();
    return kResultPending;
  }
  // Ends the thread; nothing is under way any more.
  void Stop() {
    {
      const std::lock_guard lock(mutex_);
      over_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }

 private:
  struct Read {
    std::uint64_t offset = 0;
    Orvane::BufferList* list = nullptr;
    ResultCallbackBufferList* callback = nullptr;
  };

  void Serve() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return over_ || read_.list; });
      if (over_) return;
      const Read read = std::exchange(read_, {});
      lock.unlock();
      const auto end = Clock::now() + Millis(kServiceMs);
      std::this_thread::sleep_until(std::chrono::time_point_cast<Clock::duration>(end));
      lock.lock();
      busy_ = false;
      lock.unlock();
      read.callback->Callback(kResultOK, read.offset, read.list,
                              read.list->GetTotalSizeOfBuffers());
      Drop(read.callback);
      Drop(read.list);
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool over_ = false;  // guarded by mutex_, as all below
  bool busy_ = false;
  Read read_;
  std::thread thread_;  // last: it uses the others
};

// Half again as many as can be served, for as long as the patience of those that have most.
std::vector<Request> MakeRequests(std::uint64_t seed) {
  constexpr double kComingMs = 1000;
  constexpr double kLoad = 1.5;
  // Played now, wanted soon, wanted some time.
  constexpr double kPatienceMs[] = {20, 200, 1500};
  std::mt19937_64 random(seed);
  std::exponential_distribution<double> pause(kLoad / kServiceMs);
  std::uniform_int_distribution<int> kind(0, 3);
  std::vector<Request> requests;
  for (double now = pause(random); now < kComingMs; now += pause(random)) {
    requests.push_back({now, now + kPatienceMs[std::min(kind(random), 2)]});
  }
  return requests;
}

// Of a server that takes the first by `before` among those that have come, one at a time. With
// `givesUp`, those that can no longer be done in time are left to the end.
template <typename Before>
double ShareInTime(const std::vector<Request>& requests, bool givesUp, Before before) {
  std::multiset<Request, Before> waiting(before);
  std::size_t next = 0;
  std::size_t inTime = 0;
  double now = 0;
  while (next < requests.size() || !waiting.empty()) {
    if (waiting.empty()) now = std::max(now, requests[next].comesMs);
    while (next < requests.size() && requests[next].comesMs <= now)
      waiting.insert(requests[next++]);
    const Request request = *waiting.begin();
    waiting.erase(waiting.begin());
    if (givesUp && now + kServiceMs > request.dueMs) continue;
    now += kServiceMs;
    if (now <= request.dueMs) ++inTime;
  }
  return static_cast<double>(inTime) / static_cast<double>(requests.size());
}

class Reader : public Orvane::FileSource::ResultCallbackBufferList {
 public:
  struct Shared {
    Clock::time_point start;
    std::atomic<std::size_t> inTime{0};
    std::atomic<std::size_t> left{0};
    std::atomic<bool> failed{false};
    std::unique_ptr<Orvane::MTSemaphore> finished{Orvane::MTInterface::NewSemaphore(1, 0)};
  };

  Reader(Shared* shared, double dueMs) : shared_(shared), dueMs_(dueMs) {}

  void Callback(Orvane::CacheSource::Result_t result, std::uint64_t, Orvane::BufferList*,
                std::uint64_t) override {
    OnDone(result == Orvane::CacheSource::kResultOK);
  }

  void OnDone(bool good) {
    if (!good) {
      shared_->failed = true;
    } else if (Millis(Clock::now() - shared_->start).count() <= dueMs_) {
      ++shared_->inTime;
    }
    if (shared_->left.fetch_sub(1) == 1) shared_->finished->Release(1);
  }

 private:
  Shared* const shared_;
  const double dueMs_;
};

// What the library does with them.
double MeasureShare(const std::vector<Request>& requests) {
  Orvane::Cache* const cache = NewCache({kBlock, kBlocks});
  auto* const source = new SlowSource(cache);
  Blocks memory(kBlock, requests.size(), 1);
  Reader::Shared shared;
  shared.left = requests.size();
  std::vector<Orvane::SharedObject*> objects;
  const std::uint32_t startMilli = Orvane::MTInterface::GetCurrentTimeMilli();
  shared.start = Clock::now();
  std::uint64_t block = 0;
  for (const Request& request : requests) {
    auto* const reader = new Reader(&shared, request.dueMs);
    Orvane::BufferList* const list = memory.NewList();
    objects.push_back(reader);
    objects.push_back(list);
    std::this_thread::sleep_until(
        std::chrono::time_point_cast<Clock::duration>(shared.start + Millis(request.comesMs)));
    const auto result = source->ReadAsyncWithList(
        2 * block++ * kBlock, list, reader, startMilli + static_cast<std::uint32_t>(request.dueMs));
    if (result != Orvane::CacheSource::kResultPending) reader->OnDone(/*good=*/false);
  }
  shared.finished->Wait(0xFFFFFFFF, 1);
  source->Cancel();
  source->Stop();
  for (Orvane::SharedObject* const object : objects) Drop(object);
  Drop(source);
  Drop(cache);
  if (shared.failed) throw std::runtime_error("a read with a due time failed");
  return static_cast<double>(shared.inTime) / static_cast<double>(requests.size());
}

std::vector<Value> MeasureDueTimes() {
  static std::uint64_t seed = 0;
  const std::vector<Request> requests = MakeRequests(++seed);
  const auto byDueTime = [](const Request& a, const Request& b) { return a.dueMs < b.dueMs; };
  const auto byArrival = [](const Request& a, const Request& b) { return a.comesMs < b.comesMs; };
  const double best = ShareInTime(requests, /*givesUp=*/true, byDueTime);
  const double fifo = ShareInTime(requests, /*givesUp=*/false, byArrival);
  const double ours = MeasureShare(requests);
  return {{"done in time", "of all", ours},
          {"done in time, first in first out (computed)", "of all", fifo},
          {"done in time, best possible order (computed)", "of all", best},
          {"share of the best", "", ours / best}};
}

}  // namespace

void AddDueTimeFigures(Suite* suite) {
  suite->figures.push_back({"requests with due times, half again as many as can be served",
                            MeasureDueTimes,
                            {{"P14", "share of the best", true, 0.95}}});
}

}  // namespace bench
