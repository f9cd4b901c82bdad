#pragma once

#include "chain.h"
#include "wire.h"

#include <cstddef>
#include <span>

namespace mw::remote {

/// Writes the extension that says which chain a call belongs to.
/// @param author  In whose name the call is made, as `LinkAuthors` encodes it.
void writeChain(Writer& out, const Chain& chain, std::span<const std::byte> author = {});
/// Reads the content of one.
/// @param author  Refers to what is said of that, empty where nothing is.
/// @throws ProtocolError
Chain readChain(std::span<const std::byte> content, std::span<const std::byte>& author);

}  // namespace mw::remote
