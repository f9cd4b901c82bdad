#include "chaincodec.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <boost/endian/conversion.hpp>

namespace mw::remote {
namespace {

template <class Number>
void put(std::byte*& at, Number number) {
  boost::endian::native_to_big_inplace(number);
  std::memcpy(at, &number, sizeof number);
  at += sizeof number;
}

template <class Number>
void take(const std::byte*& at, Number& number) {
  std::memcpy(&number, at, sizeof number);
  boost::endian::big_to_native_inplace(number);
  at += sizeof number;
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
