#include "OSServices/Linux/NativeFileSourceLinux.h"

#include <unistd.h>

#include "OSServices/Linux/HostFileLinux.h"

namespace Orvane {

NativeFileSourceLinux::NativeFileSourceLinux(const char* name, AsyncHandler* handler)
    : NativeFileSourceAsync(name, handler) {}

NativeFileSourceLinux::~NativeFileSourceLinux() = default;

HostFile* NativeFileSourceLinux::OpenHostFile(const char* name, bool forRead, bool forWrite,
                                              bool create) {
  return new HostFileLinux(name, forRead, forWrite, create);
}

bool NativeFileSourceLinux::DeleteHostFile(const char* name) {
  return unlink(name) == 0;
}

}  // namespace Orvane
