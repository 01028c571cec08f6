#include "LinuxDescriptors.h"

#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <fstream>

namespace Orvane {

DescriptorState StateOfDescriptorOn(const std::string& path) {
  DIR* const directory = opendir("/proc/self/fd");
  DescriptorState state{false, 0};
  while (const dirent* const entry = readdir(directory)) {
    const std::string number = entry->d_name;
    char target[PATH_MAX];
    const ssize_t length = readlink(("/proc/self/fd/" + number).c_str(), target, sizeof target);
    if (length <= 0 || path != std::string(target, static_cast<std::size_t>(length))) continue;
    std::ifstream info("/proc/self/fdinfo/" + number);
    for (std::string word; info >> word;) {
      if (word != "flags:") continue;
      info >> word;
      state = {true, std::stoi(word, nullptr, 8)};
    }
  }
  closedir(directory);
  return state;
}

}  // namespace Orvane
