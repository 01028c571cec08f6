// Starts the library: installs what it needs from the operating system.
#pragma once

#include "Export.h"

namespace Orvane {

class MTInterfaceImp;
class NativeFileSysInterfaceImp;
class PhysMemInterfaceImp;

// An application calls Init or InitWithExtensions exactly once, before any other operation of the
// library and before other threads use it. There is no shutdown: the implementations and the I/O
// thread live until the process ends.
//
// fork: the child of a process that called Init has no I/O thread. There, reads and writes answer
// kResultNotSupported at once, Cancel and Close do not wait, and a request that was in flight in
// the parent is never reported in the child. A child that is forked inside a callback must not
// return from it. Files are opened close-on-exec, so a child that goes on to exec is unaffected. A
// program that needs the library in several processes calls Init in each of them after the fork.
class ORVANE_EXPORT OSServices {
 public:
  // Installs the host's threading, page memory and file system, in this order; the last starts the
  // I/O thread. Throws "OSServices Already Initialized" (a const char*) the second time, and what
  // the installations throw.
  static void Init();
  // The same with the given implementation in place of each default where an argument is not null.
  // The library takes ownership of what it installs and never deletes it.
  static void InitWithExtensions(MTInterfaceImp* mt, PhysMemInterfaceImp* physMem,
                                 NativeFileSysInterfaceImp* fileSys);

 private:
  OSServices();
  ~OSServices();
};

}  // namespace Orvane
