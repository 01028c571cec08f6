// What single transfers of a file without a cache give: ends of files, pieces, refusals.
#include <limits>

#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;

SimRequestForm InPieces(std::uint64_t pieces) {
  SimRequestForm form;
  form.pieces = pieces;
  form.asList = true;
  return form;
}

ORVANE_SMALL_SCENARIO(SynchronousRead, "A read whose caller waits for it, then another one.") {
  SimFileModel& file = bench.NewFile(3 * kPage);
  SimSource& source = bench.NewSource(file);
  source.ReadNow(kPage, kPage);
  source.ReadNow(2 * kPage, 2 * kPage, InPieces(2));
}

ORVANE_SMALL_SCENARIO(SynchronousReadGivesBack,
                      "A caller finds his list at rest when the call returns, and uses it again.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  const OwnList list(kPage);
  for (int k = 0; k < 2; ++k) {
    std::uint64_t bytes = 0;
    CacheSource::Result_t result = CacheSource::kResultNone;
    try {
      result = source.Get()->ReadWithList(kPage, list.Get(), &bytes);
    } catch (const std::bad_alloc&) {
      // Memory was short.
    }
    list.CheckAtRest();
    Expect(Simulator::GetOpenRequests() == 0, "a synchronous call has left its slot in use");
    if (Simulator::GetFaults() != 0) return;
    const bool waitedLong = result == CacheSource::kResultError;  // time may jump
    Expect(waitedLong || (result == CacheSource::kResultOK && bytes == kPage), "a wrong answer");
  }
}

ORVANE_SCENARIO(SynchronousMixture, "Reads and writes of buffers and lists, one after the other.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  SimSource& source = bench.NewSource(file);
  for (int k = 0; k < 5; ++k) {
    const std::uint64_t offset = Simulator::Random(7) * kPage;
    const std::uint64_t pages = 1 + Simulator::Random(3);
    SimRequestForm form;
    form.pieces = 1 + Simulator::Random(pages);
    form.asList = Simulator::Random(2) == 0;
    if (Simulator::Random(2) == 0) {
      source.WriteNow(offset, pages * kPage, form);
    } else {
      source.ReadNow(offset, pages * kPage, form);
    }
  }
}

ORVANE_SCENARIO(EndOfFile, "Reads before, across, at and behind the end of a file of any size.") {
  const std::uint64_t bytes =
      Simulator::Random(4) == 0 ? Simulator::Random(3) * kPage : Simulator::Random(3 * kPage);
  SimFileModel& file = bench.NewFile(bytes);
  SimulatedFiles::SetBuffered(file.Name(), Simulator::Random(2) == 0);
  SimSource& source = bench.NewSource(file);
  for (std::uint64_t page = 0; page < 5; ++page) {
    const std::uint64_t pages = 1 + Simulator::Random(3);
    if (Simulator::Random(3) == 0) {
      source.ReadNow(page * kPage, pages * kPage, InPieces(pages));
    } else {
      source.Read(page * kPage, pages * kPage);
    }
  }
  bench.AwaitAll();
}

ORVANE_SMALL_SCENARIO(ReadAcrossTheEnd, "The file ends inside of the second page of a read.") {
  SimFileModel& file = bench.NewFile(kPage + 1000);
  SimSource& source = bench.NewSource(file);
  const SimRequest& read = source.Read(0, 2 * kPage, InPieces(2));
  bench.Await(read);
}

