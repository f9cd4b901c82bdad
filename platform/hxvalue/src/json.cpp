#include "builder.h"
#include "numbers.h"
#include "quote.h"
#include "walk.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace HX {

namespace {

using Json = nlohmann::json;

// Leaves behind how far the parser has read, which it does not tell its events.
class TrackedIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  TrackedIterator(const char* at, const char*& reached) : at_(at), reached_(&reached) {}

  reference operator*() const { return *at_; }
  TrackedIterator& operator++() {
    *reached_ = ++at_;
    return *this;
  }
  TrackedIterator operator++(int) {
    TrackedIterator before = *this;
    ++*this;
    return before;
  }
  bool operator==(const TrackedIterator& other) const { return at_ == other.at_; }

 private:
  const char* at_;
  const char** reached_;
};

// The parser's own words without its exception number, its position (ours serves all errors) and the token, which may
// be long.
std::string reason(std::string text) {
  if (const auto end = text.find("] "); end != std::string::npos) text.erase(0, end + 2);
  if (text.starts_with("parse error")) text.erase(0, text.find(": ") + 2);
  return text.substr(0, text.find("; last read: "));
}

class JsonReader final : public nlohmann::json_sax<Json> {
 public:
  HXValue take() { return builder_.take(); }

  bool null() override { return add({}); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(std::int64_t value) override {
    return std::in_range<std::int32_t>(value) ? add(static_cast<std::int32_t>(value)) : add(value);
  }
  bool number_unsigned(std::uint64_t value) override {
    if (!std::in_range<std::int64_t>(value)) failInteger(std::to_string(value));
    return number_integer(static_cast<std::int64_t>(value));
  }
  bool number_float(double value, const std::string& token) override {
    // Integers that the parser cannot hold arrive here as well.
    if (token.find_first_not_of("-0123456789") == std::string::npos) failInteger(token);
    return add(value);
  }
  bool string(std::string& value) override { return add(std::move(value)); }
  bool binary(Json::binary_t& /*value*/) override { return false; }  // JSON text has none.
  bool start_object(std::size_t /*size*/) override {
    builder_.beginMap();
    return true;
  }
  bool key(std::string& name) override {
    builder_.key(std::move(name));
    return true;
  }
  bool end_object() override { return end(); }
  bool start_array(std::size_t /*size*/) override {
    builder_.beginList();
    return true;
  }
  bool end_array() override { return end(); }
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/, const Json::exception& error) override {
    throw std::runtime_error(reason(error.what()));
  }

 private:
  bool add(HXValue value) {
    builder_.add(std::move(value));
    return true;
  }
  bool end() {
    builder_.end();
    return true;
  }
  [[noreturn]] static void failInteger(const std::string& digits) {
    throw std::runtime_error("the integer " + digits.substr(0, 40) + (digits.size() > 40 ? "..." : "") +
                             " does not fit 64 bits");
  }

  Builder builder_{kMaxJsonDepth};
};

std::string place(std::string_view text, const char* reached) {
  const std::string_view read = text.substr(0, static_cast<std::size_t>(reached - text.data()));
  const auto lines = std::count(read.begin(), read.end(), '\n');
  const std::size_t lineStart = read.find_last_of('\n') + 1;  // npos + 1 is 0
  return "JSON line " + std::to_string(lines + 1) + ", column " + std::to_string(read.size() - lineStart);
}

class JsonWriter {
 public:
  void begin(const HXValue& container) { out_.text += container.isList() ? '[' : '{'; }
  void end(const HXValue& container) { out_.text += container.isList() ? ']' : '}'; }
  void child(bool isFirst, const std::string* key) {
    if (!isFirst) out_.text += ',';
    if (key == nullptr) return;
    string(*key);
    out_.text += ':';
  }
  void leaf(const HXValue& value) {
    using Type = HXValue::Type;
    switch (value.getType()) {
      case Type::Bool:
        out_.text += value.asBool() ? "true" : "false";
        break;
      case Type::Int:
        out_.text += std::to_string(value.asInt());
        break;
      case Type::Int64:
        out_.text += std::to_string(value.asInt64());
        break;
      case Type::Float:
        decimal(value.asFloat());
        break;
      case Type::Double:
        decimal(value.asDouble());
        break;
      case Type::String:
        string(value.asString());
        break;
      case Type::Binary:
        binary(value.asBinary());
        break;
      default:
        out_.text += "null";
    }
  }
  JsonText take() { return std::move(out_); }

 private:
  template <typename Decimal>
  void decimal(Decimal number) {
    out_.text += std::isfinite(number) ? decimalText(number) : "null";
  }
  void string(std::string_view text) {
    const Quoted quoted = quote(text);
    out_.text += quoted.text;
    out_.replaced |= quoted.replaced;
  }
  void binary(const HXValue::Binary& bytes) {
    std::string text(bytes.size(), '\0');
    std::transform(bytes.begin(), bytes.end(), text.begin(), [](std::byte byte) { return static_cast<char>(byte); });
    string(text);
  }

  JsonText out_;
};

}  // namespace

HXValue fromJson(std::string_view text) {
  const char* reached = text.data();
  JsonReader reader;
  try {
    Json::sax_parse(TrackedIterator(text.data(), reached), TrackedIterator(text.data() + text.size(), reached),
                    &reader);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(place(text, reached) + ": " + error.what());
  }
  return reader.take();
}

JsonText toJsonText(const HXValue& value) {
  JsonWriter writer;
  walk(value, writer);
  return writer.take();
}

std::string toJson(const HXValue& value) { return toJsonText(value).text; }

}  // namespace HX
