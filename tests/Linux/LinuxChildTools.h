// Processes of the tests, on Linux.
#pragma once

#include <functional>
#include <string>

namespace Orvane {

// "exit 0", "signal 11", from what waitpid says.
std::string OutcomeOfChild(int status);

// Runs `work` in a child of the calling process, which may have threads, and answers how it ended:
// as above, or "still running" after 20 seconds, in which case it is killed.
std::string OutcomeInFork(const std::function<int()>& work);

// Gives up the privileges of root for good; false if that is not possible. True without any.
bool DropPrivileges();

}  // namespace Orvane
