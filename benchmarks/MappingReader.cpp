#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "Reader.h"
#include "TestFile.h"

namespace bench {
namespace {

class MappingReader : public Reader {
 public:
  explicit MappingReader(const Job& job) : job_(job), block_(job.blockBytes, 1) {
    const int file = OpenBuffered(job.file);
    struct stat status {};
    fstat(file, &status);
    bytes_ = static_cast<std::size_t>(status.st_size);
    void* const memory = mmap(nullptr, bytes_, PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (memory == MAP_FAILED) throw std::runtime_error("cannot map the file");
    memory_ = static_cast<const char*>(memory);
  }

  ~MappingReader() override { munmap(const_cast<char*>(memory_), bytes_); }

  void ReadAll(const std::vector<std::uint64_t>& offsets) override {
    for (const std::uint64_t offset : offsets) {
      std::memcpy(block_[0], memory_ + offset, job_.blockBytes);
      // Or the compiler sees that nobody looks at the copy.
      asm volatile("" : : "r"(block_[0]) : "memory");
    }
  }

 private:
  const Job job_;
  const AlignedBlocks block_;
  std::size_t bytes_ = 0;
  const char* memory_ = nullptr;
};

}  // namespace

std::unique_ptr<Reader> NewMappingReader(const Job& job) {
  return std::make_unique<MappingReader>(job);
}

}  // namespace bench
