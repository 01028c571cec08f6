// Files without a cache: requests that are cancelled, closed, deleted or abandoned under way.
#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;

bool Failed(const SimRequest& request) {
  return request.Result() == CacheSource::kResultFailed;
}

ORVANE_SMALL_SCENARIO(CancelOfAHangingRead, "The device hangs; only the cancel ends the read.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  SimulatedFiles::SetHanging(file.Name(), true);
  const SimRequest& read = source.Read(0, 2 * kPage);
  source.Cancel();
  Expect(read.Result() != CacheSource::kResultOK, "a read that hung is reported as done");
  SimulatedFiles::SetHanging(file.Name(), false);
}

ORVANE_SMALL_SCENARIO(CancelThenRead, "A slot is used again as soon as its request is cancelled.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  source.Read(0, kPage);
  source.Cancel();
  const SimRequest& read = source.Read(kPage, kPage);
  bench.Await(read);
}

ORVANE_SMALL_SCENARIO(CancelInsideCallback, "The report of one read cancels another.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  SimRequestForm form;
  form.onReport = [](SimRequest& request) { request.Source().Cancel(); };
  source.Read(0, kPage, form);
  source.Read(kPage, kPage, form);
  bench.AwaitAll();
  Simulator::Settle();
}

ORVANE_SMALL_SCENARIO(CancelInsideACancel, "The report of a cancelled read cancels what is left.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  SimulatedFiles::SetHanging(file.Name(), true);
  SimRequestForm form;
  form.onReport = [](SimRequest& request) { request.Source().Cancel(); };
  source.Read(0, kPage, form);
  source.Read(kPage, kPage, form);
  source.Cancel();
  Simulator::Settle();
}

ORVANE_SCENARIO(CancelByAnotherThread, "A device hangs for all but those that are cancelled.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file);
  SimFileModel& otherFile = bench.NewFile(4 * kPage);
  SimSource& other = bench.NewSource(otherFile);
  SimulatedFiles::SetHanging(file.Name(), true);
  for (std::uint64_t k = 0; k < 3; ++k) {
    source.Read(k * kPage, kPage);
    other.Read(k * kPage, 2 * kPage);
  }
  Crew crew;
  crew.Start([&source] { source.Cancel(); });
  other.ReadNow(kPage, kPage);
  bench.AwaitAll();
  crew.Join();
  SimulatedFiles::SetHanging(file.Name(), false);
}

ORVANE_SCENARIO(TwoCancelsAtOnce, "Two threads cancel one source, a third another one.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimFileModel& otherFile = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file);
  SimSource& other = bench.NewSource(otherFile);
  SimulatedFiles::SetHanging(file.Name(), Simulator::Random(2) == 0);
  for (std::uint64_t k = 0; k < 3; ++k) source.Read(k * kPage, kPage);
  for (std::uint64_t k = 0; k < 2; ++k) other.Write(k * kPage, kPage);
  Crew crew;
  for (int thread = 0; thread < 2; ++thread) {
    crew.Start([&source] { source.Cancel(); });
  }
  crew.Start([&other] { other.Cancel(); });
  crew.Join();
  bench.AwaitAll();
  SimulatedFiles::SetHanging(file.Name(), false);
}

ORVANE_SCENARIO(CancelAndUseAgain, "Slots go from one file to another between cancels.") {
  Crew crew;
  for (int thread = 0; thread < 2; ++thread) {
    SimFileModel& file = bench.NewFile(4 * kPage);
    SimSource& source = bench.NewSource(file);
    crew.Start([&source] {
      for (int round = 0; round < 3; ++round) {
        source.Read(Simulator::Random(4) * kPage, kPage);
        source.Write(Simulator::Random(4) * kPage, kPage);
        if (Simulator::Random(3) != 0) source.Cancel();
        source.ReadNow(Simulator::Random(4) * kPage, kPage);
      }
    });
  }
  crew.Join();
  bench.AwaitAll();
}

// Reads one page after the other until it is told to stop.
struct EndlessReader {
  SimSource* source;
  bool stops = false;

  void Next() {
    SimRequestForm form;
    form.onReport = [this](SimRequest&) {
      if (!stops) Next();
    };
    source->Read(Simulator::Random(3) * kPage, kPage, form);
  }
};

ORVANE_SCENARIO(CancelBesideEndlessReads,
                "Reports that start the next read do not keep it waiting.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimFileModel& busyFile = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  EndlessReader reader{&bench.NewSource(busyFile)};
  source.Read(0, kPage);
  reader.Next();
  reader.Next();
  source.Cancel();
  reader.stops = true;
  bench.AwaitAll();
  Simulator::Settle();
}

ORVANE_SMALL_SCENARIO(CloseDuringARead, "A source is closed, opened again and read from.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  source.Read(0, kPage);
  Expect(source.Close(), "an open source does not close");
  Expect(!source.Close(), "a closed source closes");
  if (!source.Open()) return;
  const SimRequest& read = source.Read(kPage, kPage);
  bench.Await(read);
}

