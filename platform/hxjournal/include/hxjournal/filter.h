#pragma once

#include <hxerror/api.h>
#include <hxjournal/change.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace HX::journal {

/// What a follower wants to hear of. As made it wants everything; each kind of condition narrows that.
///
/// Keys and kinds say which keys are meant, in snapshots too. Whats and authors choose among their changes; states are
/// told all the same, so that a filter of these tells no history of its own.
///
/// @par Threads  As the standard containers.
class HX_API Filter {
 public:
  Filter() = default;
  /// @param patterns  As for `add`.
  explicit Filter(const std::vector<std::string>& patterns);

  /// Adds what a user wrote: with `*` or `?` in it a glob, with `/` at its end a prefix, otherwise a key.
  Filter& add(std::string pattern);
  Filter& addKey(std::string key);
  Filter& addPrefix(std::string prefix);
  /// `*` stands for any bytes, `/` among them, also for none; `?` for one byte.
  Filter& addGlob(std::string glob);
  /// Leaves out what was added otherwise.
  /// @param pattern  As for `add`. A key that is named by `addKey` is not left out.
  Filter& exclude(std::string pattern);

  Filter& addWhat(What what);
  /// @param kind  The memory's number of it. A change that takes a key out of the wanted kinds is told as well.
  Filter& addKind(std::uint8_t kind);
  /// @param author  Its whole text.
  Filter& addAuthor(std::string author);

  bool wantsKey(std::string_view key) const noexcept;
  bool wantsKind(std::uint8_t kind) const noexcept;
  /// As `Change` says it.
  bool wantsChange(What what, std::uint8_t kind, bool changedKind) const noexcept;
  bool wantsAuthor(std::string_view author) const noexcept;
  bool asksForAuthors() const noexcept { return !parts_.authors.empty(); }

  /// Whether only keys are wanted that are named whole: `keys`.
  bool isExact() const noexcept { return !parts_.keys.empty() && parts_.prefixes.empty() && parts_.globs.empty(); }
  /// Ascending, each once.
  const std::vector<std::string>& keys() const noexcept { return parts_.keys; }

  /// What it was made of, for those who pass it on.
  struct Parts {
    std::vector<std::string> keys, prefixes, globs, excludedPrefixes, excludedGlobs, authors;
    std::uint32_t whats = 0;  ///< Bits by number; none: all.
    std::uint32_t kinds = 0;  ///< The same.
  };
  const Parts& parts() const noexcept { return parts_; }

  /// Whether a glob stands for a text, in time proportional to their product at worst.
  static bool globMatches(std::string_view glob, std::string_view text) noexcept;

 private:
  static bool has(std::uint32_t set, std::uint8_t number) noexcept;
  bool names(std::string_view key) const noexcept;

  Parts parts_;
};

}  // namespace HX::journal
