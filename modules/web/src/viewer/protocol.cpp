#include "protocol.h"

#include <hxvalue/json.h>

#include <bit>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace HX::web::viewer {
namespace {

static_assert(std::endian::native == std::endian::little, "numbers are sent as they lie in memory");

enum class Opcode : std::uint8_t { Data = 1, Time = 2, Answer = 3 };
constexpr std::string_view kJson = "json";

template <class T>
void append(std::string& bytes, T number) {
  bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
}

/// Reads from the front of a message.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}
  std::string_view bytes(std::size_t count) {
    if (rest_.size() < count) throw std::runtime_error("a binary message is cut off");
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }
  std::uint8_t byte() { return static_cast<std::uint8_t>(bytes(1).front()); }
  std::uint32_t number() {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes(sizeof number).data(), sizeof number);
    return number;
  }
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

}  // namespace

Request readRequest(std::string_view bytes) {
  Reader reader(bytes);
  Request request;
  const std::uint8_t kind = reader.byte();
  if (kind == static_cast<std::uint8_t>(Request::Kind::Publish)) {
    request.channel = reader.number();
  } else if (kind == static_cast<std::uint8_t>(Request::Kind::Call)) {
    request.kind = Request::Kind::Call;
    request.service = reader.number();
    request.call = reader.number();
    request.encoding = reader.bytes(reader.number());
  } else {
    throw std::runtime_error("no binary message has the number " + std::to_string(kind));
  }
  request.payload = reader.rest();
  return request;
}

Message timeFrame(std::uint64_t nanoseconds) {
  std::string bytes(1, static_cast<char>(Opcode::Time));
  append(bytes, nanoseconds);
  return Message::binary(std::move(bytes));
}

Message dataFrame(std::uint32_t subscription, journal::TimePoint time, std::string_view payload) {
  std::string bytes;
  bytes.reserve(13 + payload.size());
  bytes += static_cast<char>(Opcode::Data);
  append(bytes, subscription);
  append(bytes, nanosecondsOf(time));
  bytes += payload;
  return Message::binary(std::move(bytes));
}

Message answerFrame(std::uint32_t service, std::uint32_t call, std::string_view payload) {
  std::string bytes(1, static_cast<char>(Opcode::Answer));
  append(bytes, service);
  append(bytes, call);
  append(bytes, static_cast<std::uint32_t>(kJson.size()));
  bytes += kJson;
  bytes += payload;
  return Message::binary(std::move(bytes));
}

Message textFrame(std::string_view op, HXValue::Map entries) {
  entries.insert_or_assign("op", op);
  return Message::text(toJson(HXValue::map(std::move(entries))));
}

Message status(Level level, std::string text, std::string id) {
  HXValue::Map entries{{"level", static_cast<int>(level)}, {"message", std::move(text)}};
  if (!id.empty()) entries.emplace("id", std::move(id));
  return textFrame("status", std::move(entries));
}

std::uint64_t nanosecondsOf(journal::TimePoint time) {
  return static_cast<std::uint64_t>(time.time_since_epoch().count());
}

}  // namespace HX::web::viewer