ORVANE_SCENARIO(ScatteredLists, "Lists of many pieces, none of which lies beside the next one.") {
  SimFileModel& file = bench.NewFile(16 * kPage);
  SimSource& source = bench.NewSource(file);
  for (int k = 0; k < 3; ++k) {
    const std::uint64_t pages = 4 + Simulator::Random(9);
    const std::uint64_t offset = Simulator::Random(6) * kPage;
    const SimRequestForm form = InPieces(1 + Simulator::Random(pages));
    if (Simulator::Random(3) == 0) {
      source.Write(offset, pages * kPage, form);
    } else {
      source.Read(offset, pages * kPage, form);
    }
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(BufferedFile, "Transfers of a buffered file, which may be cut at any byte.") {
  SimFileModel& file = bench.NewFile(4 * kPage + Simulator::Random(kPage));
  SimulatedFiles::SetBuffered(file.Name(), true);
  SimSource& source = bench.NewSource(file);
  for (int k = 0; k < 4; ++k) {
    const std::uint64_t pages = 1 + Simulator::Random(4);
    const SimRequestForm form = InPieces(1 + Simulator::Random(pages));
    if (Simulator::Random(2) == 0) {
      source.Write(Simulator::Random(4) * kPage, pages * kPage, form);
    } else {
      source.Read(Simulator::Random(4) * kPage, pages * kPage, form);
    }
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(AppendBesideReads,
                "A file grows, also with gaps, while others read around its end.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  Crew crew;
  crew.Start([&source] {
    std::uint64_t end = 2;
    for (int k = 0; k < 3; ++k) {
      end += Simulator::Random(2);
      source.WriteNow(end++ * kPage, kPage);
    }
  });
  for (int thread = 0; thread < 2; ++thread) {
    crew.Start([&source] {
      for (int k = 0; k < 3; ++k) source.ReadNow((1 + Simulator::Random(5)) * kPage, 2 * kPage);
    });
  }
  crew.Join();
}

ORVANE_SCENARIO(TwoSourcesOfOneFile, "One of two sources of a file is cancelled, not the other.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& cancelled = bench.NewSource(file);
  SimSource& other = bench.NewSource(file);
  for (int k = 0; k < 3; ++k) {
    cancelled.Read(Simulator::Random(4) * kPage, kPage);
    if (Simulator::Random(2) == 0) {
      other.Write(Simulator::Random(4) * kPage, kPage);
    } else {
      other.Read(Simulator::Random(4) * kPage, 2 * kPage);
    }
  }
  cancelled.Cancel();
  bench.AwaitAll();
}

ORVANE_SCENARIO(DiskFull, "Writes that find no room fail; what lies inside of the file goes on.") {
  SimFileModel& file = bench.NewFile(3 * kPage);
  SimSource& source = bench.NewSource(file);
  SimulatedFiles::SetCapacity((3 + Simulator::Random(3)) * kPage);
  bench.ExpectErrors();
  const std::uint64_t waitsTooLongFrom = Simulator::GetTimeMicro() + kMostQueueMicros;
  for (int k = 0; k < 5; ++k) {
    SimRequestForm form;
    form.onReport = [waitsTooLongFrom](SimRequest& request) {
      const bool inside = request.Offset() + request.Size() <= 3 * kPage;
      const bool good = request.Result() == CacheSource::kResultOK;
      const bool excused =
          Simulator::GetFaults() != 0 || Simulator::GetTimeMicro() >= waitsTooLongFrom;
      Expect(good || !inside || excused, "a write inside of the file has found no room");
      Expect(good || request.Result() == CacheSource::kResultError, "a full disk looks different");
    };
    source.Write(Simulator::Random(7) * kPage, kPage, form);
  }
  bench.AwaitAll();
  Simulator::Settle();
}

// A report must not come: nobody would know what it is about.
class NoReport : public FileSource::ResultCallbackBufferList {
 public:
  void Callback(CacheSource::Result_t, std::uint64_t, BufferList*, std::uint64_t) override {
    Simulator::Fail("reported although its start was refused");
  }
};

// Requests that cannot be started: nothing is kept of them, not even a lock.
ORVANE_SCENARIO(Refusals,
                "Lists that are not whole pages, nothing at all, ranges that pass 2^64.") {
  constexpr std::uint64_t kLastPage = std::numeric_limits<std::uint64_t>::max() - kPage + 1;
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file);
  NativeFileSource* const native = source.Get();
  const OwnList odd(kPage + 100, /*wholePages=*/false);
  const OwnList pages(2 * kPage);
  const Held<NoReport> callback(OrGiveUp([] { return new NoReport; }));
  const auto isRefused = [&](std::uint64_t offset, BufferList* list, CacheSource::Result_t with) {
    const CacheSource::Result_t result =
        Simulator::Random(2) == 0 ? native->ReadAsyncWithList(offset, list, callback.get(), 0)
                                  : native->WriteAsyncWithList(offset, list, callback.get(), 0);
    Expect(result == with || Simulator::GetFaults() != 0, "a request is not refused as it should");
  };
  isRefused(0, odd.Get(), CacheSource::kResultError);
  isRefused(0, nullptr, CacheSource::kResultError);
  isRefused(kLastPage, pages.Get(), CacheSource::kResultOutOfRange);
  odd.CheckAtRest();
  pages.CheckAtRest();
  Expect(native->Read(0, nullptr, nullptr) == CacheSource::kResultError, "no buffer is taken");
  Expect(Simulator::GetOpenRequests() == 0, "a refused request has left its slot in use");
  source.Read(kLastPage - kPage, kPage);
  source.Read(0, 2 * kPage);
  bench.AwaitAll();
}

}  // namespace
}  // namespace Orvane
