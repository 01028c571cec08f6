// Sizes, rates and times as people write and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace OrvaneTool {

// "4096", "64K", "1M", "2G", "1T" (powers of 1024; "KiB" and lower case too) in bytes; nothing for
// other text and for sizes of 2^63 or more.
std::optional<std::uint64_t> ParseSize(std::string_view text);

// Bytes as "123 B", "1.5 MiB".
std::string SizeText(std::uint64_t bytes);
// Seconds as "0:07", "1:02:03".
std::string DurationText(double seconds);
// Bytes per second as "512 MB/s" (10^6).
std::string RateText(double bytesPerSecond);

}  // namespace OrvaneTool
