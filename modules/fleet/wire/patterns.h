#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace HX::fleet {

/// A pattern of keys, in parts between slashes: `*` stands for any bytes within its part, `**` as the last part for
/// the parts that follow, one at least. "robot*/Battery/**"; "**" is every key.
class Pattern {
 public:
  /// @param text  As a user wrote it.
  /// @throws std::runtime_error when `**` stands elsewhere than as the last part.
  explicit Pattern(std::string_view text);

  bool matches(std::string_view key) const;
  /// What a server is asked for so that all that matches arrives; more may arrive. "*.Battery.>"
  std::string filter() const;

 private:
  std::vector<std::string> parts_;  ///< Without `**`.
  bool hasRest_ = false;
};

/// Some patterns.
class Patterns {
 public:
  Patterns() = default;
  /// @throws As `Pattern`.
  explicit Patterns(const std::vector<std::string>& texts);
  void add(Pattern pattern) { patterns_.push_back(std::move(pattern)); }
  /// Whether one of them does.
  bool match(std::string_view key) const;

 private:
  std::vector<Pattern> patterns_;
};

}  // namespace HX::fleet