ORVANE_SCENARIO(CloseBesideReads, "One thread closes a source from which two others read.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file);
  Crew crew;
  for (int thread = 0; thread < 2; ++thread) {
    crew.Start([&source] {
      for (int k = 0; k < 2; ++k) {
        source.Read(Simulator::Random(4) * kPage, kPage);
        source.ReadNow(Simulator::Random(4) * kPage, kPage);
      }
    });
  }
  crew.Start([&source] { source.Close(); });
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(CloseInsideCallback,
                "The first report closes and opens again; others are under way.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file);
  bool closed = false;
  SimRequestForm form;
  form.onReport = [&closed](SimRequest& request) {
    if (closed) return;
    closed = true;
    Expect(request.Source().Close(), "an open source does not close");
    if (Simulator::Random(2) == 0 && request.Source().Open()) request.Source().Read(0, kPage);
  };
  for (std::uint64_t k = 0; k < 4; ++k) source.Read(k * kPage, kPage, form);
  bench.AwaitAll();
  Simulator::Settle();
}

ORVANE_SCENARIO(CloseAndOpenAgain, "Three threads read from, close and open one source.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file);
  Crew crew;
  for (int thread = 0; thread < 3; ++thread) {
    crew.Start([&source] {
      for (int k = 0; k < 3; ++k) {
        source.Read(Simulator::Random(4) * kPage, kPage);
        if (Simulator::Random(2) == 0) source.Write(Simulator::Random(4) * kPage, kPage);
        if (Simulator::Random(3) == 0 && source.Close()) source.Open();
      }
    });
  }
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(MissingFile, "A file that is not there opens; every read on it reports an error.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimFileModel& otherFile = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewClosedSource(file);
  SimSource& other = bench.NewSource(otherFile);
  if (!source.Delete() || !source.Open()) return;
  SimSource& second = bench.NewClosedSource(file);
  if (!second.Open()) return;
  const auto isMissing = [](SimRequest& request) {
    Expect(request.Result() == CacheSource::kResultError, "a file that is not there is read");
  };
  SimRequestForm form;
  form.onReport = isMissing;
  for (std::uint64_t k = 0; k < 2; ++k) source.Read(k * kPage, kPage, form);
  second.Write(0, kPage);
  other.Read(0, 2 * kPage);
  second.Cancel();
  bench.AwaitAll();
  Simulator::Settle();
}

ORVANE_SCENARIO(DeleteWithRequests, "A file is deleted while it is read and written.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file);
  SimSource& other = bench.NewSource(file);
  SimRequestForm form;
  form.onReport = [](SimRequest& request) {
    if (request.Offset() == kPage) request.Source().Delete();
  };
  const bool inside = Simulator::Random(2) == 0;
  for (std::uint64_t k = 0; k < 3; ++k) {
    source.Read(k * kPage, kPage, inside ? form : SimRequestForm());
    other.Write(k * kPage, kPage);
  }
  if (!inside) source.Delete();
  other.Read(0, kPage);
  bench.AwaitAll();
  Simulator::Settle();
}

ORVANE_SMALL_SCENARIO(ReleaseInFlight, "The last reference of a source goes while it reads.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  source.Read(0, kPage);
  source.Read(kPage, kPage);
  source.Release();
}

ORVANE_SMALL_SCENARIO(ReleaseInsideCallback, "The last reference goes in the report of a read.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  SimRequestForm form;
  form.onReport = [](SimRequest& request) {
    if (!request.Source().IsReleased()) request.Source().Release();
  };
  source.Read(0, kPage, form);
  bench.AwaitAll();
  Simulator::Settle();
}

ORVANE_SMALL_SCENARIO(CloseGivesUpTheSource,
                      "A report that only a close can bring releases its source.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file);
  SimulatedFiles::SetHanging(file.Name(), true);
  SimRequestForm form;
  form.onReport = [](SimRequest& request) {
    if (Failed(request)) request.Source().Release();
  };
  source.Read(0, kPage, form);
  if (Simulator::Random(2) == 0) {
    source.Close();
  } else {
    source.Delete();
  }
  Simulator::Settle();
}

ORVANE_SCENARIO(ReleaseAmongReports, "The last reference goes in one of several reports.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file);
  SimSource& other = bench.NewSource(file);
  // Nobody starts a request once it may be gone.
  bool mayGo = false;
  SimRequestForm form;
  form.onReport = [&mayGo](SimRequest& request) {
    if (mayGo && !request.Source().IsReleased()) request.Source().Release();
  };
  const std::uint64_t reads = 2 + Simulator::Random(3);
  for (std::uint64_t k = 0; k < reads; ++k) {
    source.Read(k * kPage, kPage, form);
    other.Read(k * kPage, kPage);
  }
  mayGo = true;
  other.Cancel();
  bench.AwaitAll();
  Simulator::Settle();
}

}  // namespace
}  // namespace Orvane
