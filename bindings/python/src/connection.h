#pragma once

#include "follower.h"
#include "hosting.h"
#include "object.h"
#include "viewer.h"

#include <libmw/local.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace korvo::python {

/// A broker that this process has joined.
class Connection {
 public:
  /// @param broker  Its name; empty for the only one that is running.
  /// @throws mw::NoBrokerError
  explicit Connection(const std::string& broker);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  std::string broker() const;
  bool isConnected() const;

  /// @throws mw::NoSuchServiceError
  std::unique_ptr<NativeObject, Release> service(const std::string& name, std::optional<double> limit) const;
  std::vector<std::string> services(std::optional<double> limit) const;

  /// Has a callback called with the kind of notice, "lost", "restored", "registered" or "unregistered", and a text: the
  /// reason of the loss, the name of the service.
  void notify(std::int64_t callback) const;

  std::unique_ptr<HostedModule, Release> host(const py::dict& description) const;
  std::unique_ptr<Follower, Release> follow(const py::dict& wanted) const;

  /// @param capacity     Bytes of the largest value.
  /// @param aliveWithin  How soon a broker that does not run any more is noticed, in seconds.
  std::unique_ptr<NativeView, Release> view(const std::string& key, std::size_t capacity, double aliveWithin) const;
  /// @param depth  How many values are kept for who reads late.
  std::unique_ptr<NativeStream, Release> stream(const std::string& key, std::size_t depth, std::size_t capacity,
                                                double aliveWithin) const;

  /// Hosted modules leave, calls fail, followers end. May be repeated.
  void close() const;
  /// All there are, without the GIL.
  static void closeAll();

 private:
  class Joined;
  std::shared_ptr<Joined> joined_;
};

}  // namespace korvo::python
