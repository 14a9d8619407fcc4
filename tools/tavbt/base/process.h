// What the program gets from its system: descriptors, files, a child process.
#pragma once

#include <functional>
#include <string>

namespace tavbt {

// Makes sure that stdin, stdout and stderr are open, so that no socket gets the number of one that the caller closed,
// and that no socket gets a number that is too large for the module.
void Prepare_Descriptors();

// All that a file holds, or stdin for "-". Throws S_Failure.
std::string Read_File(const std::string& path);

// Runs a task in a child process, within limits of time and memory: work on what a device sends to a library that may
// not survive it. Throws S_Failure when it fails: without words where the task has said what happened, else `what` with
// how it ended.
void Run_InChild(const std::function<void()>& task, const std::string& what);

}  // namespace tavbt
