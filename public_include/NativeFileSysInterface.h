// Files of the host. Static operations over one installed NativeFileSysInterfaceImp; OSServices
// installs it once at start-up, which starts the I/O thread of the process.
#pragma once

#include <cstdint>

#include "Export.h"
#include "FileSource.h"

namespace Orvane {

// A file source with a name. Opened unbuffered, where the file system can, and write-through when
// for writing; every buffer of a request must be page-aligned in address and length
// (PhysMemInterface::Allocate makes such buffers) and offsets multiples of the device's block size.
// A request that violates this is refused or reported with kResultError.
// Like every FileSource safe from any thread; at most 61 requests are in flight process-wide, the
// next one is answered kResultBusy.
class ORVANE_EXPORT NativeFileSource : public FileSource {
 public:
  // Copies a NUL-terminated name, of any length and never interpreted. False for null and while the
  // source reports that it is open for reading or writing.
  // KEPT: that report survives Close, so a source that was once opened keeps its name.
  virtual bool SetName(const char* name);
  // The name or null; valid until SetName or destruction.
  virtual const char* GetName();

  // Opens an existing file, or also creates a missing one when `create`. False without a name or
  // when already open. With a cache attached its blocks of this source are forgotten
  // (Cache::Purge): the file may be another one. KEPT: a file that the host cannot open is not
  // reported here: the answer is true and the first read or write on it reports kResultError
  // through its callback.
  virtual bool Open(bool forRead, bool forWrite, bool create) = 0;
  // Cancels what is outstanding (see Cancel), then closes. False if not open. Requests that arrive
  // meanwhile are answered kResultNotSupported. Works inside callbacks. Until the next Open a cache
  // still answers reads of what it has in memory.
  virtual bool Close() = 0;
  // What the last Open asked for. KEPT: unchanged by Close.
  virtual bool IsOpenForRead() = 0;
  virtual bool IsOpenForWrite() = 0;
  // Closes and deletes the file. False without a name or if the host refuses.
  virtual bool Delete() = 0;

 protected:
  explicit NativeFileSource(const char* name);
  ~NativeFileSource() override;
  // KEPT: copies share the name itself. Sources are made by the facade only and never copied.
  NativeFileSource(const NativeFileSource&) = default;
  NativeFileSource& operator=(const NativeFileSource&) = default;

 private:
  char* name_;  // owned, or null
};

// What a host supplies.
class ORVANE_EXPORT NativeFileSysInterfaceImp {
 protected:
  NativeFileSysInterfaceImp();
  virtual ~NativeFileSysInterfaceImp();
  NativeFileSysInterfaceImp(const NativeFileSysInterfaceImp&) = delete;
  NativeFileSysInterfaceImp& operator=(const NativeFileSysInterfaceImp&) = delete;

 public:
  // A new, closed source with one reference for the caller.
  virtual NativeFileSource* NewNativeFileSource(const char* name) = 0;
  // Called once by the installation, when threads and page memory are there. Does nothing unless
  // overridden; the host implementations start the I/O thread here.
  virtual void Installed();
};

// Safe from any thread once installed: its state is written by the installation only.
class ORVANE_EXPORT NativeFileSysInterface {
 public:
  // As NativeFileSysInterfaceImp. Throws "NativeFileSysInterface No Installed Implementation" (a
  // const char*) before installation.
  static NativeFileSource* NewNativeFileSource(const char* name);

 protected:
  friend class OSServices;
  // Throws "NativeFileSysInterface No Installed Implementation" for null and
  // "NativeFileSysInterface Implementation Already Installed" the second time.
  static void InstallImplementation(NativeFileSysInterfaceImp* imp);

 private:
  NativeFileSysInterface();
  ~NativeFileSysInterface();
};

}  // namespace Orvane
