#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace storage::clients::s3
{

/// How a program ended and what it wrote.
struct ProgramResult
{
    std::string failure;        ///< such as "exited with status 3"; empty: it exited with status 0
    bool isInterrupted = false; ///< it was ended because this process is interrupted
    std::string output;         ///< the first 64 KiB of standard output
    std::string errors;         ///< the first 64 KiB of standard error
};

/// Run a program and wait for its end. It has the environment of this process, no input, no terminal and none of this
/// process's open files.
///
/// At the limit, or when this process is interrupted, the program and its children are killed. No zombie remains.
/// @param words        the program, which is looked for in PATH unless it has a "/", and its arguments; not empty
/// @param interrupted  called at least ten times a second; null: never
/// @throws std::system_error when the program cannot be started
ProgramResult runProgram(
    const std::vector<std::string>& words, std::chrono::milliseconds limit, const std::function<bool()>& interrupted);

} // namespace storage::clients::s3
