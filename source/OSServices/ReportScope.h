// Defers the wake-up of a synchronous caller to the end of the report that completes his request.
#pragma once

namespace Orvane {

// Work that is run when the innermost ReportScope of a thread closes.
class DeferredReport {
 public:
  // Runs on the thread of the scope; may be the last use of the object.
  virtual void FinishReport() = 0;

 protected:
  DeferredReport() = default;
  virtual ~DeferredReport() = default;

 private:
  friend class ReportScope;
  DeferredReport* next_ = nullptr;
};

// Opened around one report: the callback and the release of everything the library still holds for
// the request. A synchronous caller that is woken from inside the callback could see references
// and lock counts that are about to be given back; woken at the end of the scope he cannot.
// One thread's scopes nest; each runs only what was deferred while it was the innermost.
class ReportScope {
 public:
  ReportScope();
  ~ReportScope();
  ReportScope(const ReportScope&) = delete;
  ReportScope& operator=(const ReportScope&) = delete;

  // Hands `report` to the innermost scope of the calling thread; false if none is open.
  static bool Defer(DeferredReport* report);

 private:
  static ReportScope*& Innermost();

  ReportScope* const outer_;
  DeferredReport* first_ = nullptr;
};

}  // namespace Orvane
