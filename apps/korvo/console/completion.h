#pragma once

#include <span>
#include <string>
#include <vector>

namespace korvo {

/// What the last of `words`, those of a command line behind the program's name, may become: commands, their options,
/// and what a running broker knows, keys and services and their methods and signals. Sorted. A broker that is not there
/// or does not answer soon is done without.
///
/// Empty where a file name may stand, which shells complete themselves.
std::vector<std::string> completions(std::span<const std::string> words);

}  // namespace korvo
