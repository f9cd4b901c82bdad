#pragma once

#include <string>

namespace korvo {

class Output;
class Target;

/// Shows the memory as it changes, until `stop` is readable.
///
/// On a terminal a table that fits it, drawn anew when something changes, to filter, to sort, to scroll, and to leave
/// with `q`; what is wrong and what is logged meanwhile stands in its last line. The terminal is restored however it
/// ends. Elsewhere all keys, once a second, until nobody reads them.
///
/// @param name    Of the broker, for the head.
/// @param filter  Shows only the keys that contain it, to begin with.
/// @throws std::runtime_error elsewhere than on a terminal, when there is no memory.
void runLiveView(Target& target, Output& output, const std::string& name, const std::string& filter, int stop);

}  // namespace korvo
