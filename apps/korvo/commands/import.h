#pragma once

#include <hxproxies/hxmemoryproxy.h>
#include <libmw/future.h>
#include <libmw/genericobject.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

class LineSource;
class Output;

/// Stores the records of a source, and tells how many, on a terminal now and then.
///
/// Data goes out ahead of the answers to what went before, so that the way to the broker counts once for many lines. A
/// raise is waited for: the time that its subscribers take must not count as a wait of the lines behind it.
///
/// @par Threads  One.
class Import {
 public:
  /// @param source     Name of what is read, for errors.
  /// @param keepsGoing  Reports a bad line and goes on with the next.
  Import(const HX::HXMemoryProxy& memory, Output& output, std::string source, bool keepsGoing);
  Import(const Import&) = delete;
  Import& operator=(const Import&) = delete;
  /// Waits for what is under way: the memory changes no more once an error has been told.
  ~Import();

  /// @throws std::runtime_error naming the first line that was not stored and the last one that was tried; for one that
  ///         keeps going, saying how many were not.
  void run(LineSource& lines);

 private:
  struct Sent {
    std::size_t line;
    std::size_t bytes;
    std::vector<mw::Future<mw::AnyValue>> answers;
  };

  bool addNext(LineSource& lines);
  /// @return Whether it is a raise.
  bool send(std::string_view line);
  void awaitDownTo(std::size_t lines);
  void awaitFirst();
  void fail(std::size_t line, std::string_view reason);
  void showProgress();

  const mw::AnyObject memory_;
  Output& output_;
  const std::string source_;
  const bool keepsGoing_;
  std::deque<Sent> sent_;  // Without an answer yet, in the order of the lines.
  std::size_t bytes_ = 0;  // Of the lines in `sent_`.
  std::size_t line_ = 0;
  std::size_t lastSent_ = 0;
  std::size_t stored_ = 0;
  std::size_t failed_ = 0;
  std::chrono::steady_clock::time_point nextProgress_;
};

}  // namespace korvo
