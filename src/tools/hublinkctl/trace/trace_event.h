// One line of a hub's internal log, read: a message between the hub and a plugin, or a line of the
// hub's own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trace {

/// A field of a message. A list has items instead of a value.
struct Field {
  std::string name;
  bool isText = false;  ///< the value, or each item, is a text and no number
  bool isList = false;
  std::string value;  ///< a number in decimal, as a signed one of 32 bits where it fits
  std::vector<std::string> items;
};

struct Event {
  enum class Kind {
    received,      ///< from the plugin
    sent,          ///< to the plugin
    reply,         ///< to the plugin, the answer to a call that waits
    sendFailed,    ///< not sent: the connection had failed
    launch,        ///< the hub starts a program
    launchFailed,  ///< which hasn't become a plugin
    accepted,      ///< a client has connected
    created,       ///< the hub has connected to a plugin that listens
    down,          ///< a connection was reaped
    shutdown,      ///< the last line of a hub
    note,          ///< any other line of the hub's own
    unreadable,
  };
  Kind kind = Kind::unreadable;
  std::optional<std::int64_t> time;  ///< milliseconds since 1970, UTC
  std::optional<int> pluginID;       ///< whose message it is, or who was created or reaped
  std::string pluginName;            ///< of a plugin that the hub has launched
  std::string message;
  std::vector<Field> fields;
  /// A line of the hub's own or one that can't be read, as it stands; of a message, what of its
  /// fields can't be read.
  std::string text;

  bool isMessage() const { return kind <= Kind::sendFailed; }
  const Field* find(std::string_view name) const {
    for (const Field& field : fields)
      if (field.name == name) return &field;
    return nullptr;
  }
  /// -1 if the message has no such number, which also stands for "none" in messages.
  int number(std::string_view name) const;
  /// Empty if the message has no such text.
  std::string value(std::string_view name) const;
};

/// "4", or "echo_provider(4)" for a plugin with a name.
std::string pluginLabel(int id, const std::string& name);

}  // namespace trace
