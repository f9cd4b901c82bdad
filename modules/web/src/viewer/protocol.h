#pragma once

#include "http/request.h"

#include <hxjournal/change.h>
#include <hxvalue/hxvalue.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace HX::web {

/// How viewers are spoken to: what docs/wire/viewers.md states, as bytes.
namespace viewer {

/// The same messages under two names: older viewers know the first alone, newer ones the second.
inline constexpr std::array<std::string_view, 2> kSubprotocols{"foxglove.sdk.v1", "foxglove.websocket.v1"};

enum class Level : std::uint8_t { Info = 0, Warning = 1, Error = 2 };

/// What a viewer sends in binary.
struct Request {
  enum class Kind : std::uint8_t { Publish = 1, Call = 2 };
  Kind kind = Kind::Publish;
  std::uint32_t channel = 0;  ///< Of the viewer's own, to publish to.
  std::uint32_t service = 0;
  std::uint32_t call = 0;
  std::string_view encoding;  ///< Within the message that was read, as is the next.
  std::string_view payload;
};
/// @throws std::runtime_error for what is cut off or of no known kind.
Request readRequest(std::string_view bytes);

Message timeFrame(std::uint64_t nanoseconds);
Message dataFrame(std::uint32_t subscription, journal::TimePoint time, std::string_view payload);
Message answerFrame(std::uint32_t service, std::uint32_t call, std::string_view payload);
/// @param entries  Of the object, beside its "op".
Message textFrame(std::string_view op, HXValue::Map entries);
/// @param id  Names it, so that `removeStatus` can take it back; empty for one that just stands.
Message status(Level level, std::string text, std::string id = {});

std::uint64_t nanosecondsOf(journal::TimePoint time);

}  // namespace viewer
}  // namespace HX::web
