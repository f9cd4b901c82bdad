#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace korvo {

/// Adds an option that may be repeated. It takes one value at a time, so that it cannot swallow what follows.
/// @param app          Whose option it is.
/// @param name         As it is given: "--module".
/// @param values       Where its values go; outlives `app`.
/// @param help         One line.
/// @param placeholder  What the help calls a value.
/// @return The option, for what else is to be said of it.
inline CLI::Option* addRepeated(CLI::App& app, const char* name, std::vector<std::string>& values, const char* help,
                                const char* placeholder) {
  return app.add_option(name, values, help)->allow_extra_args(false)->type_name(placeholder);
}

}  // namespace korvo
