#pragma once

#include <hxerror/api.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace HX {

struct AuthorRecord;

/// In whose name something is done: a module, a program of another process. A handle that is counted; its number, which
/// changes carry, means the same text until all changes with it are forgotten.
///
/// Known to what calls (proxies, modules, connections of other processes), which says who acts, and to the journal,
/// which asks. Neither knows the other.
///
/// @par Threads  As std::shared_ptr. The table of all authors is the process's.
class HX_API Author {
 public:
  /// Nobody in particular: the process itself, number 0, with an empty text.
  Author() = default;
  /// @param text  As people know it: "Arm", "process 4711, korvo set". The same text gives the same number.
  explicit Author(std::string_view text);

  std::uint32_t number() const noexcept;
  /// Empty for nobody in particular.
  std::string_view text() const noexcept;
  explicit operator bool() const noexcept { return record_ != nullptr; }

  /// Makes this the author of what the calling thread does, until the scope ends. The innermost scope counts.
  class HX_API Scope {
   public:
    /// @param author  Must outlive the scope: nothing is counted here, for it stands around each call. Nobody in
    ///                particular leaves the author as it is.
    explicit Scope(const Author& author) noexcept;
    explicit Scope(Author&& author) = delete;
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope();

   private:
    const AuthorRecord* const outer_;
  };

  /// A handle on the calling thread's author, to go on in its name on another thread.
  static Author present();
  /// The number of the calling thread's author; 0 for nobody in particular.
  static std::uint32_t presentNumber() noexcept;
  /// The same, and notes that the author has written: the text is remembered for a while when all handles have gone.
  static std::uint32_t writing() noexcept;
  /// @return Null for 0, and for authors who left so long ago that they are forgotten.
  static std::shared_ptr<const std::string> textOf(std::uint32_t number);
  /// The authors that are remembered, those who have left among them. For diagnosis.
  static std::size_t remembered();

 private:
  explicit Author(std::shared_ptr<const AuthorRecord> record) noexcept : record_(std::move(record)) {}

  std::shared_ptr<const AuthorRecord> record_;
};

}  // namespace HX
