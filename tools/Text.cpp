#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>

namespace OrvaneTool {
namespace {

// The shift of a suffix; nothing for an unknown one.
std::optional<unsigned> SuffixShift(std::string suffix) {
  std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
  if (suffix.empty() || suffix == "B") return 0U;
  if (suffix.size() > 1 && suffix.substr(1) != "IB") return std::nullopt;
  const std::string_view letters = "KMGT";
  const std::size_t place = letters.find(suffix.front());
  if (place == std::string_view::npos) return std::nullopt;
  return static_cast<unsigned>(10 * (place + 1));
}

}  // namespace

std::optional<std::uint64_t> ParseSize(std::string_view text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, fault] = std::from_chars(text.data(), end, number);
  if (fault != std::errc() || rest == text.data()) return std::nullopt;
  const std::optional<unsigned> shift = SuffixShift(std::string(rest, end));
  constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (!shift || number > (kLargest >> *shift)) return std::nullopt;
  return number << *shift;
}

std::string SizeText(std::uint64_t bytes) {
  constexpr std::array<const char*, 5> kUnits = {"B", "KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < kUnits.size()) {
    value /= 1024;
    ++unit;
  }
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits.at(unit));
}

std::string DurationText(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::clamp(seconds, 0.0, 359999.0));
  const std::uint64_t hours = whole / 3600;
  const std::uint64_t minutes = whole / 60 % 60;
  if (hours == 0) return fmt::format("{}:{:02}", minutes, whole % 60);
  return fmt::format("{}:{:02}:{:02}", hours, minutes, whole % 60);
}

std::string RateText(double bytesPerSecond) {
  return fmt::format("{:.0f} MB/s", bytesPerSecond / 1e6);
}

}  // namespace OrvaneTool
