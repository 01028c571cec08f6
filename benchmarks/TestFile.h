#pragma once

#include <cstdint>
#include <string>

namespace bench {

// A file of random content, written to the device when made and removed at the end.
class TestFile {
 public:
  // Throws std::runtime_error if it cannot be written.
  TestFile(const std::string& directory, std::uint64_t bytes);
  ~TestFile();
  TestFile(const TestFile&) = delete;
  TestFile& operator=(const TestFile&) = delete;

  const std::string& GetName() const { return name_; }
  std::uint64_t GetSize() const { return bytes_; }

 private:
  std::string name_;
  std::uint64_t bytes_;
};

}  // namespace bench
