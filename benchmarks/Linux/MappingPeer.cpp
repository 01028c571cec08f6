#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "../ItemQueue.h"
#include "ItemMemory.h"
#include "PeerFactories.h"
#include "PeerFile.h"

namespace bench {
namespace {

class MappingPeer : public Runner {
 public:
  explicit MappingPeer(const Job& job) : name_("memcpy from mmap"), job_(job), memory_(job, 1) {
    RequireReads(name_, job);
    const PeerFile file(name_, job, PageCache::kUsed);
    struct stat status {};
    if (fstat(file.Get(), &status) != 0) Fail();
    bytes_ = static_cast<std::size_t>(status.st_size);
    void* const memory = mmap(nullptr, bytes_, PROT_READ, MAP_SHARED, file.Get(), 0);
    if (memory == MAP_FAILED) Fail();
    mapping_ = static_cast<char*>(memory);
  }

  ~MappingPeer() override { munmap(mapping_, bytes_); }

  void Pass(LatencyHistogram* latencies) override {
    MoveOneByOne(name_, job_, latencies, [this](std::uint64_t offset) {
      if (offset + job_.itemBytes > bytes_) return std::int64_t{0};
      memory_.CopyIn(0, mapping_ + offset);
      return static_cast<std::int64_t>(job_.itemBytes);
    });
  }

 private:
  [[noreturn]] void Fail() const {
    throw std::runtime_error(name_ + ": " + job_.file + ": " + std::strerror(errno));
  }

  const std::string name_;
  const Job job_;
  const ItemMemory memory_;
  std::size_t bytes_ = 0;
  char* mapping_ = nullptr;
};

}  // namespace

std::unique_ptr<Runner> NewMappingPeer(const Job& job) {
  return std::make_unique<MappingPeer>(job);
}

}  // namespace bench
