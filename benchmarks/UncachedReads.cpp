#include "UncachedReads.h"

#include "Reader.h"
#include "Registration.h"

namespace bench {

void RegisterUncachedReads(const char* kind, const TestFile& file) {
  constexpr std::uint64_t kKiB = 1024;
  const std::string prefix = std::string(kind) + "/";
  const std::string& name = file.GetName();

  const Job small{name, 4 * kKiB, 61};
  const auto random = RandomOffsets(file.GetSize(), small.blockBytes, 50000);
  RegisterReads(prefix + "random 4 KiB, 61 in flight/orvane", small, random, NewOrvaneReader);
  RegisterReads(prefix + "random 4 KiB, 61 in flight/ring", small, random, NewRingReader);

  const Job single{name, 4 * kKiB, 1};
  const auto few = RandomOffsets(file.GetSize(), single.blockBytes, 5000);
  RegisterReads(prefix + "random 4 KiB, one at a time/orvane", single, few, NewOrvaneSyncReader);
  RegisterReads(prefix + "random 4 KiB, one at a time/ring", single, few, NewRingReader);
  RegisterReads(prefix + "random 4 KiB, one at a time/pread", single, few, NewPreadReader);

  const Job large{name, 1024 * kKiB, 8};
  const auto all = SequentialOffsets(file.GetSize(), large.blockBytes);
  RegisterReads(prefix + "sequential 1 MiB, 8 in flight/orvane", large, all, NewOrvaneReader);
  RegisterReads(prefix + "sequential 1 MiB, 8 in flight/ring", large, all, NewRingReader);
  RegisterReads(prefix + "sequential 1 MiB, 8 in flight/pread", large, all, NewPreadReader);
}

}  // namespace bench
