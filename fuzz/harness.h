#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

/// What strangers may send: one function for each boundary of the product. A harness is given any bytes; it must
/// return, and what it says holds for all of them must hold.
///
/// Each is a fuzzer of its own where clang's fuzzer is there (`tools/fuzz`), and is run over its corpus as a test
/// everywhere.
namespace fuzz {

using Input = std::span<const std::uint8_t>;

void batch(Input input);      ///< What a client is told of changes, and what it asks for.
void filter(Input input);     ///< Patterns of keys, as somebody who follows names them.
void json(Input input);       ///< JSON texts: files, the console, the command line.
void msgpack(Input input);    ///< MessagePack, and where its values end in a stream.
void link(Input input);       ///< What a peer of a broker sends, frame by frame.
void mapfile(Input input);    ///< Files that map signals to events.
void console(Input input);    ///< Lines of the console.
void view(Input input);       ///< What lies in shared memory.
void web(Input input);        ///< Requests at the gate of the page's server, and what pages say.
void viewer(Input input);     ///< What viewers say, in text and in binary.
void recording(Input input);  ///< A file, and any moment of it.

/// Ends the run with what does not hold.
inline void require(bool holds, const char* what) {
  if (!holds) throw std::logic_error(what);
}

inline std::string_view textOf(Input input) { return {reinterpret_cast<const char*>(input.data()), input.size()}; }

}  // namespace fuzz
