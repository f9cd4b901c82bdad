#include "chaincodec.h"

#include <algorithm>
#include <array>

namespace mw::remote {
namespace {

template <class Number>
void put(std::byte*& at, Number number) {
  for (unsigned shift = 8 * sizeof number; shift > 0;) *at++ = static_cast<std::byte>(number >> (shift -= 8) & 0xffU);
}

template <class Number>
void take(const std::byte*& at, Number& number) {
  number = 0;
  for (unsigned i = 0; i < sizeof number; ++i) number = number << 8U | std::to_integer<Number>(*at++);
}

constexpr std::size_t kChainSize = 16;

}  // namespace

void writeChain(Writer& out, const Chain& chain, std::span<const std::byte> author) {
  std::array<std::byte, kChainSize + 256> content;  // NOLINT(*-member-init): only what is written is read.
  std::byte* at = content.data();
  put(at, chain.caller.endpoint);
  put(at, chain.caller.thread);
  put(at, chain.depth);
  at = std::copy(author.begin(), author.end(), at);
  out.extension(Extension::Chain, std::span(content.data(), at));
}

Chain readChain(std::span<const std::byte> content, std::span<const std::byte>& author) {
  if (content.size() < kChainSize) throw ProtocolError("a chain is 16 bytes at least");
  author = content.subspan(kChainSize);
  Chain chain;
  const std::byte* at = content.data();
  take(at, chain.caller.endpoint);
  take(at, chain.caller.thread);
  take(at, chain.depth);
  return chain;
}

}  // namespace mw::remote
