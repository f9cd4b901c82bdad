#pragma once

#include <string>

namespace korvo {

class Output;
class Target;

/// Shows the memory as it changes, until `stop` is readable.
///
/// On a terminal a table that fits it, twice a second, to scroll with the arrow and page keys and to leave with `q`;
/// what is logged meanwhile stands in its last line. Elsewhere all keys, once a second, until nobody reads them.
///
/// @param name  Of the broker, for the head.
void runLiveView(Target& target, Output& output, const std::string& name, int stop);

}  // namespace korvo
