#pragma once

#include <libmw/objecttypebuilder.h>

#include <memory>
#include <string>

/// Two registered types and one that is not, for whatever needs objects.
struct Door {
  explicit Door(int first = 0) : number(first) {}
  int open() { return ++number; }
  std::string swap(const std::string& text) const { return text + std::to_string(number); }
  mw::Signal<int> opened;
  int number;
};

struct Window {
  int panes() const { return 4; }
};

struct Unregistered {};

inline void registerHouse() {
  mw::ObjectTypeBuilder<Door> door("Door");
  door.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  door.advertiseMethod("open", &Door::open)
      .advertiseMethod("swap", &Door::swap)
      .advertiseSignal("opened", &Door::opened);
  door.registerType();
  mw::ObjectTypeBuilder<Window> window("Window");
  window.advertiseMethod("panes", &Window::panes).registerType();
}
