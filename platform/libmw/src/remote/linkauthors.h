#pragma once

#include <hxauthor/author.h>
#include <hxerror/mutex.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace mw::remote {

/// In whose name calls cross a link.
///
/// What acts in the sender's process, its modules as a rule, is told once by a number, which each call then carries in
/// one byte. A number keeps its meaning as long as the link lives, so no call can be taken for somebody else's; who
/// comes when all numbers are given is named in each call by text, and so is the process for which another one only
/// hands a call on: however many come and go, nothing grows.
///
/// @par Threads  Any, `enter` and `of` excepted: they belong to the thread that reads the channel.
class LinkAuthors {
 public:
  /// What a call says of who makes it, behind its chain: nothing, a number, or 0 and a text.
  using Header = std::span<const std::byte>;
  /// Numbers are bytes, and 0 is none.
  static constexpr std::size_t kNumbers = 255;
  /// Longer texts are cut.
  static constexpr std::size_t kLongest = 100;
  /// Tells the peer what a number means.
  using Tell = std::function<void(std::uint8_t number, std::string_view text)>;

  /// @param peer  As the channel calls it; so are calls of a peer that says nothing of itself.
  /// @param tell  Sends at once, before whatever is sent afterwards.
  LinkAuthors(std::string_view peer, Tell tell);

  // --- Of what comes from the peer

  /// The peer says what it is.
  /// @param program      "korvo set"; may be empty.
  /// @param understands  Whether it reads what calls say of who makes them.
  void greet(std::string_view program, bool understands);
  /// The process at the other end.
  HX::Author peer() const;
  /// The peer tells what a number means.
  void enter(std::uint32_t number, std::string_view text);
  /// @return The process itself for a number that was not told.
  HX::Author of(Header header) const;

  // --- Of what goes to the peer

  /// Writes what a call of the calling thread says of who makes it, now.
  class Stated {
   public:
    explicit Stated(LinkAuthors& authors);
    Header header() const { return {bytes_.data(), size_}; }

   private:
    void name(std::string_view text);
    std::array<std::byte, 1 + kLongest + 32> bytes_{};  // Cutting leaves a note of how much is missing.
    std::size_t size_ = 0;
  };

 private:
  /// @return 0 when all are given.
  std::uint8_t numberOf(std::uint32_t author);

  const std::string channelsName_;
  const Tell tell_;
  std::atomic<bool> understood_{false};
  std::array<HX::Author, kNumbers> entered_;  // By the peer. Of the reading thread.

  // Authors by their numbers for the peer. Written under `giving_`, each once it has been told.
  std::array<std::atomic<std::uint32_t>, kNumbers> given_{};
  HX::Mutex giving_;  // Guards who is given a number next. Outer to the locks of the channel, which sends under it.

  mutable HX::Mutex mutex_;
  HX::Author peer_ HX_GUARDED_BY(mutex_);
};

/// What peers see of this process behind its number, unless it has said otherwise: the name of its program.
std::string programName();

}  // namespace mw::remote
