#pragma once

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/session.h>
#include <libmw/trackable.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>

namespace mw {

/// Notices on their way to the handlers. Shared with the task that delivers them, which may outlast the session.
class Session::Notices : public std::enable_shared_from_this<Notices> {
 public:
  enum class Kind : std::uint8_t { Registered, Unregistered, Lost, Restored };
  struct Notice {
    Notice(Kind what, ServiceId service, std::string words, SignalLink handler = kInvalidSignalLink,
           std::uint64_t first = 0)
        : kind(what), id(service), text(std::move(words)), latecomer(handler), since(first) {}

    Kind kind;
    ServiceId id;
    std::string text;  ///< The name of the service, or the reason of the loss.
    /// Other than 0: not news, but those since `since` for the handler of this link, as far as it has missed them.
    SignalLink latecomer;
    std::uint64_t since;
  };

  Notices(Session& session, EventLoop& loop) : session_(session), loop_(loop) {}

  void add(Notice notice);

  /// Delivers nothing until as many `release` have come.
  void hold();
  void release();

  /// Remembers from now on what is delivered, until as many `forget` have come. @return The number of the next one.
  std::uint64_t remember();
  void forget();

  /// No handler is called any more once this has returned, except by the calling thread itself.
  void end() { lifetime_.destroy(); }

 private:
  struct Delivered {
    Notice notice;
    std::uint64_t number = 0;
    SignalLink before = kInvalidSignalLink;  ///< Handlers of greater links were not told.
  };

  void startLocked() HX_REQUIRES(mutex_);
  void deliver();
  /// @return Of services, a link that all those lie before who were told.
  SignalLink tell(const Notice& notice) const;
  void tellPast(const Notice& wanted);
  NoticeSignal& signalOf(const Notice& notice) const;

  Session& session_;
  EventLoop& loop_;
  Lifetime lifetime_;
  HX::Mutex mutex_;
  std::deque<Notice> waiting_ HX_GUARDED_BY(mutex_);
  int holds_ HX_GUARDED_BY(mutex_) = 0;
  bool delivering_ HX_GUARDED_BY(mutex_) = false;
  int remembering_ HX_GUARDED_BY(mutex_) = 0;
  std::uint64_t delivered_ HX_GUARDED_BY(mutex_) = 0;
  std::deque<Delivered> past_ HX_GUARDED_BY(mutex_);  // as long as somebody may have to catch up
};

}  // namespace mw
