#include "filewriter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace HX::recording {

OutputFile::OutputFile(std::filesystem::path path)
    : path_(std::move(path)), file_(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)) {
  if (file_ < 0) fail(errno);
}

OutputFile::~OutputFile() { ::close(file_); }

void OutputFile::append(std::string_view bytes) {
  for (std::string_view rest = bytes; !rest.empty();) {
    const ssize_t count = ::write(file_, rest.data(), rest.size());
    if (count > 0) {
      rest.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      const int error = errno;
      // Readers take half a record at the end for a crash.
      if (::ftruncate(file_, static_cast<off_t>(size_)) == 0) ::lseek(file_, static_cast<off_t>(size_), SEEK_SET);
      fail(error);
    }
  }
  size_ += bytes.size();
  crc_ = crc32(bytes, crc_);
}

void OutputFile::sync() {
  if (::fdatasync(file_) != 0) fail(errno);
}

void OutputFile::fail(int error) const {
  throw RecordingError(fmt::format("{}: {}", path_.string(), std::strerror(error)));
}

FileWriter::FileWriter(std::filesystem::path path, const TextMap& about, bool hasIndex)
    : file_(std::move(path)), hasIndex_(hasIndex), buffer_(kMagic) {
  writeHeader(buffer_);
  file_.append(buffer_);
  add(Metadata{"korvo", about});
}

void FileWriter::add(const Metadata& metadata) {
  buffer_.clear();
  write(buffer_, metadata);
  writeRecord(metadataIndex_, Op::MetadataIndex, [&](ByteWriter& writer) {
    writer.number(file_.size()).number(std::uint64_t{buffer_.size()}).text(metadata.name);
  });
  file_.append(buffer_);
  ++statistics_.metadata;
}

void FileWriter::add(const SealedChunk& chunk) {
  ChunkIndex summary = chunk.summary;
  summary.place = file_.size();
  buffer_.clear();
  if (hasIndex_) appendIndex(chunk, summary, buffer_);
  file_.append(chunk.record);
  file_.append(buffer_);
  for (const IndexEntry& entry : chunk.index) ++statistics_.channelMessages[entry.channel];
  if (!chunk.index.empty()) {
    const bool isFirst = statistics_.messages == 0;
    statistics_.start = isFirst ? summary.start : std::min(statistics_.start, summary.start);
    statistics_.end = std::max(statistics_.end, summary.end);
  }
  statistics_.messages += chunk.index.size();
  ++statistics_.chunks;
  definitions_.schemas.insert(chunk.definitions.schemas.begin(), chunk.definitions.schemas.end());
  definitions_.channels.insert(chunk.definitions.channels.begin(), chunk.definitions.channels.end());
  chunks_.push_back(std::move(summary));
}

void FileWriter::appendIndex(const SealedChunk& chunk, ChunkIndex& summary, std::string& out) const {
  std::vector<IndexEntry> sorted = chunk.index;
  std::ranges::stable_sort(sorted, {}, &IndexEntry::channel);
  const std::uint64_t begin = summary.place + chunk.record.size();
  for (std::size_t first = 0; first < sorted.size();) {
    const std::uint16_t channel = sorted[first].channel;
    const auto isOther = [&](const IndexEntry& entry) { return entry.channel != channel; };
    const auto end = std::find_if(sorted.begin() + static_cast<std::ptrdiff_t>(first), sorted.end(), isOther);
    const auto last = static_cast<std::size_t>(end - sorted.begin());
    summary.channels.emplace_back(channel, begin + out.size());
    writeRecord(out, Op::MessageIndex, [&](ByteWriter& writer) {
      writer.number(channel).number(static_cast<std::uint32_t>((last - first) * 16));
      for (std::size_t i = first; i < last; ++i) writer.number(sorted[i].time).number(sorted[i].place);
    });
    first = last;
  }
  summary.indexLength = out.size();
}

void FileWriter::finish() {
  buffer_.clear();
  writeRecord(buffer_, Op::DataEnd, [&](ByteWriter& writer) { writer.number(file_.crc()); });
  file_.append(buffer_);
  const std::uint64_t begin = file_.size();
  std::string summary;
  std::string offsets;
  const auto group = [&](Op op, const auto& fill) {
    const std::size_t first = summary.size();
    fill();
    if (summary.size() == first) return;
    writeRecord(offsets, Op::SummaryOffset, [&](ByteWriter& writer) {
      writer.number(static_cast<std::uint8_t>(op)).number(begin + first);
      writer.number(std::uint64_t{summary.size() - first});
    });
  };
  statistics_.schemas = static_cast<std::uint16_t>(definitions_.schemas.size());
  statistics_.channels = static_cast<std::uint32_t>(definitions_.channels.size());
  group(Op::Schema, [&] {
    for (const auto& [id, record] : definitions_.schemas) summary += record;
  });
  group(Op::Channel, [&] {
    for (const auto& [id, record] : definitions_.channels) summary += record;
  });
  group(Op::Statistics, [&] { write(summary, statistics_); });
  // A reader that finds chunks without an index of their messages refuses the file; without both it reads it whole.
  group(Op::ChunkIndex, [&] {
    if (!hasIndex_) return;
    for (const ChunkIndex& chunk : chunks_) write(summary, chunk);
  });
  group(Op::MetadataIndex, [&] { summary += metadataIndex_; });
  const std::uint64_t offsetsPlace = begin + summary.size();
  summary += offsets;
  // The sum covers the footer up to itself.
  ByteWriter footer(summary);
  footer.number(static_cast<std::uint8_t>(Op::Footer)).number(kFooterSize - kRecordHead);
  footer.number(begin).number(offsetsPlace);
  footer.number(crc32(summary)).bytes(kMagic);
  file_.append(summary);
  file_.sync();
}

}  // namespace HX::recording
