// Files that change below a cache: through the same source, another one, another cache, or by
// others.
#include <vector>

#include "CacheScenarioTools.h"
#include "Scenario.h"
#include "SimBench.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;

// Others put a new content behind the name.
void Replace(SimFileModel& file, std::uint64_t bytes) {
  const SimulatorAllocations::Exempt exempt;
  const std::uint64_t version = file.BeginWrite(0, bytes, Simulator::GetStep());
  std::vector<unsigned char> content(bytes);
  file.Fill(content.data(), bytes, 0, version);
  SimulatedFiles::Create(file.Name(), std::move(content));
  file.EndWrite(version, Simulator::GetStep(), /*good=*/true);
}

ORVANE_SCENARIO(WriteBesideARead, "What is read after a write shows it.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 2));
  source.Read(16, 16, AnywhereInPieces(1));
  source.WriteNow(0, kPage);
  source.ReadNow(16, 16, AnywhereInPieces(1));
  bench.AwaitAll();
}

ORVANE_SMALL_SCENARIO(PurgeBesideAResidentRead, "Copied from memory while it is forgotten.") {
  EveryOrder::NotYet();
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  source.ReadNow(0, kPage);
  const EveryOrder everyOrder;
  Crew crew;
  crew.Start([&source] { source.Purge(); });
  source.ReadNow(8, 16, AnywhereInPieces(1));
}

