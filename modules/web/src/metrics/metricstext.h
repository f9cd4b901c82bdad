#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace HX::web {

/// Figures in the text that Prometheus reads.
///
/// Each family once: `family`, and its samples after it. Numbers are written the same in every locale.
class MetricsText {
 public:
  using Label = std::pair<std::string_view, std::string_view>;
  using Labels = std::initializer_list<Label>;

  /// @param name  For a counter with "_total" at its end.
  /// @param type  "counter", "gauge" or "histogram".
  /// @param help  One sentence.
  void family(std::string_view name, std::string_view type, std::string_view help);
  void sample(double value, Labels labels = {});
  /// A whole distribution.
  /// @param bounds  Upper ones, ascending.
  /// @param counts  So many up to each bound and above the one before; one more for what is beyond the last.
  /// @param sum     Of all that was counted.
  void histogram(std::span<const double> bounds, std::span<const std::uint64_t> counts, double sum, Labels labels = {});

  std::string take() { return std::move(text_); }

 private:
  void line(std::string_view suffix, Labels labels, const Label* further, double value);
  void number(double value);
  void label(const Label& label, char before);

  std::string text_;
  std::string name_;
};

}  // namespace HX::web
