// Tests of state that a process has once: each runs its facts in a child process of its own.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace Orvane {

// Runs `facts` in a child process, in which the library is not initialised. Expectations that fail
// there are printed and fail the test here, as do exceptions, crashes and a child that takes longer
// than a minute.
void InChild(const std::function<void()>& facts);

// Runs `work` in a child of the calling process, which may have threads, and answers how it ended:
// "exit 0", "signal 11", or "still running" after 20 seconds, in which case it is killed.
std::string OutcomeInFork(const std::function<int()>& work);

// The text that is thrown as a const char*, or what happens instead.
std::string TextThrownBy(const std::function<void()>& work);

// Gives up the privileges of root for good; false if that is not possible. True without any.
bool DropPrivileges();

}  // namespace Orvane
