#include "nkey.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace HX::fleet {
namespace {

constexpr std::size_t kSeedSize = 32;
constexpr std::uint8_t kUser = 20U << 3U;
constexpr std::uint8_t kSeed = 18U << 3U;
constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";

using Bytes = std::vector<std::uint8_t>;

/// CRC-16/XMODEM.
std::uint16_t checksum(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0;
  for (const std::uint8_t byte : bytes) {
    crc ^= static_cast<std::uint32_t>(byte) << 8U;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000U) != 0 ? (crc << 1U) ^ 0x1021U : crc << 1U;
  }
  return static_cast<std::uint16_t>(crc & 0xffffU);
}

std::string encode(Bytes bytes) {
  const std::uint16_t crc = checksum(bytes);
  bytes.push_back(static_cast<std::uint8_t>(crc & 0xffU));
  bytes.push_back(static_cast<std::uint8_t>(crc >> 8U));
  std::string text;
  std::uint32_t held = 0;
  int bits = 0;
  for (const std::uint8_t byte : bytes) {
    held = (held << 8U) | byte;
    for (bits += 8; bits >= 5; bits -= 5) text += kAlphabet[(held >> static_cast<unsigned>(bits - 5)) & 31U];
  }
  if (bits > 0) text += kAlphabet[(held << static_cast<unsigned>(5 - bits)) & 31U];
  return text;
}

/// Without the checksum. Empty for what has a wrong one.
Bytes decode(std::string_view text) {
  Bytes bytes;
  std::uint32_t held = 0;
  int bits = 0;
  for (const char c : text) {
    const auto digit = kAlphabet.find(c);
    if (digit == std::string_view::npos) return {};
    held = (held << 5U) | static_cast<std::uint32_t>(digit);
    bits += 5;
    if (bits < 8) continue;
    bits -= 8;
    bytes.push_back(static_cast<std::uint8_t>((held >> static_cast<unsigned>(bits)) & 0xffU));
  }
  if (bytes.size() < 2) return {};
  const auto crc = static_cast<std::uint16_t>(bytes[bytes.size() - 2] | (bytes.back() << 8U));
  bytes.resize(bytes.size() - 2);
  return checksum(bytes) == crc ? bytes : Bytes();
}

UserKey keyOf(std::span<const std::uint8_t> seed) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()), &EVP_PKEY_free);
  Bytes known(1 + kSeedSize, kUser);
  std::size_t size = kSeedSize;
  if (!key || EVP_PKEY_get_raw_public_key(key.get(), known.data() + 1, &size) != 1) {
    throw std::runtime_error("no key can be made of the seed");
  }
  // Five bits say that it is a seed, five whose.
  Bytes secret{static_cast<std::uint8_t>(kSeed | (kUser >> 5U)), static_cast<std::uint8_t>((kUser & 31U) << 3U)};
  secret.insert(secret.end(), seed.begin(), seed.end());
  return {encode(std::move(secret)), encode(std::move(known))};
}

}  // namespace

UserKey makeUserKey() {
  std::array<std::uint8_t, kSeedSize> seed{};
  if (RAND_bytes(seed.data(), static_cast<int>(seed.size())) != 1)
    throw std::runtime_error("there are no random numbers");
  return keyOf(seed);
}

UserKey userKeyOf(const std::string& seed) {
  const Bytes bytes = decode(seed);
  const bool isUsers =
      bytes.size() == kSeedSize + 2 && bytes[0] == (kSeed | (kUser >> 5U)) && bytes[1] == ((kUser & 31U) << 3U);
  if (!isUsers) throw std::runtime_error("it is no seed of a user");
  return keyOf(std::span(bytes).subspan(2));
}

}  // namespace HX::fleet
