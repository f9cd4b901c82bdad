#pragma once

#include <string>

namespace korvo {

class Output;

/// Prints what `korvo run` would do with a file, or what is wrong with it.
/// @return The exit status.
int checkRobot(const std::string& path, Output& output);

}  // namespace korvo
