// Files without a cache under load: more requests than slots, long waits, many threads.
#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;
constexpr std::size_t kSlots = 61;

ORVANE_SCENARIO(MoreRequestsThanSlots, "Four threads ask for 72 reads of a device that hangs.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  const std::uint64_t start = Simulator::GetTimeMicro();
  int busy = 0;
  int threads = 4;
  SimulatedFiles::SetHanging(file.Name(), true);
  Crew crew;
  for (int thread = 0; thread < 4; ++thread) {
    crew.Start([&bench, &source, &busy, &threads] {
      SimRequestForm form;
      form.mayBeBusy = true;
      for (std::uint64_t k = 0; k < 18;) {
        if (source.Read(k % 2 * kPage, kPage, form).Result() != CacheSource::kResultBusy) {
          ++k;
          continue;
        }
        ++busy;
        Simulator::WaitUntil([&bench] { return bench.CountOpen() < kSlots; });
      }
      --threads;
    });
  }
  Simulator::WaitUntil([&busy, &threads] { return busy != 0 || threads == 0; });
  // Unless the first have waited too long when the last come.
  const bool inTime = Simulator::GetTimeMicro() - start < kMostQueueMicros;
  Expect(busy != 0 || !inTime || Simulator::GetFaults() != 0, "more requests than slots");
  SimulatedFiles::SetHanging(file.Name(), false);
  crew.Join();
  bench.AwaitAll();
}

// As many readers as slots: each report finds its own slot free again.
ORVANE_SCENARIO(FullHouse, "All slots are in use, and each report starts the next read.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  int left = 8;
  SimRequestForm last;
  last.onReport = [&left](SimRequest& request) {
    if (left-- > 0) request.Source().Read(kPage, kPage);
  };
  SimulatedFiles::SetHanging(file.Name(), true);
  for (std::size_t k = 0; k < kSlots; ++k) source.Read(0, kPage, last);
  SimulatedFiles::SetHanging(file.Name(), false);
  bench.AwaitAll();
  Simulator::Settle();
}

// The first report keeps the I/O thread for longer than requests may wait.
struct LongReport {
  bool isRunning = false;
  bool mayEnd = false;
  SimRequest* inFlight = nullptr;  // of the same file
  SimRequest* other = nullptr;     // of another file, asked for before
  std::uint64_t otherBegan = 0;
  bool inFlightWasOpen = false;
  bool otherWasInTime = false;

  void Run() {
    otherWasInTime = Simulator::GetTimeMicro() - otherBegan < kMostQueueMicros;
    inFlightWasOpen = inFlight && !inFlight->IsOver();
    isRunning = true;
    Simulator::WaitUntil([this] { return mayEnd; });
    MTInterface::Sleep(10001);
  }
};

ORVANE_SCENARIO(QueueTimeout, "Who waited 10 s to be issued fails with his file, no other does.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimFileModel& otherFile = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  SimSource& other = bench.NewSource(otherFile);
  LongReport report;
  report.otherBegan = Simulator::GetTimeMicro();
  SimRequest& otherRead = other.Read(0, kPage);
  SimRequestForm form;
  form.onReport = [&report](SimRequest&) { report.Run(); };
  SimRequest& first = source.Read(0, kPage, form);
  report.inFlight = &source.Read(kPage, kPage);
  Simulator::WaitUntil([&] { return report.isRunning || bench.CountOpen() == 0; });
  if (!report.isRunning) return;  // it was refused
  SimRequest& waits = source.Read(2 * kPage, kPage);
  SimRequest& waitsToo = source.Write(3 * kPage, kPage);
  report.mayEnd = true;
  bench.AwaitAll();
  Simulator::Settle();
  if (Simulator::GetFaults() != 0) return;
  Expect(first.Result() != CacheSource::kResultFailed, "nobody has cancelled it");
  Expect(waits.Result() == CacheSource::kResultError, "it waited too long");
  Expect(waitsToo.Result() == CacheSource::kResultError, "it waited too long, too");
  Expect(!report.inFlightWasOpen || report.inFlight->Result() == CacheSource::kResultError,
         "others of its file fail with it");
  Expect(!report.otherWasInTime || otherRead.Result() == CacheSource::kResultOK,
         "another file has nothing to do with it");
}

ORVANE_SCENARIO(ThreeThreads, "Reads, writes and cancels of one source, synchronous or not.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  SimSource& source = bench.NewSource(file);
  Crew crew;
  for (int thread = 0; thread < 3; ++thread) {
    crew.Start([&source] {
      for (int k = 0; k < 4; ++k) {
        const std::uint64_t offset = Simulator::Random(6) * kPage;
        SimRequestForm form;
        form.pieces = 1 + Simulator::Random(2);
        form.asList = Simulator::Random(2) == 0;
        switch (Simulator::Random(9)) {
          case 0:
            source.Cancel();
            break;
          case 1:
          case 2:
            source.Write(offset, 2 * kPage, form);
            break;
          case 3:
            source.WriteNow(offset, 2 * kPage, form);
            break;
          case 4:
          case 5:
            source.ReadNow(offset, 2 * kPage, form);
            break;
          default:
            source.Read(offset, 2 * kPage, form);
            break;
        }
      }
    });
  }
  crew.Join();
  bench.AwaitAll();
}

}  // namespace
}  // namespace Orvane
