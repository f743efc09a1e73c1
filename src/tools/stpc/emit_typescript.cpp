#include "tools/stpc/emit_typescript.h"
#include "tools/stpc/code_layout.h"
#include "tools/stpc/emit_tables.h"

#include <algorithm>

#include "tools/stpc/author_names.h"
#include "tools/stpc/text_template.h"
#include "tools/stpc/typescript_fields.h"
#include "tools/stpc/typescript_layout.h"

namespace stpc {
namespace typescript {
namespace {

std::string number(std::size_t value) {
  return std::to_string(value);
}

std::string tableName(const Side& side) {
  return camelCase(side.name) + "Table";
}

// The object of all messages that gives each by the name of its call.
std::string messageValue(const Message& message) {
  return "messages." + callName(message, kLanguage);
}

std::string tagTable(const Catalogue& catalogue) {
  std::string lines =
      "/** The names of all fields by their numbers, in the order of their bytes. */\n"
      "const tag = {\n";
  std::size_t place = 0;
  for (const std::string& name : catalogue.tagNamesWithRefusal()) {
    const std::string key = isPlaceholder(name) ? quoted(name) : name;
    lines += tsProperty(2, key, number(place++));
  }
  return lines + "} as const;\n";
}

std::string messageTypes(const Message& message) {
  std::string types =
      interfaceTypes(message.fields, messageType(message),
                     message.doc.empty() ? "The message `" + message.name + "`." : message.doc);
  if (message.twoWay)
    types += interfaceTypes(message.reply, replyType(message),
                            "What answers {@link " + messageType(message) + "}.");
  return types;
}

// `index` is the message's place among those of its sender.
std::string messageEntry(const Message& message, std::size_t index) {
  const std::string type = messageType(message);
  std::string entry = "  " + callName(message, kLanguage) + ": {\n";
  entry += tsProperty(4, "name", quoted(message.name));
  entry += tsProperty(4, "format", quoted(message.format));
  entry += tsProperty(4, "index", number(index));
  entry += tsProperty(4, "entryFlags", hexNumber(message.entryFlags));
  entry += tsProperty(4, "packetFlags", hexNumber(message.packetFlags));
  entry += tsProperty(4, "handler", quoted(handlerName(message, kLanguage)));
  entry += writeMethod("write", message.fields, type);
  entry += readMethod("read", message.fields, type);
  if (message.twoWay) {
    entry += writeMethod("writeReply", message.reply, replyType(message));
    entry += readMethod("readReply", message.reply, replyType(message));
  }
  return entry + "  },\n";
}

std::size_t placeOf(const Message& message, const std::vector<const Message*>& sorted) {
  return static_cast<std::size_t>(std::find(sorted.begin(), sorted.end(), &message) -
                                  sorted.begin());
}

std::string messageTable(const Catalogue& catalogue) {
  std::string table = "const messages = {\n";
  for (const Message& message : catalogue.messages)
    table +=
        messageEntry(message, placeOf(message, sortedByName(catalogue.sentBy(message.sender))));
  return table + "};\n";
}

std::vector<std::string> valuesOf(const std::vector<const Message*>& messages) {
  std::vector<std::string> values;
  for (const Message* message : sortedByName(messages)) values.push_back(messageValue(*message));
  return values;
}

std::string sideTable(const Catalogue& catalogue, std::size_t number) {
  const Side& side = catalogue.sides[number];
  std::string table = "const " + tableName(side) + ": hublink.SideTable = {\n";
  table += tsProperty(2, "spec", quoted(catalogue.specName));
  table += tsProperty(2, "side", quoted(side.name));
  table += tsProperty(2, "vstamp", textLiteral(side.vstamp));
  table += tsProperty(2, "flags", hexNumber(side.flags));
  table += tsProperty(2, "tags", "Object.keys(tag)");
  table += tsList(2, "receives: ", valuesOf(catalogue.receivedBy(number)), ",");
  table += tsList(2, "sends: ", valuesOf(catalogue.sentBy(number)), ",");
  return table + "};\n";
}

bool mustHandle(const std::vector<const Message*>& received) {
  return std::any_of(received.begin(), received.end(),
                     [](const Message* message) { return message->twoWay; });
}

std::string handlersType(const Catalogue& catalogue, std::size_t number) {
  const std::vector<const Message*> received = catalogue.receivedBy(number);
  if (received.empty()) return {};
  const std::string side = sideType(catalogue, catalogue.sides[number], kLanguage);
  std::string lines =
      "\n" +
      tsDoc(0, "What is called at the side {@link " + side + "} with each message that comes.") +
      "export interface " + side + "Handlers {\n";
  for (const Message* message : received) {
    lines += tsDoc(2, message->doc);
    const std::string head = handlerName(*message, kLanguage) + (message->twoWay ? "" : "?");
    lines += tsSignature(
        2, head, {"message: " + messageType(*message)},
        message->twoWay ? ": hublink.Answer<" + replyType(*message) + ">;" : ": unknown;");
  }
  return lines + "}\n";
}

std::string sendMethod(const Message& message) {
  std::vector<std::string> parameters = {"message: hublink.Sending<" + messageType(message) +
                                         "> = {}"};
  std::vector<std::string> arguments = {messageValue(message), "message"};
  if (message.twoWay) {
    parameters.emplace_back("options?: hublink.WaitOptions");
    arguments.emplace_back("options");
  }
  const std::string result = message.twoWay ? replyType(message) : "void";
  return "\n" + tsDoc(2, message.doc) +
         tsSignature(2, callName(message, kLanguage), parameters, ": Promise<" + result + "> {") +
         tsCall(4, message.twoWay ? "return this.callMessage" : "return this.sendMessage",
                arguments, ";") +
         "  }\n";
}

std::string sideClass(const Catalogue& catalogue, std::size_t number) {
  const Side& side = catalogue.sides[number];
  const std::string name = sideType(catalogue, side, kLanguage);
  const std::vector<const Message*> received = catalogue.receivedBy(number);
  const std::string handlers = received.empty() ? "object" : name + "Handlers";
  std::vector<std::string> parameters = {"link: hublink.Endpoint"};
  if (!received.empty())
    parameters.push_back("handlers: " + handlers + (mustHandle(received) ? "" : " = {}"));
  std::string lines = "\n" + tsDoc(0, side.doc.empty() ? "The side `" + side.name + "` of " +
                                                             catalogue.specName + "."
                                                       : side.doc);
  const std::string head = "export class " + name + " extends hublink.Side";
  lines += tsTypeArgument(0, head, handlers, " {");
  lines += tsSignature(2, "constructor", parameters, " {");
  lines += tsCall(4, "super", {"link", tableName(side), received.empty() ? "{}" : "handlers"}, ";");
  lines += "  }\n";
  for (const Message* message : catalogue.sentBy(number)) lines += sendMethod(*message);
  return lines + "}\n";
}

}  // namespace
}  // namespace typescript

std::vector<OutputFile> emitTypeScript(const Catalogue& catalogue,
                                       const std::string& catalogueName) {
  using namespace typescript;
  std::string text =
      "// Generated by stpc from " + catalogueName + ": change that file and generate again.\n";
  for (const std::string& line : tsDocLines(catalogue.doc))
    text += "//" + (line.empty() ? "" : " " + line) + "\n";
  text += "import * as hublink from \"hublink/interface\";\n";
  for (const Message& message : catalogue.messages) text += messageTypes(message);
  text += "\n" + tagTable(catalogue);
  for (const Message& message : catalogue.messages) {
    text += blockFunctions(message.fields, messageType(message));
    text += blockFunctions(message.reply, replyType(message));
  }
  text += "\n" + messageTable(catalogue);
  for (std::size_t side = 0; side < catalogue.sides.size(); ++side)
    text += "\n" + sideTable(catalogue, side);
  for (std::size_t side = 0; side < catalogue.sides.size(); ++side)
    text += handlersType(catalogue, side) + sideClass(catalogue, side);
  return {{moduleName(catalogue, kLanguage) + ".ts", text}};
}

std::vector<std::string_view> namesOfTypeScriptSides() {
  return {"constructor", "ready",    "knows",   "knowsField",    "sendMessage",
          "callMessage", "toString", "valueOf", "hasOwnProperty"};
}

}  // namespace stpc
