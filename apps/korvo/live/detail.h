#pragma once

#include "base/format.h"
#include "base/keyquestions.h"
#include "model.h"
#include "paint.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace korvo {

/// All there is to know of one key.
struct LiveDetail {
  std::string key;
  LiveFacts facts;
  std::vector<std::string> subscribers;
  std::string description;
  std::string extractor;         ///< Empty for none, and as long as it is not known.
  std::vector<Stamped> history;  ///< The oldest raise first.
};
inline constexpr std::array kDetailQuestions{askKind, askTimestamp, askSubscribers, askDescription, askHistory};
LiveDetail toDetail(const std::string& key, KeyAnswers& answers);

/// A page about one key: what `korvo info` tells, and its history as bars where that is of numbers.
/// @param rate     As the table has it.
/// @param width    Of a line, in columns.
/// @param rows     At most so many lines.
std::vector<std::string> drawDetail(const LiveDetail& detail, std::optional<double> rate, std::size_t width,
                                    std::size_t rows, const Painter& paint, mw::SystemTimePoint now);

}  // namespace korvo
