#pragma once

#include "chain.h"
#include "wire.h"

#include <cstddef>
#include <span>

namespace mw::remote {

/// Writes the extension that says which chain a call belongs to.
void writeChain(Writer& out, const Chain& chain);
/// Reads the content of one.
/// @throws ProtocolError
Chain readChain(std::span<const std::byte> content);

}  // namespace mw::remote
