#include "reader.h"

#include "compression.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace HX::recording {
namespace {

/// Stands in `ChunkIndex::compression` for records outside of chunks.
constexpr std::string_view kBare = "bare";
/// Records of other kinds than chunks are kept in memory.
constexpr std::uint64_t kMostOfRecord = std::uint64_t{256} << 20U;

/// Whether a record stands before the summary in files of anybody.
bool mayStandThere(Op op) {
  constexpr auto kAttachment = Op{0x09};
  constexpr auto kFirstPrivate = Op{0x80};
  return op <= Op::MessageIndex ? op != Op{0} : op == kAttachment || op == Op::Metadata || op >= kFirstPrivate;
}

}  // namespace

std::uint64_t numberOf(const TextMap& about, std::string_view name) {
  const auto found = about.find(name);
  std::uint64_t number = 0;
  if (found != about.end()) std::from_chars(found->second.data(), found->second.data() + found->second.size(), number);
  return number;
}

Reader::Reader(std::filesystem::path path, Way way, std::uint64_t limit)
    : path_(std::move(path)), limit_(limit), file_(::open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {
  struct stat status {};
  if (file_ < 0 || ::fstat(file_, &status) != 0) {
    const int error = errno;
    if (file_ >= 0) ::close(file_);
    throw RecordingError(fmt::format("{}: {}", path_.string(), std::strerror(error)));
  }
  size_ = S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
  try {
    if (size_ < kMagic.size() || readBytes(0, kMagic.size()) != kMagic) {
      throw RecordingError(fmt::format("{} is no recording", path_.string()));
    }
    isWhole_ = readSummary();
    if (!isWhole_ || way == Way::Lenient || (chunks_.empty() && statistics_ && statistics_->chunks > 0)) {
      if (!isWhole_) hasIndex_ = false;
      scan();
    }
  } catch (...) {
    ::close(file_);
    throw;
  }
}

Reader::~Reader() { ::close(file_); }

void Reader::fail(std::uint64_t place, const std::string& reason) const {
  throw RecordingError(fmt::format("{}: at byte {}: {}", path_.string(), place, reason));
}

std::string Reader::readBytes(std::uint64_t place, std::uint64_t size) const {
  if (place > size_ || size > size_ - place) fail(place, "the file ends too early");
  std::string bytes(size, '\0');
  for (std::uint64_t done = 0; done < size;) {
    const ssize_t count = ::pread(file_, bytes.data() + done, size - done, static_cast<off_t>(place + done));
    if (count == 0 || (count < 0 && errno != EINTR))
      fail(place, count == 0 ? "the file ends too early" : std::strerror(errno));
    if (count > 0) done += static_cast<std::uint64_t>(count);
  }
  return bytes;
}

/// @return False when there is none that holds.
bool Reader::readSummary() {
  constexpr std::uint64_t kSum = sizeof(std::uint32_t);
  const std::uint64_t tail = kFooterSize + kMagic.size();
  if (size_ < kMagic.size() + tail) return false;
  const std::string end = readBytes(size_ - tail, tail);
  if (!end.ends_with(kMagic) || static_cast<Op>(end[0]) != Op::Footer) return false;
  const Footer footer = readFooter(std::string_view(end).substr(kRecordHead, kFooterSize - kRecordHead));
  if (footer.summary < kMagic.size() || footer.summary > size_ - tail) return false;
  const std::string summary = readBytes(footer.summary, size_ - kMagic.size() - kSum - footer.summary);
  if (footer.summaryCrc != 0 && crc32(summary) != footer.summaryCrc) return false;
  try {
    forEachRecord(std::string_view(summary).substr(0, size_ - tail - footer.summary),
                  [this](const Record& record) { readSummaryRecord(record); });
  } catch (const RecordingError&) {
    chunks_.clear();
    statistics_.reset();
    return false;
  }
  return true;
}

void Reader::readSummaryRecord(const Record& record) {
  if (record.op == Op::Schema || record.op == Op::Channel) {
    std::string whole;
    writeRecord(whole, record.op, [&](ByteWriter& writer) { writer.bytes(record.content); });
    addDefinition(record, whole);
  } else if (record.op == Op::ChunkIndex) {
    chunks_.push_back(readChunkIndex(record.content));
    hasIndex_ = true;
  } else if (record.op == Op::Statistics) {
    statistics_ = readStatistics(record.content);
  } else if (record.op == Op::MetadataIndex) {
    ByteReader index(record.content);
    const auto place = index.number<std::uint64_t>();
    const std::string metadata = readBytes(place, index.number<std::uint64_t>());
    addMetadata(readMetadata(std::string_view(metadata).substr(std::min<std::size_t>(kRecordHead, metadata.size()))));
  }
}

/// Finds the chunks by going from record to record.
void Reader::scan() {
  const auto indexed = std::exchange(chunks_, {});
  metadata_.clear();
  strange_ = 0;
  std::uint64_t place = kMagic.size();
  while (size_ - place >= kRecordHead) {
    const std::string head = readBytes(place, kRecordHead);
    ByteReader reader(head);
    const auto op = static_cast<Op>(reader.number<std::uint8_t>());
    const auto length = reader.number<std::uint64_t>();
    if (length > size_ - place - kRecordHead) break;
    if (op == Op::DataEnd || op == Op::Footer) return;
    if (!mayStandThere(op)) strange_ += kRecordHead + length;
    try {
      scanRecord(op, place, length);
    } catch (const RecordingError&) {  // What follows it may be whole.
      if (op == Op::Chunk) fail(place, "a chunk has no head");
    }
    place += kRecordHead + length;
  }
  // A wrong length in the middle hides what the summary still knows.
  if (isWhole_ && indexed.size() > chunks_.size()) chunks_ = indexed;
  isWhole_ = false;
  lost_ = size_ - place;
}

void Reader::scanRecord(Op op, std::uint64_t place, std::uint64_t length) {
  constexpr std::uint64_t kChunkHead = 40;  // With the name of its compression, and the length of what follows.
  const bool isBare = op == Op::Message || op == Op::Schema || op == Op::Channel;
  if (op == Op::Chunk) {
    const std::string head = readBytes(place + kRecordHead, std::min(length, kChunkHead + 64));
    ByteReader reader(head);
    ChunkIndex chunk;
    chunk.start = reader.number<std::uint64_t>();
    chunk.end = reader.number<std::uint64_t>();
    chunk.uncompressedSize = reader.number<std::uint64_t>();
    reader.number<std::uint32_t>();
    chunk.compression = reader.text();
    chunk.compressedSize = reader.number<std::uint64_t>();
    chunk.place = place;
    chunk.length = kRecordHead + length;
    chunks_.push_back(std::move(chunk));
  } else if (op == Op::Metadata && length < kMostOfRecord) {
    addMetadata(readMetadata(readBytes(place + kRecordHead, length)));
  } else if (isBare) {
    const bool goesOn = !chunks_.empty() && chunks_.back().compression == kBare &&
                        chunks_.back().place + chunks_.back().length == place;
    if (!goesOn) {
      ChunkIndex run;
      run.place = place;
      run.compression = kBare;
      run.start = ~std::uint64_t{0};
      chunks_.push_back(std::move(run));
    }
    ChunkIndex& run = chunks_.back();
    run.length += kRecordHead + length;
    run.uncompressedSize = run.compressedSize = run.length;
    if (op != Op::Message) return;
    const std::uint64_t time = readMessage(readBytes(place + kRecordHead, std::min<std::uint64_t>(length, 22))).logTime;
    run.start = std::min(run.start, time);
    run.end = std::max(run.end, time);
  }
}

void Reader::addMetadata(Metadata metadata) {
  if (metadata.name == "korvo") {
    about_ = std::move(metadata.entries);
  } else {
    metadata_.push_back(std::move(metadata));
  }
}

void Reader::addDefinition(const Record& record, std::string_view whole) {
  if (record.op == Op::Schema) {
    schemaRecords_.try_emplace(readSchema(record.content).id, whole);
  } else if (record.op == Op::Channel) {
    const Channel channel = readChannel(record.content);
    if (channelRecords_.try_emplace(channel.id, whole).second) addChannel(record.content);
  }
}

void Reader::addChannel(std::string_view content) {
  const Channel channel = readChannel(content);
  ChannelInfo info;
  info.topic = channel.topic;
  const auto text = [&](const char* name) {
    const auto found = channel.metadata.find(name);
    return found == channel.metadata.end() ? std::string() : found->second;
  };
  info.author = text("callerid");
  const std::string kind = text("kind");
  if (kind == "event") info.what = What::Raised;
  if (kind == "micro-event") info.what = What::RaisedMicro;
  if (const std::string type = text("type"); !type.empty()) {
    info.shape = Shape::parse(type);
    info.hasShape = true;
  } else if (info.topic == kLogTopic) {
    info.role = ChannelInfo::Role::Log;
  } else if (info.topic == kChangesTopic) {
    info.role = ChannelInfo::Role::Changes;
  } else if (info.topic == kMoreTopic) {
    info.role = ChannelInfo::Role::More;
  } else {
    info.role = ChannelInfo::Role::Foreign;
  }
  channels_.emplace(channel.id, std::move(info));
}

std::string Reader::recordOf(const ChunkIndex& chunk) const { return readBytes(chunk.place, chunk.length); }

std::string Reader::load(const ChunkIndex& chunk) {
  try {
    std::string record = recordOf(chunk);
    std::string records;
    if (chunk.compression == kBare) {
      records = std::move(record);
    } else {
      if (record.size() < kRecordHead || static_cast<Op>(record[0]) != Op::Chunk)
        throw RecordingError("there is no chunk");
      const Chunk head = readChunk(std::string_view(record).substr(kRecordHead));
      records = decompress(head.compression, head.records, head.uncompressedSize, limit_);
      if (head.uncompressedCrc != 0 && crc32(records) != head.uncompressedCrc) {
        throw RecordingError("a chunk has a wrong checksum");
      }
    }
    forEachRecord(records, [&](const Record& found) {
      if (found.op != Op::Schema && found.op != Op::Channel) return;
      addDefinition(found, std::string_view(records).substr(found.place, kRecordHead + found.content.size()));
    });
    return records;
  } catch (const RecordingError& error) {
    fail(chunk.place, error.what());
  }
}

bool Reader::hasRightSum() const {
  constexpr std::uint64_t kPiece = std::uint64_t{4} << 20U;
  const std::uint64_t tail = kFooterSize + kMagic.size();
  if (size_ < tail + kRecordHead) return false;
  const Footer footer = readFooter(readBytes(size_ - tail + kRecordHead, kFooterSize - kRecordHead));
  const std::uint64_t dataEnd = footer.summary - std::min(footer.summary, kRecordHead + sizeof(std::uint32_t));
  const std::string record = readBytes(dataEnd, kRecordHead + sizeof(std::uint32_t));
  if (static_cast<Op>(record[0]) != Op::DataEnd) return false;
  std::uint32_t sum = 0;
  for (std::uint64_t place = 0; place < dataEnd; place += kPiece) {
    sum = crc32(readBytes(place, std::min(kPiece, dataEnd - place)), sum);
  }
  return sum == ByteReader(std::string_view(record).substr(kRecordHead)).number<std::uint32_t>();
}

void Reader::forEach(const std::function<bool(const Entry& entry)>& use, std::size_t from, std::size_t end) {
  Decoder decoder(*this);
  bool goesOn = true;
  for (std::size_t i = from; i < std::min(end, chunks_.size()) && goesOn; ++i) {
    const std::string records = load(chunks_[i]);
    try {
      forEachRecord(records, [&](const Record& record) {
        if (record.op != Op::Message || !goesOn) return;
        if (const auto entry = decoder.decode(readMessage(record.content))) goesOn = use(*entry);
      });
    } catch (const RecordingError& error) {
      fail(chunks_[i].place, error.what());
    }
  }
}

}  // namespace HX::recording
