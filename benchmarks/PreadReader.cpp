#include <unistd.h>

#include <stdexcept>

#include "Reader.h"
#include "TestFile.h"

namespace bench {
namespace {

class PreadReader : public Reader {
 public:
  explicit PreadReader(const Job& job)
      : job_(job),
        file_(job.throughPageCache ? OpenBuffered(job.file) : OpenUnbuffered(job.file)),
        block_(job.blockBytes, 1) {}

  ~PreadReader() override { close(file_); }

  void ReadAll(const std::vector<std::uint64_t>& offsets) override {
    for (const std::uint64_t offset : offsets) {
      const ssize_t moved = pread(file_, block_[0], job_.blockBytes, static_cast<off_t>(offset));
      if (moved != static_cast<ssize_t>(job_.blockBytes)) throw std::runtime_error("short read");
    }
  }

 private:
  const Job job_;
  const int file_;
  const AlignedBlocks block_;
};

class ColdPreadReader : public PreadReader {
 public:
  explicit ColdPreadReader(const Job& job) : PreadReader(job), name_(job.file) {}

  void ReadAll(const std::vector<std::uint64_t>& offsets) override {
    DropFromPageCache(name_);
    PreadReader::ReadAll(offsets);
    DropFromPageCache(name_);
  }

 private:
  const std::string name_;
};

}  // namespace

std::unique_ptr<Reader> NewColdPreadReader(const Job& job) {
  return std::make_unique<ColdPreadReader>(job);
}

std::unique_ptr<Reader> NewPreadReader(const Job& job) {
  return std::make_unique<PreadReader>(job);
}

}  // namespace bench
