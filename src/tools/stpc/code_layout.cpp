#include "tools/stpc/code_layout.h"

namespace stpc {
namespace {

constexpr std::size_t kWidth = 100;

std::string blanks(std::size_t count) {
  return std::string(count, ' ');
}

}  // namespace

std::string codeLine(int indent, const std::string& text) {
  return blanks(static_cast<std::size_t>(indent)) + text + "\n";
}

bool fitsLine(int indent, const std::string& text) {
  return static_cast<std::size_t>(indent) + text.size() <= kWidth;
}

std::string wordLines(int indent, const std::vector<std::string>& words) {
  std::string lines;
  std::string line;
  for (const std::string& word : words) {
    if (!line.empty() && !fitsLine(indent, line + " " + word + ",")) {
      lines += codeLine(indent, line);
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word + ",";
  }
  return line.empty() ? lines : lines + codeLine(indent, line);
}

std::string callLines(int indent, const std::string& head, const std::vector<std::string>& parts,
                      const std::string& tail) {
  std::string lines;
  std::string line = blanks(static_cast<std::size_t>(indent)) + head + "(";
  const std::size_t column = line.size();
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const bool isLast = i + 1 == parts.size();
    const std::string part = parts[i] + (isLast ? ")" + tail : ",");
    if (i > 0 && line.size() + 1 + part.size() > kWidth) {
      lines += line + "\n";
      line = blanks(column) + part;
    } else {
      line += (i > 0 ? " " : "") + part;
    }
  }
  if (parts.empty()) line += ")" + tail;
  return lines + line + "\n";
}

std::string chainLines(int indent, const std::string& head, const std::vector<std::string>& links) {
  std::string whole = head;
  for (const std::string& link : links) whole += link;
  if (fitsLine(indent, whole + ";")) return codeLine(indent, whole + ";");
  std::string lines = codeLine(indent, head);
  for (std::size_t i = 0; i < links.size(); ++i)
    lines += codeLine(indent + 4, links[i] + (i + 1 == links.size() ? ";" : ""));
  return lines;
}

std::string textLiteral(std::string_view text) {
  std::string literal = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') literal += '\\';
    literal += c;
  }
  return literal + "\"";
}

}  // namespace stpc
