#include "compression.h"

#include "error.h"

#include <algorithm>
#include <functional>
#include <lz4frame.h>
#include <stdexcept>
#include <zstd.h>

#include <fmt/format.h>

namespace HX::recording {
namespace {

constexpr int kZstdLevel = 1;  // Level 3 takes one and a half times as long, for the same size.

std::size_t checkedZstd(std::size_t result) {
  if (ZSTD_isError(result) != 0) throw RecordingError(fmt::format("zstd: {}", ZSTD_getErrorName(result)));
  return result;
}

std::size_t checkedLz4(std::size_t result) {
  if (LZ4F_isError(result) != 0) throw RecordingError(fmt::format("lz4: {}", LZ4F_getErrorName(result)));
  return result;
}

/// Lets the output grow with what comes out, for what a file says of its size costs nothing to say.
/// @param step  Writes to (place, room) and returns how much it wrote, and whether all is done.
std::string grow(std::uint64_t size, const std::function<std::pair<std::size_t, bool>(char*, std::size_t)>& step) {
  constexpr std::size_t kFirst = std::size_t{4} << 20U;
  std::string out;
  std::size_t used = 0;
  out.resize(std::min<std::size_t>(size + 1, kFirst));  // Room for one more, which shows that there is more.
  while (true) {
    const auto [written, isDone] = step(out.data() + used, out.size() - used);
    used += written;
    if (used > size) throw RecordingError("compressed data is longer than it says");
    if (isDone) break;
    if (used < out.size() && written == 0) throw RecordingError("compressed data is cut short");
    if (used == out.size()) out.resize(std::min<std::size_t>(size + 1, out.size() * 2));
  }
  if (used != size) throw RecordingError("compressed data is shorter than it says");
  out.resize(used);
  return out;
}

std::string decompressZstd(std::string_view bytes, std::uint64_t size) {
  const std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context(ZSTD_createDCtx(), &ZSTD_freeDCtx);
  if (!context) throw std::bad_alloc();
  ZSTD_inBuffer input{bytes.data(), bytes.size(), 0};
  return grow(size, [&](char* place, std::size_t room) {
    ZSTD_outBuffer output{place, room, 0};
    const std::size_t left = checkedZstd(ZSTD_decompressStream(context.get(), &output, &input));
    return std::pair(output.pos, left == 0 && input.pos == input.size);
  });
}

std::string decompressLz4(std::string_view bytes, std::uint64_t size) {
  LZ4F_dctx* made = nullptr;
  checkedLz4(LZ4F_createDecompressionContext(&made, LZ4F_VERSION));
  const std::unique_ptr<LZ4F_dctx, decltype(&LZ4F_freeDecompressionContext)> context(made,
                                                                                     &LZ4F_freeDecompressionContext);
  return grow(size, [&](char* place, std::size_t room) {
    std::size_t written = room;
    std::size_t taken = bytes.size();
    const std::size_t left = checkedLz4(LZ4F_decompress(context.get(), place, &written, bytes.data(), &taken, nullptr));
    bytes.remove_prefix(taken);
    return std::pair(written, left == 0 && bytes.empty());
  });
}

}  // namespace

std::string_view toString(Compression compression) noexcept {
  switch (compression) {
    case Compression::Zstd:
      return "zstd";
    case Compression::Lz4:
      return "lz4";
    default:
      return "";
  }
}

Compression toCompression(std::string_view name) {
  if (name.empty() || name == "none") return Compression::None;
  if (name == "zstd") return Compression::Zstd;
  if (name == "lz4") return Compression::Lz4;
  throw RecordingError(fmt::format("no compression {}; there is zstd, lz4, none", name.substr(0, 40)));
}

struct Compressor::State {
  std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> zstd{nullptr, &ZSTD_freeCCtx};
};

Compressor::Compressor(Compression compression) : compression_(compression), state_(std::make_unique<State>()) {
  if (compression == Compression::Zstd) state_->zstd.reset(ZSTD_createCCtx());
}

Compressor::~Compressor() = default;

std::string Compressor::compress(std::string_view bytes) {
  std::string out;
  if (compression_ == Compression::Zstd) {
    if (!state_->zstd) throw std::bad_alloc();
    out.resize(ZSTD_compressBound(bytes.size()));
    out.resize(checkedZstd(
        ZSTD_compressCCtx(state_->zstd.get(), out.data(), out.size(), bytes.data(), bytes.size(), kZstdLevel)));
  } else if (compression_ == Compression::Lz4) {
    out.resize(LZ4F_compressFrameBound(bytes.size(), nullptr));
    out.resize(checkedLz4(LZ4F_compressFrame(out.data(), out.size(), bytes.data(), bytes.size(), nullptr)));
  } else {
    out = bytes;
  }
  return out;
}

std::string decompress(std::string_view compression, std::string_view bytes, std::uint64_t size, std::uint64_t limit) {
  if (size > limit) throw RecordingError(fmt::format("a chunk says that it has {} bytes, which is too much", size));
  switch (toCompression(compression)) {
    case Compression::Zstd:
      return decompressZstd(bytes, size);
    case Compression::Lz4:
      return decompressLz4(bytes, size);
    default:
      if (bytes.size() != size) throw RecordingError("a chunk has another size than it says");
      return std::string(bytes);
  }
}

}  // namespace HX::recording
