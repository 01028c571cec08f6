// Reports of reads through a cache that go on using the library.
#include <memory>
#include <utility>

#include "CacheScenarioTools.h"
#include "Scenario.h"
#include "SimBench.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;

struct ReportGoesWrong {};

// Reads the next half page, `left` times.
struct ReadOn {
  SimSource* source;
  int left;

  void operator()(SimRequest& request) const {
    if (left == 0) return;
    const std::uint64_t next = request.Offset() + kPage / 2;
    source->Read(next, kPage / 2, ThenDo(ReadOn{source, left - 1}));
  }
};

ORVANE_SCENARIO(CancelInAReport, "The report of one read cancels another one.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 2));
  source.Read(0, 16, ThenDo([&source](SimRequest&) { source.Cancel(); }));
  const SimRequest& other = source.Read(kPage, 16, AnywhereInPieces(1));
  bench.Await(other);
}

ORVANE_SCENARIO(ReadingOnInReports, "Each report reads on, one throws, another thread cancels.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 2));
  StartedRequests started;
  source.Read(0, kPage / 2, ThenDo(ReadOn{&source, 5}));
  source.Read(kPage, kPage / 2, ThenDo(ReadOn{&source, 4}));
  source.Read(4 * kPage, 3, ThenDo([](SimRequest&) { throw ReportGoesWrong(); }));
  Simulator::Step();
  for (int k = 0; k < 2; ++k) {
    started.Add(source.Read(Simulator::Random(5 * kPage), kPage, AnywhereInPieces(2)));
    if (Simulator::Random(2) == 0) started.Cancel(source);
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(SynchronousCallsInReports, "On threads of the library they are refused.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 2));
  SimSource& uncached = bench.NewSource(file);
  // Nobody cancels, invalidates or closes: no report runs on a thread of the application.
  const auto refused = [&source, &uncached](SimRequest&) {
    SimRequestForm form;
    form.onLibraryThread = true;
    SimSource& asked = Simulator::Random(2) == 0 ? source : uncached;
    asked.ReadNow(Simulator::Random(4) * kPage, kPage, form);
    source.ReadNow(0, kPage, form);
  };
  source.ReadNow(0, kPage);
  for (std::uint64_t k = 0; k < 3; ++k) source.Read(k * kPage, kPage, ThenDo(refused));
  SimRequestForm form = ThenDo(refused);
  form.anywhere = false;
  uncached.Read(3 * kPage, kPage, std::move(form));
  bench.AwaitAll();
}

ORVANE_SCENARIO(WritesInReports, "Reports write where others read, on whatever thread they run.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 3));
  const auto write = [&source](SimRequest& request) {
    source.Write(request.Offset() / kPage * kPage, kPage);
    source.Read(request.Offset(), 16, AnywhereInPieces(1));
  };
  Crew crew;
  crew.Start([&source] {
    for (int k = 0; k < 4; ++k) {
      source.ReadNow(Simulator::Random(4 * kPage), 64, AnywhereInPieces(1));
    }
  });
  for (std::uint64_t k = 0; k < 3; ++k) source.Read(k * kPage + 8, kPage, ThenDo(write));
  source.Write(2 * kPage, kPage);
  crew.Join();
  bench.AwaitAll();
  Simulator::Settle();
  for (std::uint64_t k = 0; k < 4; ++k) source.ReadNow(k * kPage, kPage);
}

// What a report may do. `left` bounds how much follows of it.
class AnythingInReports {
 public:
  AnythingInReports(SimSource* source, SimSource* other, std::shared_ptr<int> left)
      : source_(source), other_(other), left_(std::move(left)) {}

  void operator()(SimRequest&) const {
    if (*left_ == 0) return;
    --*left_;
    SimSource& source = Simulator::Random(4) == 0 ? *other_ : *source_;
    const std::uint64_t page = Simulator::Random(4) * kPage;
    switch (Simulator::Random(12)) {
      case 0:
        source.Cancel();
        break;
      case 1:
        if (source.GetCache()) source.Purge();
        break;
      case 2:
        if (source.GetCache()) source.Invalidate(page, Simulator::Random(2 * kPage));
        break;
      case 3:
        source.Close();
        break;
      case 4:
        source.Write(page, kPage);
        break;
      case 5:
        source.PreRead(page, 2 * kPage);
        break;
      case 6:
        if (source.GetCache()) Count(source.GetCache());
        break;
      case 7:
        throw ReportGoesWrong();
      default:
        Read(source, page);
        break;
    }
  }

  void Read(SimSource& source, std::uint64_t place) const {
    SimRequestForm form = ThenDo(*this);
    form.anywhere = source.GetCache() != nullptr;
    source.Read(place, kPage, std::move(form));
  }

 private:
  static void Count(Cache* cache) {
    cache->CollectCacheStats(Simulator::Random(2) == 0);
    cache->Dump();
    cache->ResetCacheStats();
    cache->NotifySomethingChanged();
  }

  SimSource* source_;
  SimSource* other_;
  std::shared_ptr<int> left_;
};

ORVANE_SCENARIO(AnythingInAReport,
                "Reports of cached and uncached requests cancel, close, write, throw, read on.") {
  Cache* const cache = bench.NewCache(kPage, 3);
  SimSource& cached = bench.NewSource(bench.NewFile(4 * kPage), cache);
  SimSource& uncached = bench.NewSource(bench.NewFile(4 * kPage));
  SimSource& sibling = bench.NewSource(bench.NewFile(4 * kPage), cache);
  std::shared_ptr<int> left;
  {
    const SimulatorAllocations::Exempt exempt;
    left = std::make_shared<int>(8);
  }
  const AnythingInReports viaCache(&cached, &sibling, left);
  const AnythingInReports past(&uncached, &cached, left);
  cached.ReadNow(0, kPage);
  Crew crew;
  crew.Start([&past, &uncached] {
    past.Read(uncached, 0);
    past.Read(uncached, kPage);
  });
  for (std::uint64_t k = 0; k < 3; ++k) {
    viaCache.Read(cached, k * kPage);
    viaCache.Read(sibling, k * kPage);
  }
  switch (Simulator::Random(3)) {
    case 0:
      cached.Cancel();
      break;
    case 1:
      cached.Invalidate(0, 2 * kPage);
      break;
    default:
      break;
  }
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(CancelsInManyReports,
                "Reports on several threads cancel, purge and close while each other wait.") {
  Cache* const cache = bench.NewCache(kPage, 4);
  SimSource& first = bench.NewSource(bench.NewFile(4 * kPage), cache);
  SimSource& second = bench.NewSource(bench.NewFile(4 * kPage), cache);
  const auto ends = [&first, &second](SimRequest& request) {
    SimSource& other = &request.Source() == &first ? second : first;
    switch (Simulator::Random(4)) {
      case 0:
        other.Cancel();
        break;
      case 1:
        other.Purge();
        break;
      case 2:
        request.Source().Cancel();
        break;
      default:
        other.Close();
        break;
    }
  };
  first.ReadNow(0, kPage);
  Crew crew;
  crew.Start([&second, &ends] {
    for (std::uint64_t k = 0; k < 2; ++k) second.Read(k * kPage, 24, ThenDo(ends));
    second.Invalidate(0, kPage);
  });
  for (std::uint64_t k = 0; k < 3; ++k) first.Read(k * kPage, 24, ThenDo(ends));
  StartedRequests started;
  started.Add(first.Read(3 * kPage, kPage));
  started.Cancel(first);
  crew.Join();
  bench.AwaitAll();
}

}  // namespace
}  // namespace Orvane
