#pragma once

#include <string>
#include <string_view>

namespace korvo {

struct Verb;

/// "get [--json] KEY", without the options that most verbs have.
std::string synopsis(const Verb& verb);

/// What `korvo --help` prints: the verbs by their groups.
std::string helpOnAll();
/// What `korvo VERB --help` prints.
std::string helpOn(const Verb& verb);

/// A manual page in the man macros: of the whole program where `verb` is null, else of that verb.
std::string manualPage(const Verb* verb);

}  // namespace korvo
