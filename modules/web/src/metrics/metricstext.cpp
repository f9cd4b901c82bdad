#include "metricstext.h"

#include <charconv>
#include <cmath>

namespace HX::web {

void MetricsText::family(std::string_view name, std::string_view type, std::string_view help) {
  name_ = name;
  text_.append("# HELP ").append(name).append(" ").append(help);
  text_.append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
}

void MetricsText::number(double value) {
  if (std::isnan(value)) {
    text_ += "NaN";
  } else if (std::isinf(value)) {
    text_ += value > 0 ? "+Inf" : "-Inf";
  } else {
    // The shortest that reads back equal, with a dot in every country.
    char digits[32];
    text_.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
  }
}

void MetricsText::label(const Label& label, char before) {
  text_ += before;
  text_.append(label.first).append("=\"");
  for (const char character : label.second) {
    if (character == '\\' || character == '"') text_ += '\\';
    if (character == '\n') {
      text_ += "\\n";
    } else {
      text_ += character;
    }
  }
  text_ += '"';
}

void MetricsText::line(std::string_view suffix, Labels labels, const Label* further, double value) {
  text_.append(name_).append(suffix);
  char before = '{';
  for (const Label& each : labels) {
    label(each, before);
    before = ',';
  }
  if (further) {
    label(*further, before);
    before = ',';
  }
  text_ += before == ',' ? "} " : " ";
  number(value);
  text_ += '\n';
}

void MetricsText::sample(double value, Labels labels) { line("", labels, nullptr, value); }

void MetricsText::histogram(std::span<const double> bounds, std::span<const std::uint64_t> counts, double sum,
                            Labels labels) {
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    total += counts[i];
    char digits[32] = "+Inf";
    char* end = digits + 4;
    if (i < bounds.size()) end = std::to_chars(digits, digits + sizeof digits, bounds[i]).ptr;
    const Label bound{"le", std::string_view(digits, static_cast<std::size_t>(end - digits))};
    line("_bucket", labels, &bound, static_cast<double>(total));
  }
  line("_sum", labels, nullptr, sum);
  line("_count", labels, nullptr, static_cast<double>(total));
}

}  // namespace HX::web
