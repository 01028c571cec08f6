// Puts off what is the caller's code until the library holds no lock.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace Orvane {

class SharedObject;

// Work that is run when the outermost ReportScope of a thread closes.
class DeferredReport {
 public:
  // Runs on the thread of the scope, with no lock of the library held; may be the last use of the
  // object.
  virtual void FinishReport() = 0;

 protected:
  DeferredReport() = default;
  virtual ~DeferredReport() = default;

 private:
  friend class ReportScope;
  DeferredReport* next_ = nullptr;
};

// Opened by every entry of the library that can finish requests, before it takes a lock: one
// iteration of a worker, one event of the I/O thread, Cancel, Close, Invalidate, a destructor. The
// reports of the requests that finish meanwhile, and releases that may destroy a caller's object,
// run when the scope closes: on the same thread, in the order in which they came, after every lock
// was left and before the entry returns. Releases come before reports: whoever is told finds what
// the library held given back. Scopes of one thread nest; only the outermost counts.
//
// A caller's code runs outside of any scope: what it calls has scopes of its own. Where the library
// calls it from inside a scope it says so with CallersCode; a callback object of the library's own
// that is called that way takes it back with LibrarysCode.
class ReportScope {
 public:
  ReportScope();
  ~ReportScope();
  ReportScope(const ReportScope&) = delete;
  ReportScope& operator=(const ReportScope&) = delete;

  // Hands `report` to the open scope of the calling thread; false if none is open.
  static bool Defer(DeferredReport* report);
  // Releases one reference when the open scope closes; now, if none is open or memory is short.
  // Null does nothing. The texts must be static.
  static void Release(SharedObject* object, const char* file, const char* function,
                      unsigned long line);

  // Whether one is open on the calling thread: locks may be held.
  static bool IsOpen() { return Open() != nullptr; }
  // Whether the calling thread is outside of every scope, and of every callback that one runs.
  static bool IsFarFromAny() { return !Open() && !Suspended(); }

  // Suspends the open scope for the length of a block: as if none were open.
  class CallersCode {
   public:
    CallersCode();
    ~CallersCode();
    CallersCode(const CallersCode&) = delete;
    CallersCode& operator=(const CallersCode&) = delete;

   private:
    ReportScope* const open_;
    ReportScope* const suspended_;
  };

  // Opens the suspended scope again for the length of a block, if none is open. While a scope runs
  // its reports it is suspended: what is deferred to it by then runs before it ends.
  class LibrarysCode {
   public:
    LibrarysCode();
    ~LibrarysCode();
    LibrarysCode(const LibrarysCode&) = delete;
    LibrarysCode& operator=(const LibrarysCode&) = delete;

   private:
    ReportScope* const open_;
  };

 private:
  struct PendingRelease {
    SharedObject* object;
    const char* file;
    const char* function;
    unsigned long line;
  };
  static constexpr std::size_t kReleasesWithoutAllocation = 16;

  void RunAll();
  void RunReports();
  void RunReleases();
  static ReportScope*& Open();
  static ReportScope*& Suspended();

  const bool outermost_;
  DeferredReport* first_ = nullptr;
  DeferredReport* last_ = nullptr;
  std::array<PendingRelease, kReleasesWithoutAllocation> releases_;
  std::size_t releaseCount_ = 0;  // of releases_; the rest is not initialised
  std::vector<PendingRelease> moreReleases_;
};

}  // namespace Orvane
