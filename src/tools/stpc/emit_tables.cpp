#include "tools/stpc/emit_tables.h"

#include <cstdio>
#include <string_view>

#include "tools/stpc/code_layout.h"
#include "tools/stpc/text_template.h"

namespace stpc {
namespace {

constexpr const char* kEnumeration = R"(namespace ${name} {
enum : ${type} {
${words}};
}  // namespace ${name}

)";

// The format as C++ texts, cut behind blanks where it is too long for a line.
std::vector<std::string> formatPieces(std::string_view format) {
  constexpr std::size_t kPiece = 80;
  std::vector<std::string> pieces;
  while (format.size() > kPiece) {
    const std::size_t cut = format.rfind(' ', kPiece - 1) + 1;
    if (cut == 0) break;
    pieces.push_back("\"" + std::string(format.substr(0, cut)) + "\"");
    format.remove_prefix(cut);
  }
  pieces.push_back("\"" + std::string(format) + "\"");
  return pieces;
}

}  // namespace

std::string hexNumber(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%02x", value);
  return text;
}

std::vector<std::string> namesOf(const std::vector<const Message*>& messages) {
  std::vector<std::string> names;
  for (const Message* message : messages) names.push_back(message->name);
  return names;
}

std::string enumeration(const std::string& name, const char* type,
                        const std::vector<std::string>& words) {
  if (words.empty()) return {};
  return fillTemplate(kEnumeration,
                      {{"name", name}, {"type", type}, {"words", wordLines(2, words)}});
}

std::vector<std::string> tagWords(const std::vector<std::string>& tags) {
  std::vector<std::string> words;
  for (std::size_t i = 0; i < tags.size(); ++i) {
    if (isPlaceholder(tags[i])) continue;
    const bool isBehindGap = i > 0 && isPlaceholder(tags[i - 1]);
    words.push_back(tags[i] + (isBehindGap ? " = " + std::to_string(i) : ""));
  }
  return words;
}

std::string tagTable(std::vector<std::string> tags) {
  if (tags.empty()) return {};
  for (std::string& tag : tags) tag = "\"" + tag + "\"";
  return "constexpr const char* kTagNames[] = {\n" + wordLines(4, tags) + "};\n\n";
}

std::string messageTable(const std::string& name, const std::vector<const Message*>& messages) {
  if (messages.empty()) return {};
  std::string lines = "constexpr STPMessageEntry " + name + "[] = {\n";
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const Message& message = *messages[i];
    const std::string tail = ", " + std::to_string(i) + ", " + hexNumber(message.entryFlags) + "},";
    const std::string head = "{\"" + message.name + "\",";
    const std::vector<std::string> pieces = formatPieces(message.format);
    const std::string whole = head + " " + pieces.back() + tail;
    if (pieces.size() == 1 && fitsLine(4, whole)) {
      lines += codeLine(4, whole);
      continue;
    }
    lines += codeLine(4, head);
    for (std::size_t k = 0; k < pieces.size(); ++k)
      lines += codeLine(5, pieces[k] + (k + 1 == pieces.size() ? tail : ""));
  }
  return lines + "};\n\n";
}

}  // namespace stpc
