// Tests of state that a process has once: each runs its facts in a child process of its own.
#pragma once

#include <functional>
#include <string>

namespace Orvane {

// Runs `facts` in a child process, in which the library is not initialised. Expectations that fail
// there are printed and fail the test here, as do exceptions, crashes and a child that takes longer
// than a minute. Not every host can copy a process: `facts` may run in another one that got there
// by running the test from its beginning.
void InChild(const std::function<void()>& facts);

// The text that is thrown as a const char*, or what happens instead.
inline std::string TextThrownBy(const std::function<void()>& work) {
  try {
    work();
  } catch (const char* text) {
    return text;
  } catch (...) {
    return "(something else)";
  }
  return "(nothing)";
}

}  // namespace Orvane
