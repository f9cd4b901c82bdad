#pragma once

#include <iosfwd>
#include <string>

namespace korvo {

/// Prints what the memory makes of each line of a signal-to-event map.
/// @return The exit status: 0, 1 when a line was rejected, 2 when the file cannot be read, which `errors` then says.
int checkMap(const std::string& path, std::ostream& verdicts, std::ostream& errors);

}  // namespace korvo