ORVANE_SCENARIO(WritesBesideReaders, "Readers of a source get what was written through it.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 3));
  Crew crew;
  for (int k = 0; k < 2; ++k) {
    crew.Start([&source] {
      for (int m = 0; m < 4; ++m) {
        const std::uint64_t place = Simulator::Random(4 * kPage);
        if (Simulator::Random(2) == 0) {
          source.ReadNow(place, 1 + Simulator::Random(kPage), AnywhereInPieces(1));
        } else {
          source.Read(place, 1 + Simulator::Random(2 * kPage), AnywhereInPieces(1));
        }
      }
    });
  }
  for (int k = 0; k < 3; ++k) {
    const std::uint64_t place = Simulator::Random(3) * kPage;
    if (Simulator::Random(2) == 0) {
      source.Write(place, 2 * kPage);
    } else {
      source.WriteNow(place, kPage);
      source.ReadNow(place, kPage);
    }
  }
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(AppendsBesideReaders, "A file grows through a source that is read at its end.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(2 * kPage, 3));
  Crew crew;
  crew.Start([&source] {
    for (std::uint64_t k = 0; k < 5; ++k) {
      source.ReadNow(k * kPage / 2, kPage, AnywhereInPieces(2));
      source.Read(k * kPage / 2 + 100, 2 * kPage, AnywhereInPieces(1));
    }
  });
  source.PreRead(kPage, 2 * kPage);
  for (std::uint64_t k = 1; k < 4; ++k) {
    source.WriteNow(k * kPage, kPage);
    source.ReadNow(k * kPage, kPage);  // there, if the write was
  }
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(WritesThatFail, "The disk is full, or the write cannot start, beside readers.") {
  bench.ExpectErrors();
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 2));
  SimulatedFiles::SetCapacity(3 * kPage);
  Crew crew;
  crew.Start([&source] {
    for (int k = 0; k < 4; ++k) {
      source.Read(Simulator::Random(3 * kPage), kPage, AnywhereInPieces(1));
    }
  });
  for (std::uint64_t k = 0; k < 3; ++k) {
    const SimRequest& write = source.WriteNow((k + 1) * kPage, 2 * kPage);
    source.ReadNow((k + 1) * kPage, kPage);
    if (write.Result() == CacheSource::kResultOK && (k + 3) * kPage > 3 * kPage) {
      Simulator::Fail("more was written than there is room for");
    }
  }
  source.Close();
  source.Open(/*forRead=*/true, /*forWrite=*/false);
  if (source.WriteNow(0, kPage).Result() == CacheSource::kResultOK) {
    Simulator::Fail("written to a file that is open for reading");
  }
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(InvalidateBesideReads, "Part of a range is forgotten while it is read.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 4));
  SimSource& writer = bench.NewSource(file);
  Crew crew;
  crew.Start([&source] {
    for (int k = 0; k < 4; ++k) {
      source.Read(Simulator::Random(3 * kPage), 3 * kPage, AnywhereInPieces(2));
      if (Simulator::Random(2) == 0) source.PreRead(4 * kPage, kPage);
    }
  });
  for (int k = 0; k < 3; ++k) {
    const std::uint64_t place = Simulator::Random(5) * kPage;
    // The cache does not notice what others write before it is told.
    writer.WriteNow(place, kPage);
    source.Invalidate(place + Simulator::Random(kPage), Simulator::Random(2) == 0 ? 1 : kPage);
    source.ReadNow(place, kPage);
  }
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(PurgesBesideResidentReads, "Forgotten again and again while it is copied.") {
  SimFileModel& file = bench.NewFile(3 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 3));
  SimSource& writer = bench.NewSource(file);
  source.ReadNow(0, 3 * kPage);
  Crew crew;
  crew.Start([&source] {
    for (int k = 0; k < 5; ++k) {
      source.ReadNow(Simulator::Random(2 * kPage), kPage, AnywhereInPieces(1));
    }
  });
  for (int k = 0; k < 3; ++k) {
    writer.WriteNow(Simulator::Random(3) * kPage, kPage);
    source.Purge();
    source.ReadNow(0, 3 * kPage);
  }
}

ORVANE_SCENARIO(ReopenedFile, "Another content lies behind a name when it is opened again.") {
  SimFileModel& file = bench.NewFile(3 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 4));
  StartedRequests started;
  for (std::uint64_t k = 0; k < 2; ++k) {
    started.Add(source.Read(k * kPage, 2 * kPage));
    source.PreRead(2 * kPage, kPage);
    if (Simulator::Random(2) == 0) bench.AwaitAll();
    started.Close(source);
    Replace(file, (3 + k) * kPage);
    if (!source.Open()) continue;
    source.ReadNow(0, 3 * kPage);
    source.ReadNow(2 * kPage, 3 * kPage);
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(DeletedFile, "A file is deleted while it is read through a cache.") {
  bench.ExpectErrors();
  SimFileModel& file = bench.NewFile(3 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 2));
  StartedRequests started;
  Crew crew;
  crew.Start([&started, &source] {
    started.Add(source.Read(0, 2 * kPage));
    started.Add(source.Write(kPage, kPage));
    source.PreRead(2 * kPage, kPage);
  });
  if (Simulator::Random(2) == 0) crew.Join();
  if (!source.Get()->Delete() && Simulator::GetFaults() == 0) {
    Simulator::Fail("cannot be deleted");
  } else if (SimulatedFiles::Exists(file.Name()) && Simulator::GetFaults() == 0) {
    Simulator::Fail("deleted, and still there");
  }
  crew.Join();
  // What was read before is there until it is forgotten.
  source.Purge();
  const CacheSource::Result_t result = source.ReadNow(0, kPage).Result();
  if (result == CacheSource::kResultOK) Simulator::Fail("read from a file that was deleted");
  bench.AwaitAll();
}

ORVANE_SCENARIO(TwoSourcesOnAFile, "Two sources on a file share a cache, but no blocks.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  Cache* const cache = bench.NewCache(kPage, 4);
  SimSource& first = bench.NewSource(file, cache);
  SimSource& second = bench.NewSource(file, cache);
  Crew crew;
  crew.Start([&second] {
    for (int k = 0; k < 3; ++k) {
      second.ReadNow(Simulator::Random(4) * kPage, kPage);
      second.Write(Simulator::Random(4) * kPage, kPage);
    }
  });
  for (int k = 0; k < 3; ++k) {
    const std::uint64_t place = Simulator::Random(4) * kPage;
    first.Read(place, kPage);
    if (Simulator::Random(2) == 0) first.Invalidate(place, kPage);
    first.ReadNow(place, kPage);
    if (Simulator::Random(4) == 0) first.Purge();
  }
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(TwoCachesOnAFile, "Two caches of different blocks hold parts of one file.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& first = bench.NewSource(file, bench.NewCache(kPage, 2));
  SimSource& second = bench.NewSource(file, bench.NewCache(2 * kPage, 2));
  Crew crew;
  crew.Start([&second] {
    for (int k = 0; k < 3; ++k) {
      second.Read(Simulator::Random(4 * kPage), 2 * kPage, AnywhereInPieces(2));
      if (Simulator::Random(3) == 0) second.Cancel();
    }
  });
  for (int k = 0; k < 3; ++k) {
    const std::uint64_t place = Simulator::Random(4) * kPage;
    first.WriteNow(place, kPage);
    first.ReadNow(place, kPage);
    second.Invalidate(place, kPage);
    second.ReadNow(place, kPage);
  }
  crew.Join();
  bench.AwaitAll();
}

}  // namespace
}  // namespace Orvane
