#pragma once

#include "future.h"
#include "interpreter.h"

#include <libmw/genericobject.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvo::python {

/// A handle on an object: a service, or what a method has given.
class NativeObject {
 public:
  /// @param object  Not empty.
  /// @param name    Of the service; empty for others.
  /// @param whom    Who answers calls, for errors: "broker korvo".
  NativeObject(mw::AnyObject object, std::string name, std::string whom);

  const mw::AnyObject& object() const { return object_; }
  /// Name of the service, or of the kind of object.
  std::string name() const;
  std::uint32_t number() const { return object_->number(); }
  bool isSame(const NativeObject& other) const { return object_ == other.object_; }

  /// What it offers, as a dict: "name", "description", "methods", "signals", "properties".
  py::dict describe() const;

  /// Calls, and waits for the result.
  /// @param method     Its name.
  /// @param arguments  A tuple.
  /// @param limit      Seconds; none for no limit.
  py::object call(const std::string& method, const py::tuple& arguments, std::optional<double> limit) const;
  std::unique_ptr<PendingResult, Release> start(const std::string& method, const py::tuple& arguments) const;
  /// Triggers a signal.
  void emit(const std::string& signal, const py::tuple& arguments) const;

  /// @param callback  Number of what is called with the signal's arguments, on a thread of the platform, in the order
  /// of
  ///                  the emissions.
  /// @return The link.
  std::uint64_t connect(const std::string& signal, std::int64_t callback) const;
  void disconnect(std::uint64_t link) const;

  py::object property(const std::string& name, std::optional<double> limit) const;
  void setProperty(const std::string& name, py::handle value, std::optional<double> limit) const;

 private:
  std::string member(const std::string& name) const;
  unsigned propertyId(const std::string& name) const;

  const mw::AnyObject object_;
  const std::string name_;
  const std::string whom_;
};

/// What users see of an object.
py::object handleOn(mw::AnyObject object);
/// The object that a handle of users stands for; empty where it is none.
mw::AnyObject objectOf(py::handle handle);

}  // namespace korvo::python
