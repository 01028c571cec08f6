#include "OSServices/Win/NativeFileSourceWin.h"

#include "OSServices/Win/HostFileWin.h"

namespace Orvane {

NativeFileSourceWin::NativeFileSourceWin(const char* name, AsyncHandler* handler)
    : NativeFileSourceAsync(name, handler) {}

NativeFileSourceWin::~NativeFileSourceWin() = default;

HostFile* NativeFileSourceWin::OpenHostFile(const char* name, bool forRead, bool forWrite,
                                            bool create) {
  return new HostFileWin(name, forRead, forWrite, create);
}

bool NativeFileSourceWin::DeleteHostFile(const char* name) {
  return DeleteFileA(name) != 0;
}

}  // namespace Orvane
