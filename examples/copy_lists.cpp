// Copies a file with lists: each request reads into, or writes from, four separate buffers that
// together form one range of the file.
#include <array>
#include <cstdint>
#include <filesystem>
#include <iostream>

#include "Orvane.h"

namespace {

using Orvane::Buffer;
using Orvane::BufferList;
using Orvane::FileSource;
using Orvane::NativeFileSource;

constexpr std::uint64_t kBufferBytes = 64 * 1024;
using Buffers = std::array<Buffer*, 4>;

// A list of the first `bytes` bytes of the buffers, in whole pages.
BufferList* ListOf(const Buffers& buffers, std::uint64_t bytes) {
  const std::uint64_t page = Orvane::PhysMemInterface::GetPageSize();
  std::uint64_t left = (bytes + page - 1) / page * page;
  auto* list = new BufferList(buffers.size());
  for (Buffer* buffer : buffers) {
    if (left == 0) break;
    const std::uint64_t part = left < kBufferBytes ? left : kBufferBytes;
    list->AddBuffer(new Orvane::BufferPartOfBuffer(buffer->GetAddress(), part, buffer),
                    /*adoptReference=*/true);
    left -= part;
  }
  return list;
}

// The bytes copied; stops at the end of the source, or early at a failure.
std::uint64_t Copy(NativeFileSource* from, NativeFileSource* to, const Buffers& buffers) {
  std::uint64_t done = 0;
  bool more = true;
  while (more) {
    BufferList* input = ListOf(buffers, buffers.size() * kBufferBytes);
    std::uint64_t bytes = 0;
    more = from->ReadWithList(done, input, &bytes) == FileSource::kResultOK;
    input->DecRef(__FILE__, __func__, __LINE__);
    if (bytes == 0) break;

    BufferList* output = ListOf(buffers, bytes);
    const bool written = to->WriteWithList(done, output, nullptr) == FileSource::kResultOK;
    output->DecRef(__FILE__, __func__, __LINE__);
    if (!written) break;
    done += bytes;
  }
  return done;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  Orvane::OSServices::Init();
  auto* from = Orvane::NativeFileSysInterface::NewNativeFileSource(argv[1]);
  auto* to = Orvane::NativeFileSysInterface::NewNativeFileSource(argv[2]);
  from->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false);
  to->Open(/*forRead=*/false, /*forWrite=*/true, /*create=*/true);

  Buffers buffers;
  for (Buffer*& buffer : buffers) buffer = Orvane::PhysMemInterface::Allocate(kBufferBytes);
  const std::uint64_t done = Copy(from, to, buffers);
  for (Buffer* buffer : buffers) buffer->DecRef(__FILE__, __func__, __LINE__);
  from->DecRef(__FILE__, __func__, __LINE__);
  to->DecRef(__FILE__, __func__, __LINE__);

  std::filesystem::resize_file(argv[2], done);  // the last page was written whole
  std::cout << done << " bytes\n";
  return done == std::filesystem::file_size(argv[1]) ? 0 : 1;
}
