#pragma once

#include <hxvalue/hxvalue.h>

#include <string>

namespace HX::recording {

/// What a value is made of: its type, for a list that of its elements, for a map those of its fields. Values of one
/// shape share a schema, by which viewers plot them, and come back from their JSON as they were.
///
/// As a value: "Int" and so on for the types; "List" for an empty list, [SHAPE] for one whose elements are alike,
/// [SHAPE, SHAPE...] for a short one of others; {"field": SHAPE} for a map; "*" for what is too long or too deep to be
/// told, whose type the JSON alone does not tell.
class Shape {
 public:
  /// Of an invalid value.
  Shape();
  explicit Shape(const HXValue& value);
  /// @param text  As `text` gave it; of anyone.
  /// @throws RecordingError when it is no shape.
  static Shape parse(const std::string& text);

  /// As JSON, the same for the same shape.
  const std::string& text() const { return text_; }
  /// Whether a value is known to have this shape, found out without memory.
  bool fits(const HXValue& value) const;

  /// "korvo.Number", "korvo.Map.3fa2c01d": named after what it says.
  std::string schemaName() const;
  /// The JSON Schema of a message {"value": …} with such a value. What viewers would refuse is left out of it.
  std::string schemaText() const;

  /// A message: {"value": JSON}, with bytes in base64.
  struct MessageText {
    std::string text;
    bool isExact = true;  ///< `valueOf` gives the value again, with all its types.
  };
  /// @param value  One that fits.
  MessageText messageOf(const HXValue& value) const;
  /// The value of a message's JSON.
  /// @throws RecordingError when it does not have this shape.
  HXValue valueOf(const HXValue& json) const;

 private:
  void describe();

  HXValue description_;
  std::string text_;
  bool hasBinary_ = false;
  bool isWhole_ = true;  // Nothing of it is "*".
};

}  // namespace HX::recording
