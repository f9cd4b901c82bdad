#pragma once

#include <hxerror/api.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace HX::journal {

struct AuthorRecord;

/// Who makes changes: a module, a program of another process. A handle that is counted; its number, which changes
/// carry, means the same text until all changes with it are forgotten.
///
/// @par Threads  As std::shared_ptr. The table of all authors is the process's.
class HX_API Author {
 public:
  /// Nobody in particular: the process itself, number 0, with an empty text.
  Author() = default;
  /// @param text  As people know it: "Arm", "process 4711, korvo set". The same text gives the same number.
  explicit Author(std::string_view text);

  std::uint32_t number() const noexcept;

  /// Makes this the author of what the calling thread writes, until the scope ends. The innermost scope counts.
  class HX_API Scope {
   public:
    explicit Scope(const Author& author) noexcept;
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope();

   private:
    std::shared_ptr<const AuthorRecord> record_;
    const AuthorRecord* outer_;
  };

  /// The number of the calling thread's author, which is known from now on to have written.
  static std::uint32_t writing() noexcept;
  /// @return Null for 0, and for authors who left so long ago that they are forgotten.
  static std::shared_ptr<const std::string> textOf(std::uint32_t number);
  /// The authors that are remembered, those who have left among them. For diagnosis.
  static std::size_t remembered();

 private:
  std::shared_ptr<const AuthorRecord> record_;
};

}  // namespace HX::journal
