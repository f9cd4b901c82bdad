#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace HX::recording {

enum class Compression : std::uint8_t { None, Zstd, Lz4 };

/// "", "zstd", "lz4", as files name them.
std::string_view toString(Compression compression) noexcept;
/// As the file or a person names it; "none" too.
/// @throws RecordingError naming what is none.
Compression toCompression(std::string_view name);

/// Compresses one chunk after another; keeps what that takes.
///
/// @par Threads  One at a time.
class Compressor {
 public:
  explicit Compressor(Compression compression);
  Compressor(const Compressor&) = delete;
  Compressor& operator=(const Compressor&) = delete;
  ~Compressor();

  Compression compression() const { return compression_; }
  std::string compress(std::string_view bytes);

 private:
  struct State;
  const Compression compression_;
  std::unique_ptr<State> state_;
};

/// @param compression  As the file names it.
/// @param size         What the file says of the size; what comes out otherwise is an error.
/// @param limit        The greatest size that is taken. No memory is spent on more than really comes out.
/// @throws RecordingError
std::string decompress(std::string_view compression, std::string_view bytes, std::uint64_t size, std::uint64_t limit);

}  // namespace HX::recording
