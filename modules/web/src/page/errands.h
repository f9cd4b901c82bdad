#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/genericobject.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace HX {
class HXBroker;
class HXMemoryProxy;
}  // namespace HX

namespace HX::web {

/// What a page has done on its behalf. Each function waits for the memory or another module, and throws what that
/// throws.
///
/// @par Threads  Any, but not the server's.
class Errands {
 public:
  using Memory = std::function<HXMemoryProxy()>;

  Errands(std::weak_ptr<HXBroker> broker, Memory memory) : broker_(std::move(broker)), memory_(std::move(memory)) {}

  /// Writes: set, raise, raiseMicro, describe, remove, declare. Of a key that is a copy of another robot's, that robot
  /// is asked.
  /// @param wish  {"op", "key", "value", "type"}.
  void write(const HXValue& wish) const;
  /// Values of keys: of each [type, value], or null where there is no such key. A 64-bit int comes as text, since the
  /// numbers of browsers have 53 bits.
  HXValue values(const HXValue& keys) const;
  /// What is known of a key beside its value.
  HXValue about(const std::string& key) const;
  /// Names of all services that can be reached.
  HXValue services() const;
  /// Methods and signals of one, with their documentation.
  HXValue describe(const std::string& service) const;
  /// @param wish  {"service", "method" (its number), "arguments"}.
  HXValue call(const HXValue& wish) const;
  /// @param wish  {"service", "signal", "arguments"}.
  void emit(const HXValue& wish) const;
  /// Who produces, raises and subscribes what.
  HXValue wiring() const;
  /// Raises an event or a micro-event, whatever it is already; a name that is nothing yet becomes an event.
  /// @throws std::runtime_error for data, which would become an event thereby.
  void raise(const std::string& key, const HXValue& value) const;
  /// How this robot stands with its fleet, and which robots that has.
  /// @return {"status", "robots"}; "failure" where those are not to be had.
  HXValue fleet() const;
  /// What a method of another module gives; invalid where there is no such module, or it fails.
  /// @param argument  Its only one; null for none.
  HXValue ask(const std::string& service, const std::string& method, const HXValue* argument = nullptr) const;
  /// @throws std::runtime_error when there is no such service.
  mw::AnyObject object(const std::string& service) const;
  /// The names of all data.
  std::vector<std::string> dataKeys() const;
  /// Those that survive a restart; none where nothing is kept.
  std::vector<std::string> kept() const;
  /// @return None when there is no such key.
  std::optional<HXValue> valueOf(const std::string& key) const;

 private:
  std::shared_ptr<HXBroker> broker() const;
  std::string robotOf(const std::string& key) const;
  void writeFar(const std::string& robot, const std::string& op, const std::string& key, const HXValue& value) const;
  /// Empty for a key that there is not.
  std::string kindOf(const std::string& key) const;

  const std::weak_ptr<HXBroker> broker_;
  const Memory memory_;
};

/// A value that came as JSON, as one of the named type.
/// @param type  As `HXValue::TypeToString`; empty leaves it as it is.
/// @throws std::runtime_error saying what does not fit.
HXValue typed(const HXValue& value, const std::string& type);

}  // namespace HX::web
