#include <stdexcept>

#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

class ReadFilePeer : public Runner {
 public:
  ReadFilePeer(const std::string& name, const Job& job, PageCache pageCache)
      : name_(name), job_(job), file_(name, job, pageCache, Calls::kBlocking), memory_(job, 1) {
    // The host has lists for overlapped files only.
    if (job.parts > 1) throw std::runtime_error(name + ": only items of one part");
  }

  void Pass(LatencyHistogram* latencies) override {
    MoveOneByOne(name_, job_, latencies, [this](std::uint64_t offset) { return Move(offset); });
  }

 private:
  std::int64_t Move(std::uint64_t offset) {
    OVERLAPPED place = At(offset);
    const auto bytes = static_cast<DWORD>(job_.itemBytes);
    DWORD moved = 0;
    const BOOL good = job_.write
                          ? WriteFile(file_.Get(), memory_.GetPiece(0), bytes, &moved, &place)
                          : ReadFile(file_.Get(), memory_.GetPiece(0), bytes, &moved, &place);
    return good ? std::int64_t{moved} : -std::int64_t{GetLastError()};
  }

  const std::string name_;
  const Job job_;
  const PeerFile file_;
  const ItemMemory memory_;
};

}  // namespace

std::unique_ptr<Runner> NewReadFilePeer(const Job& job) {
  return std::make_unique<ReadFilePeer>("ReadFile, unbuffered", job, PageCache::kBypassed);
}

std::unique_ptr<Runner> NewBufferedReadFilePeer(const Job& job) {
  return std::make_unique<ReadFilePeer>("ReadFile", job, PageCache::kUsed);
}

}  // namespace bench
