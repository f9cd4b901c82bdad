#pragma once

namespace korvo {

/// What the program ends with, so that scripts can tell.
enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,      ///< What was asked for went wrong.
  kWrongUsage = 2,  ///< The command line is at fault, and nothing was done.
  kNoBroker = 3,    ///< There is no broker to ask.
};

/// The program: reads its command line, and does what that asks for.
///
/// @return The exit status.
int runProgram(int argc, const char* const* argv);

}  // namespace korvo
