#pragma once

#include "commands.h"

#include <hxproxies/hxmemoryproxy.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

/// What the memory raises about itself: it means nothing at another time or in another memory.
bool isOfTheMemoryItself(std::string_view key);

/// The keys that a command is about: those that it names, or with --prefix all that begin with one of them, sorted.
///
/// @throws InputError when none is named; std::runtime_error when no key begins with a prefix.
std::vector<std::string> keysOf(Context& context, Arguments& arguments);

/// As `keysOf`, for a command that changes keys: with --prefix it leaves the memory's own ones out, and asks the person
/// first unless --yes was given.
/// @param what  What will be done, for the question: "remove".
/// @throws InputError where nobody can be asked; std::runtime_error when the answer is no.
std::vector<std::string> keysToChange(Context& context, Arguments& arguments, std::string_view what);

/// Has `use` do what a command is about with one key after another. One that fails does not keep the others from being
/// used: each error is told.
/// @throws The last error. Where the memory has no such key it suggests one.
void forEachKey(Context& context, const std::vector<std::string>& keys,
                const std::function<void(HX::HXMemoryProxy& memory, const std::string& key)>& use);

/// What keys by prefix are asked for with.
inline constexpr Option kPrefix{"--prefix", "", "Take each KEY as the beginning of keys"};
inline constexpr Option kYes{"--yes", "", "Change keys by prefix without asking"};

}  // namespace korvo
