#pragma once

#include "poller.h"

#include <hxerror/mutex.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace mw::local {

/// The socket where processes that know a ticket fetch a file from this one's `FileDesk`, or leave one there. Apart
/// from the socket of calls: room for descriptors costs each message a tenth of its time, and a stream would have to
/// keep them with their bytes.
///
/// A conversation is one packet each way. Who connects and says nothing costs a descriptor until others come.
///
/// @par Threads  Any.
class FileServer : public Pollable, public std::enable_shared_from_this<FileServer> {
 public:
  /// @param path  Of the socket. Whatever lies there belonged to a broker that has gone.
  explicit FileServer(std::string path);

  /// Lets processes come. @throws std::system_error
  void listen();
  /// Lets none come any more. Called before it goes.
  void stop();

  void onReady(std::uint32_t events, std::vector<remote::Work>& works) override;

 private:
  class Guest;
  void welcome(File socket);
  void forget(const Guest& guest);

  const std::string path_;
  File socket_;
  std::atomic<std::uint64_t> number_{0};  // At the poller; 0 until it listens.

  HX::Mutex mutex_;
  std::deque<std::shared_ptr<Guest>> guests_ HX_GUARDED_BY(mutex_);  // Who has not said what he wants.
};

}  // namespace mw::local
