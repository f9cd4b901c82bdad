#include "tomlfile.h"

#include <libmw/os.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <toml++/toml.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::GivenSettings;
using HX::HXValue;
using HX::SettingPlace;

std::string contentOf(const std::string& path) {
  const auto fail = [&] { throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno))); };
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(mw::os::fopen(path, "rb"), &std::fclose);
  if (!file) fail();
  std::string content;
  char part[4096];
  for (std::size_t got = 0; (got = std::fread(part, 1, sizeof part, file.get())) > 0;) content.append(part, got);
  if (std::ferror(file.get())) fail();
  return content;
}

/// Makes values of nodes, and notes what has no value.
class TomlReader {
 public:
  explicit TomlReader(std::string path) : path_(std::move(path)) {}

  GivenSettings read(const toml::table& table) {
    GivenSettings given;
    given.place = placeOf(table.source());
    for (const auto& [key, node] : table) {
      HX::GivenSetting setting{valueOf(node), placeOf(key.source()), placeOf(node.source()), nullptr};
      if (const auto* inner = node.as_table()) setting.table = std::make_shared<const GivenSettings>(read(*inner));
      given.entries.emplace(std::string(key.str()), std::move(setting));
    }
    return given;
  }

  /// Of a table with one entry of a type that has values; otherwise none.
  std::optional<HXValue> valueIn(const toml::table& table) {
    if (table.size() != 1) return std::nullopt;
    HXValue value = valueOf(table.begin()->second);
    return problems_.empty() ? std::optional(std::move(value)) : std::nullopt;
  }

  SettingPlace placeOf(const toml::source_region& region) const {
    return {path_, region.begin.line, region.begin.column};
  }
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  HXValue valueOf(const toml::node& node) {
    switch (node.type()) {
      case toml::node_type::table:
        return mapOf(*node.as_table());
      case toml::node_type::array:
        return listOf(*node.as_array());
      case toml::node_type::string:
        return node.as_string()->get();
      case toml::node_type::integer:
        return integer(node.as_integer()->get());
      case toml::node_type::floating_point:
        return node.as_floating_point()->get();
      case toml::node_type::boolean:
        return node.as_boolean()->get();
      default:
        problems_.push_back(placeOf(node.source()).prefix() + "dates and times are written in quotes");
        return {};
    }
  }

  HXValue mapOf(const toml::table& table) {
    HXValue map = HXValue::map();
    for (const auto& [key, node] : table) map.mapSet(std::string(key.str()), valueOf(node));
    return map;
  }

  HXValue listOf(const toml::array& array) {
    HXValue list = HXValue::list();
    for (const toml::node& node : array) list.arrayPush(valueOf(node));
    return list;
  }

  static HXValue integer(std::int64_t number) {
    const auto small = static_cast<std::int32_t>(number);
    return small == number ? HXValue(small) : HXValue(number);
  }

  const std::string path_;
  std::vector<std::string> problems_;
};

}  // namespace

HXValue readTomlValue(const std::string& text) {
  try {
    const auto read = TomlReader("").valueIn(toml::parse("value = " + text));
    if (read) return *read;
  } catch (const toml::parse_error&) {
    // A text without quotes.
  }
  return text;
}

GivenSettings readToml(const std::string& path) {
  const std::string content = contentOf(path);
  TomlReader reader(path);
  try {
    GivenSettings given = reader.read(toml::parse(content, path));
    if (!reader.problems().empty()) throw HX::SettingsError(reader.problems());
    return given;
  } catch (const toml::parse_error& error) {
    throw HX::SettingsError({reader.placeOf(error.source()).prefix() + std::string(error.description())});
  }
}

}  // namespace korvo
