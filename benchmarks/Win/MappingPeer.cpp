#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

class MappingPeer : public Runner {
 public:
  explicit MappingPeer(const Job& job) : name_("memcpy from a view"), job_(job), memory_(job, 1) {
    RequireReads(name_, job);
    const PeerFile file(name_, job, PageCache::kUsed, Calls::kBlocking);
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file.Get(), &size)) Fail();
    bytes_ = static_cast<std::uint64_t>(size.QuadPart);
    const HANDLE mapping =
        CreateFileMappingA(file.Get(), nullptr, PAGE_READONLY, 0, 0, /*lpName=*/nullptr);
    if (!mapping) Fail();
    view_ = static_cast<const char*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, /*bytes=*/0));
    const DWORD error = GetLastError();
    // The view keeps it.
    CloseHandle(mapping);
    if (!view_) Fail(error);
  }

  ~MappingPeer() override { UnmapViewOfFile(view_); }

  void Pass(LatencyHistogram* latencies) override {
    MoveOneByOne(name_, job_, latencies, [this](std::uint64_t offset) {
      if (offset + job_.itemBytes > bytes_) return std::int64_t{0};
      memory_.CopyIn(0, view_ + offset);
      return static_cast<std::int64_t>(job_.itemBytes);
    });
  }

 private:
  [[noreturn]] void Fail(DWORD error = GetLastError()) const {
    ThrowHostError(name_ + ": " + job_.file, error);
  }

  const std::string name_;
  const Job job_;
  const ItemMemory memory_;
  std::uint64_t bytes_ = 0;
  const char* view_ = nullptr;
};

}  // namespace

std::unique_ptr<Runner> NewMappingPeer(const Job& job) {
  return std::make_unique<MappingPeer>(job);
}

}  // namespace bench
