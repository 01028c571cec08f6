#include "OSServices/ReportScope.h"

namespace Orvane {

ReportScope::ReportScope() : outer_(Innermost()) {
  Innermost() = this;
}

ReportScope::~ReportScope() {
  Innermost() = outer_;
  while (first_) {
    DeferredReport* const report = first_;
    first_ = report->next_;
    report->FinishReport();
  }
}

bool ReportScope::Defer(DeferredReport* report) {
  ReportScope* const scope = Innermost();
  if (!scope) return false;
  report->next_ = scope->first_;
  scope->first_ = report;
  return true;
}

ReportScope*& ReportScope::Innermost() {
  thread_local ReportScope* innermost = nullptr;
  return innermost;
}

}  // namespace Orvane
