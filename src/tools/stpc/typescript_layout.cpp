#include "tools/stpc/typescript_layout.h"

namespace stpc::typescript {
namespace {

constexpr std::size_t kWidth = 80;

std::string blanks(int count) {
  return std::string(static_cast<std::size_t>(count), ' ');
}

bool fits(const std::string& line) {
  return line.size() <= kWidth;
}

std::string joined(int indent, const std::string& head, const std::vector<std::string>& parts,
                   const std::string& tail, const char* open, const char* close) {
  std::string line = blanks(indent) + head + open;
  for (std::size_t i = 0; i < parts.size(); ++i) line += (i == 0 ? "" : ", ") + parts[i];
  line += close + tail;
  if (fits(line) || parts.empty()) return line + "\n";
  line = blanks(indent) + head + open + "\n";
  for (const std::string& part : parts) line += blanks(indent + 2) + part + ",\n";
  return line + blanks(indent) + close + tail + "\n";
}

}  // namespace

std::string tsCall(int indent, const std::string& head, const std::vector<std::string>& arguments,
                   const std::string& tail) {
  return joined(indent, head, arguments, tail, "(", ")");
}

std::string tsSignature(int indent, const std::string& head,
                        const std::vector<std::string>& parameters, const std::string& tail) {
  return joined(indent, head, parameters, tail, "(", ")");
}

std::string tsList(int indent, const std::string& head, const std::vector<std::string>& elements,
                   const std::string& tail) {
  return joined(indent, head, elements, tail, "[", "]");
}

std::string tsTypeArgument(int indent, const std::string& head, const std::string& argument,
                           const std::string& tail) {
  // prettier leaves a single name where it is, however long.
  return blanks(indent) + head + "<" + argument + ">" + tail + "\n";
}

std::string tsProperty(int indent, const std::string& name, const std::string& value) {
  const std::string line = blanks(indent) + name + ": " + value + ",";
  if (fits(line) || value[0] != '"') return line + "\n";
  return blanks(indent) + name + ":\n" + blanks(indent + 2) + value + ",\n";
}

std::vector<std::string> tsDocLines(const std::string& text) {
  std::vector<std::string> lines;
  if (text.empty()) return lines;
  std::string line;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n') {
      lines.push_back(line);
      line.clear();
    } else {
      line += text[i];
      if (text[i] == '*' && i + 1 < text.size() && text[i + 1] == '/') line += '\\';
    }
  }
  lines.push_back(line);
  return lines;
}

std::string tsDoc(int indent, const std::string& text) {
  const std::vector<std::string> lines = tsDocLines(text);
  if (lines.empty()) return {};
  const std::string margin = blanks(indent);
  if (lines.size() == 1 && fits(margin + "/** " + lines[0] + " */"))
    return margin + "/** " + lines[0] + " */\n";
  std::string doc = margin + "/**\n";
  for (const std::string& line : lines)
    doc += margin + " *" + (line.empty() ? "" : " " + line) + "\n";
  return doc + margin + " */\n";
}

}  // namespace stpc::typescript
