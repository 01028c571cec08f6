#include <cstring>

#include "NativeFileSysInterface.h"

namespace Orvane {
namespace {

// Exactly the length of the name and its terminator.
char* CopyName(const char* name) {
  const std::size_t bytes = std::strlen(name) + 1;
  return static_cast<char*>(std::memcpy(new char[bytes], name, bytes));
}

}  // namespace

NativeFileSource::NativeFileSource(const char* name) : name_(name ? CopyName(name) : nullptr) {}

NativeFileSource::~NativeFileSource() {
  delete[] name_;
}

bool NativeFileSource::SetName(const char* name) {
  if (!name) return false;
  if (name_ && (IsOpenForRead() || IsOpenForWrite())) return false;
  char* const copy = CopyName(name);
  delete[] name_;
  name_ = copy;
  return true;
}

const char* NativeFileSource::GetName() {
  return name_;
}

}  // namespace Orvane
