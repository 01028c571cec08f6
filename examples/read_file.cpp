// Reads the first block of a file and prints how many bytes came. The program of the README.
#include <iostream>

#include "Orvane.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  Orvane::OSServices::Init();
  auto* file = Orvane::NativeFileSysInterface::NewNativeFileSource(argv[1]);
  file->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false);
  auto* block = Orvane::PhysMemInterface::Allocate(1 << 20);
  std::uint64_t bytes = 0;
  const auto result = file->Read(/*offset=*/0, block, &bytes);
  std::cout << bytes << " bytes, result " << result << '\n';
  block->DecRef(__FILE__, __func__, __LINE__);
  file->DecRef(__FILE__, __func__, __LINE__);
  return result > 0 ? 0 : 1;  // kResultOK or, for a shorter file, kResultPartial
}
