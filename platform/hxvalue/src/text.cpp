#include "numbers.h"
#include "quote.h"
#include "walk.h"

#include <hxvalue/hxvalue.h>

namespace HX {

namespace {

std::string leafText(const HXValue& value) {
  using Type = HXValue::Type;
  switch (value.getType()) {
    case Type::Bool:
      return value.asBool() ? "true" : "false";
    case Type::Int:
      return std::to_string(value.asInt());
    case Type::Int64:
      return std::to_string(value.asInt64());
    case Type::Float:
      return decimalText(value.asFloat());
    case Type::Double:
      return decimalText(value.asDouble());
    case Type::String:
      return quote(value.asString()).text;
    case Type::Binary:
      return std::to_string(value.asBinary().size()).insert(0, 1, '<') + " bytes>";
    default:
      return "null";
  }
}

class TextWriter {
 public:
  explicit TextWriter(bool typed) : typed_(typed) {}

  void begin(const HXValue& container) {
    nameType(container);
    text_ += container.isList() ? '[' : '{';
  }
  void end(const HXValue& container) { text_ += container.isList() ? ']' : '}'; }
  void child(bool isFirst, const std::string* key) {
    if (!isFirst) text_ += ", ";
    if (key != nullptr) text_ += quote(*key).text + ": ";
  }
  void leaf(const HXValue& value) {
    if (typed_ && !value.isValid()) {
      text_ += HXValue::TypeToString(value.getType());
    } else {
      nameType(value);
      text_ += leafText(value);
    }
  }
  std::string take() { return std::move(text_); }

 private:
  void nameType(const HXValue& value) {
    if (!typed_) return;
    text_ += HXValue::TypeToString(value.getType());
    text_ += ' ';
  }

  bool typed_;
  std::string text_;
};

}  // namespace

std::string HXValue::toString(Verbosity verbosity) const {
  TextWriter writer(verbosity == Verbosity::Typed);
  walk(*this, writer);
  return writer.take();
}

}  // namespace HX
