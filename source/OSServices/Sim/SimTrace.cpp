#include "OSServices/Sim/SimTrace.h"

#include <algorithm>
#include <cstdio>

#include "OSServices/Sim/SimRandom.h"

namespace Orvane {

const char* ToText(SimEvent event) {
  static constexpr const char* kTexts[] = {"makes thread",
                                           "runs",
                                           "ends",
                                           "makes lock",
                                           "enters lock",
                                           "is inside lock",
                                           "left lock",
                                           "makes semaphore",
                                           "waits for semaphore",
                                           "took semaphore",
                                           "timed out at semaphore",
                                           "releases semaphore",
                                           "released semaphore",
                                           "reads atomic",
                                           "changed atomic",
                                           "compared atomic",
                                           "destroys",
                                           "reads the clock",
                                           "allocates",
                                           "maps pages",
                                           "unmaps pages",
                                           "opens file",
                                           "deletes file",
                                           "issues transfer",
                                           "cancels transfer",
                                           "transfer done",
                                           "waits for the port",
                                           "collects transfer",
                                           "wakes the port",
                                           "leaves the port empty-handed",
                                           "step of a caller",
                                           "time moves",
                                           "fault"};
  return kTexts[static_cast<std::size_t>(event)];
}

void SimTrace::Add(const Entry& entry) {
  entries_[count_++ % kKept] = entry;
  hash_ = SimRandom::Mix(hash_ ^ (static_cast<std::uint64_t>(entry.event) << 32 | entry.thread));
  hash_ = SimRandom::Mix(hash_ ^ entry.object) ^ SimRandom::Mix(entry.value + entry.micro);
}

void SimTrace::AddNote(std::uint64_t step, const std::string& text) {
  notes_[noteCount_++ % notes_.size()] = {step, text};
}

std::string SimTrace::LastToText(std::size_t count) const {
  const std::uint64_t kept = std::min<std::uint64_t>({count, count_, kKept});
  std::string text;
  for (std::uint64_t k = count_ - kept; k < count_; ++k) {
    const Entry& entry = entries_[k % kKept];
    for (const auto& [step, note] : notes_) {
      if (step != 0 && step == entry.step) text += "          note: " + note + "\n";
    }
    text += ToText(entry) + "\n";
  }
  return text;
}

std::string SimTrace::ToText(const Entry& entry) {
  char line[160];
  std::snprintf(line, sizeof line, "%8llu %12llu us  thread %-3u %s %llu (%lld)",
                static_cast<unsigned long long>(entry.step),
                static_cast<unsigned long long>(entry.micro), entry.thread,
                Orvane::ToText(entry.event), static_cast<unsigned long long>(entry.object),
                static_cast<long long>(entry.value));
  return line;
}

}  // namespace Orvane
