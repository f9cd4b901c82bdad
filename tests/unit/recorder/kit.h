#pragma once

#include "recording/encoder.h"
#include "recording/filewriter.h"
#include "recording/reader.h"

#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace HX::recording::kit {

using journal::Change;

inline TimePoint at(double seconds) {
  return TimePoint(std::chrono::nanoseconds(static_cast<std::int64_t>((1'700'000'000 + seconds) * 1e9)));
}

/// A change as the memory tells it, with revisions and times that rise.
class Changes {
 public:
  Change of(std::string_view key, HXValue value, What what = What::Stored, std::string_view author = {}) {
    Change change;
    change.key = key;
    change.value = std::move(value);
    change.time = at(static_cast<double>(++revision_) / 1000);
    change.at = {7, revision_};
    change.what = what;
    change.kind = what == What::Raised ? kEvent : what == What::RaisedMicro ? kMicroEvent : kData;
    change.author = author;
    return change;
  }
  std::uint64_t revision() const { return revision_; }

 private:
  std::uint64_t revision_ = 0;
};

/// Writes changes to a file, a chunk for each so many.
class Script {
 public:
  explicit Script(std::filesystem::path path, Compression compression = Compression::Zstd, bool hasIndex = true)
      : writer_(std::move(path), {{"revision", "1"}, {"epoch", "7"}}, hasIndex), compressor_(compression) {}

  void add(const Change& change) {
    encoder.add(change, at(0));
    if (encoder.chunk().index.size() >= 50) closeChunk();
  }
  void closeChunk() {
    if (!encoder.chunk().isEmpty()) writer_.add(seal(encoder.takeChunk(), compressor_));
  }
  void finish() {
    closeChunk();
    writer_.finish();
  }
  Encoder encoder;

 private:
  FileWriter writer_;
  Compressor compressor_;
};

inline std::vector<Entry> entriesOf(const std::filesystem::path& path) {
  Reader reader(path);
  std::vector<Entry> entries;
  reader.forEach([&](const Entry& entry) {
    entries.push_back(entry);
    return true;
  });
  return entries;
}

inline std::string contentOf(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline void writeContent(const std::filesystem::path& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace HX::recording::kit
