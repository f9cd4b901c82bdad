#pragma once

namespace korvo {

/// The program: reads its command line, and does what that asks for.
///
/// @return The exit status; 2 for a command line that is not understood.
int runProgram(int argc, const char* const* argv);

}  // namespace korvo
