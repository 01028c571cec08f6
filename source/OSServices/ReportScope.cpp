#include "OSServices/ReportScope.h"

#include <algorithm>
#include <utility>

#include "MTInterface.h"
#include "OSServices/ThreadState.h"
#include "SharedObject.h"

namespace Orvane {

ReportScope::ReportScope() : outermost_(!Open()) {
  if (outermost_) Open() = this;
}

ReportScope::~ReportScope() {
  if (!outermost_) return;
  if (first_ || releaseCount_ != 0) RunAll();
  Open() = nullptr;
}

bool ReportScope::Defer(DeferredReport* report) {
  ReportScope* const scope = Open();
  if (!scope) return false;
  report->next_ = nullptr;
  (scope->first_ ? scope->last_->next_ : scope->first_) = report;
  scope->last_ = report;
  return true;
}

void ReportScope::Release(SharedObject* object, const char* file, const char* function,
                          unsigned long line) {
  if (!object) return;
  if (ReportScope* const scope = Open()) {
    const PendingRelease release{object, file, function, line};
    if (scope->releaseCount_ < kReleasesWithoutAllocation) {
      scope->releases_[scope->releaseCount_++] = release;
      return;
    }
    try {
      scope->moreReleases_.push_back(release);
      return;
    } catch (...) {
      // Early is better than never.
    }
  }
  object->DecRef(file, function, line);
}

ReportScope::CallersCode::CallersCode() : open_(Open()), suspended_(Suspended()) {
  if (!open_) return;
  Open() = nullptr;
  Suspended() = open_;
}

ReportScope::CallersCode::~CallersCode() {
  Open() = open_;
  Suspended() = suspended_;
}

ReportScope::LibrarysCode::LibrarysCode() : open_(Open()) {
  if (!open_) Open() = Suspended();
}

ReportScope::LibrarysCode::~LibrarysCode() {
  Open() = open_;
}

void ReportScope::RunAll() {
  const CallersCode suspendThis;
  while (first_ || releaseCount_ != 0) {
    RunReleases();
    RunReports();
  }
}

void ReportScope::RunReports() {
  while (first_) {
    DeferredReport* const report = first_;
    first_ = report->next_;
    try {
      report->FinishReport();
    } catch (...) {
      MTInterface::DebugString("Unhandled Exception In A Report\n");
    }
  }
}

// Those that are there now. A destructor may add to them, and to the reports.
void ReportScope::RunReleases() {
  std::array<PendingRelease, kReleasesWithoutAllocation> releases;
  const auto end =
      std::copy_n(releases_.begin(), std::exchange(releaseCount_, 0), releases.begin());
  const std::vector<PendingRelease> more = std::exchange(moreReleases_, {});
  const auto run = [](const PendingRelease& release) {
    try {
      release.object->DecRef(release.file, release.function, release.line);
    } catch (...) {
      MTInterface::DebugString("Unhandled Exception In A Release\n");
    }
  };
  std::for_each(releases.begin(), end, run);
  std::for_each(more.begin(), more.end(), run);
}

ReportScope*& ReportScope::Open() {
  return GetThreadState().openScope;
}

ReportScope*& ReportScope::Suspended() {
  return GetThreadState().suspendedScope;
}

}  // namespace Orvane
