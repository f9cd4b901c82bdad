#include "keys.h"

#include "arguments.h"
#include "base/format.h"
#include "base/output.h"
#include "base/suggestion.h"
#include "base/target.h"
#include "console/linesource.h"

#include <hxerror/hxerror.h>

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXMemoryProxy;

std::vector<std::string> namedKeys(Arguments& arguments) {
  if (arguments.atEnd()) throw InputError("KEY is missing");
  auto keys = arguments.words("KEY");
  arguments.end();
  return keys;
}

std::vector<std::string> keysWithPrefix(Target& target, const std::vector<std::string>& prefixes) {
  std::set<std::string> keys;
  for (const std::string& prefix : prefixes) {
    auto found = target.keys(prefix);
    std::erase_if(found, [&](const std::string& key) { return !key.starts_with(prefix); });
    if (found.empty()) throw std::runtime_error(fmt::format("no key begins with {}", excerpt(prefix)));
    keys.insert(found.begin(), found.end());
  }
  return {keys.begin(), keys.end()};
}

void confirm(Context& context, std::string_view what, const std::vector<std::string>& keys) {
  constexpr std::size_t kShown = 5;
  const auto shown = std::span(keys).first(std::min(keys.size(), kShown));
  const std::string question = fmt::format("{} {} {} ({}{})", what, keys.size(), keys.size() == 1 ? "key" : "keys",
                                           fmt::join(shown, ", "), keys.size() > kShown ? ", ..." : "");
  if (context.isConsole() || isatty(STDIN_FILENO) == 0) {
    throw InputError(fmt::format("it would {}: --yes does so without asking", question));
  }
  context.output.note(question + "? [y/N]");
  const auto answer = context.input->next();
  if (answer != "y" && answer != "yes") throw std::runtime_error("nothing was changed");
}

/// The name that may have been meant where there is no such key.
std::string suggestKey(Target& target, const std::string& key) {
  try {
    return didYouMean(key, target.keys(""));
  } catch (const std::exception&) {  // The first error tells more.
    return {};
  }
}

}  // namespace

bool isOfTheMemoryItself(std::string_view key) {
  constexpr std::array<std::string_view, 4> kNames{"HXMemory/KeyAdded", "HXMemory/KeyRemoved",
                                                   "HXMemory/KeyTypeChanged", "KorvoReady"};
  return std::ranges::count(kNames, key) > 0;
}

std::vector<std::string> keysOf(Context& context, Arguments& arguments) {
  auto names = namedKeys(arguments);
  if (!arguments.has(kPrefix.name)) return names;
  return keysWithPrefix(context.target, names);
}

std::vector<std::string> keysToChange(Context& context, Arguments& arguments, std::string_view what) {
  auto keys = keysOf(context, arguments);
  if (!arguments.has(kPrefix.name)) return keys;
  std::erase_if(keys, isOfTheMemoryItself);
  if (!keys.empty() && !arguments.has(kYes.name)) confirm(context, what, keys);
  return keys;
}

void forEachKey(Context& context, const std::vector<std::string>& keys,
                const std::function<void(HXMemoryProxy& memory, const std::string& key)>& use) {
  auto memory = context.target.memory();
  std::optional<std::string> last;
  for (const std::string& key : keys) {
    try {
      use(memory, key);
    } catch (const HX::HXError& error) {
      if (last) context.output.error(*last);
      last = error.what() + suggestKey(context.target, key);
    }
  }
  if (last) throw std::runtime_error(*last);
}

}  // namespace korvo
