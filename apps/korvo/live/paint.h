#pragma once

#include <string>
#include <string_view>

namespace korvo {

/// What colours say.
enum class Style {
  Plain,
  Title,       ///< Inverted, as the row that is chosen.
  Head,        ///< Bold.
  Fresh,       ///< Green: has just changed.
  Stale,       ///< Faint: has not changed for a minute.
  Event,       ///< Cyan.
  MicroEvent,  ///< Magenta.
  Silent,      ///< Yellow: waits for somebody to ask.
  Trouble,     ///< Red: overdue, or an error.
};

/// Gives text its style where a terminal shows it.
class Painter {
 public:
  /// @param isOn  False leaves all text plain.
  explicit Painter(bool isOn) : isOn_(isOn) {}
  /// For standard output: on where it is a terminal that knows colours, and NO_COLOR does not forbid them.
  static Painter ofOutput();

  bool isOn() const { return isOn_; }
  std::string operator()(Style style, std::string_view text) const;

 private:
  bool isOn_;
};

}  // namespace korvo
