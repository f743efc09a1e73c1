#include "tools/hublinkctl/interface/introspection.h"

#include <set>

#include "indgen/printable.h"

namespace hublinkctl {
namespace {

using stpc::Field;

std::string typeOf(const Field& field) {
  return std::string("%") + stpc::spelling(field.scalar).name + "%";
}

// A block of just an array is the array, and no count is told: so they are given to `call`.
Facts describeFields(const std::vector<Field>& fields) {
  Facts described = Facts::array();
  for (const Field& field : fields) {
    if (field.isCount()) continue;
    const Field& given = field.isArrayBlock() ? field.fields[1] : field;
    Facts one = {{"name", field.name}};
    if (given.kind == Field::Kind::block)
      one["fields"] = describeFields(given.fields);
    else
      one[given.isArray() ? "elements" : "type"] = typeOf(given);
    described.push_back(std::move(one));
  }
  return described;
}

Facts describeMessage(const stpc::Message& message, const std::string& fault) {
  Facts described = {
      {"name", message.name}, {"two_way", message.twoWay}, {"format", message.format}};
  if (!fault.empty()) {
    described["fault"] = fault;
    return described;
  }
  described["fields"] = describeFields(message.fields);
  if (message.twoWay) described["answer"] = describeFields(message.reply);
  return described;
}

void collectNames(const std::vector<Field>& fields, std::set<std::string>& names) {
  for (const Field& field : fields) {
    names.insert(field.name);
    collectNames(field.fields, names);
  }
}

// Those of the peer's field names that are in no message that it takes.
Facts otherFields(const PeerSpec& peer) {
  std::set<std::string> known;
  for (const PeerMessage& each : peer.messages()) {
    collectNames(each.message.fields, known);
    collectNames(each.message.reply, known);
  }
  Facts others = Facts::array();
  for (const std::string& name : peer.names().peersNames)
    if (!name.empty() && !stpc::isPlaceholder(name) && !known.contains(name))
      others.push_back(name);
  return others;
}

std::string shownText(const Facts& value) {
  return gen_printable(value.is_string() ? value.get_ref<const std::string&>() : jsonText(value));
}

std::string linesOf(const char* title, const Facts& messages) {
  std::string text = std::string(title) + ":\n";
  for (const Facts& message : messages) {
    text += "  " + shownText(message.at("name"));
    if (message.at("two_way") == true) text += " two-way";
    text += " \"" + shownText(message.at("format")) + "\"\n";
  }
  return text;
}

}  // namespace

Facts describe(const InterfaceClient& client) {
  const PeerSpec& peer = client.peer();
  const auto orNull = [](const char* text) { return text ? Facts(text) : Facts(); };
  Facts described = {{"service", client.service()},
                     {"plugin", client.pluginID()},
                     {"side", orNull(peer.getPeerName())},
                     {"version", orNull(peer.getPeerVstamp())},
                     {"takes", Facts::array()}};
  for (const PeerMessage& each : peer.messages())
    described["takes"].push_back(describeMessage(each.message, each.fault));
  if (const auto sent = client.sent(); !sent.empty()) {
    described["sends"] = Facts::array();
    for (const stpc::Message* message : sent)
      described["sends"].push_back(describeMessage(*message, ""));
  } else {
    described["other_fields"] = otherFields(peer);
  }
  return described;
}

std::string textOfInterface(const Facts& description) {
  std::string text;
  for (const char* const name : {"service", "plugin", "side", "version"})
    text += std::string(name) + ": " + shownText(description.at(name)) + '\n';
  text += linesOf("takes", description.at("takes"));
  if (description.contains("sends")) return text + linesOf("sends", description.at("sends"));
  const Facts& others = description.at("other_fields");
  if (others.empty()) return text;
  text += "fields of what it sends:\n ";
  for (const Facts& name : others) text += " " + shownText(name);
  return text + '\n';
}

std::string textOfAnswer(const Facts& values) {
  std::string text;
  for (const auto& [name, value] : values.items())
    text += (values.size() == 1 ? "" : gen_printable(name) + ": ") + shownText(value) + '\n';
  return text;
}

std::string messageLine(const std::string& name, const Facts& values, bool json) {
  const Facts title = name.empty() ? Facts() : Facts(name);
  if (json) return jsonText({{"message", title}, {"fields", values}}) + '\n';
  std::string line = name.empty() ? "(unlisted)" : gen_printable(name);
  for (const auto& [field, value] : values.items())
    line += "  " + gen_printable(field) + "=" + gen_printable(jsonText(value));
  return line + '\n';
}

}  // namespace hublinkctl
