#include "tools/stpc/emit_cpp_fields.h"

#include <algorithm>
#include <vector>

#include "tools/stpc/author_names.h"
#include "tools/stpc/code_layout.h"
#include "tools/stpc/text_template.h"

namespace stpc {
namespace {

constexpr const char* kCppStruct = R"(
${doc}struct ${name} {
${members}  bool operator==(const ${name}&) const = default;
};
)";

constexpr const char* kCppCodec = R"(
static void putFields(${out}, const ${name}&${from}) {
${puts}}

static void getFields(${in}, ${name}&${to}) {
${gets}}
)";

struct CppSpelling {
  const char* type;
  const char* initial;
};

// In the order of Scalar.
constexpr CppSpelling kCppSpellings[] = {
    {"bool", "false"}, {"std::uint16_t", "0"}, {"std::int32_t", "0"}, {"std::uint64_t", "0"},
    {"float", "0"},    {"double", "0"},        {"std::string", "{}"}, {"std::string", "{}"},
};

const CppSpelling& cppSpelling(const Field& field) {
  return kCppSpellings[static_cast<std::size_t>(field.scalar)];
}

// An array of booleans is one of bytes, so that it can carry anything.
std::string cppElementType(const Field& array) {
  if (array.scalar == Scalar::u1) return "std::uint8_t";
  const std::string type = cppSpelling(array).type;
  return array.isNullable ? "std::optional<" + type + ">" : type;
}

bool isCppStruct(const Field& field) {
  return field.kind == Field::Kind::block && !field.isArrayBlock();
}

std::string cppMember(const Field& field, const std::string& outer) {
  const std::string name = " " + fieldName(field, Language::cpp);
  if (const Field* list = field.list())
    return "std::vector<" + cppElementType(*list) + ">" + name + " = {};";
  if (isCppStruct(field)) return blockType(outer, field) + name + " = {};";
  const CppSpelling& spelling = cppSpelling(field);
  if (field.isNullable)
    return std::string("std::optional<") + spelling.type + ">" + name + " = {};";
  return spelling.type + name + " = " + spelling.initial + ";";
}

std::string cppStructs(const std::vector<Field>& fields, const std::string& name,
                       const std::string& doc) {
  std::string code;
  std::string members;
  for (const Field& field : fields) {
    if (isCppStruct(field)) {
      const std::string inner = blockType(name, field);
      code +=
          cppStructs(field.fields, inner, "/// The block `" + field.name + "` of " + name + ".\n");
    }
    if (!field.isCount()) members += codeLine(2, cppMember(field, name));
  }
  if (!members.empty()) members += "\n";
  return code + fillTemplate(kCppStruct, {{"doc", doc}, {"name", name}, {"members", members}});
}

std::string cppTag(const Field& field) {
  return "tag::" + field.name;
}

// Where the count of an array is kept until the array is read; that of an array block has a scope
// of its own.
std::string cppCount(const Field& count) {
  return "count_" + count.name;
}

// `value` is the member that an array is, whose count stands among `fields`.
std::string cppPutList(const Field& list, const std::string& value) {
  if (list.kind == Field::Kind::dynamicArray)
    return "out.packed(" + cppTag(list) + ", " + value + ");";
  return std::string(list.scalar == Scalar::fn ? "out.paths(" : "out.elements(") + value + ");";
}

std::string cppGetList(const Field& list, const std::string& count, const std::string& value) {
  if (list.kind == Field::Kind::dynamicArray)
    return "in.packed(" + cppTag(list) + ", " + count + ", " + value + ");";
  return "in.elements(" + count + ", " + value + ");";
}

std::string cppArrayBlock(const char* scope, const Field& block, const std::string& countLine,
                          const std::string& listLine) {
  return codeLine(2, "{") +
         codeLine(4, "const hublink::" + std::string(scope) + ", " + cppTag(block) + ");") +
         codeLine(4, countLine) + codeLine(4, listLine) + codeLine(2, "}");
}

std::string cppPuts(const std::vector<Field>& fields) {
  std::string lines;
  for (const Field& field : fields) {
    const std::string value = "from." + fieldName(field, Language::cpp);
    if (field.isArrayBlock()) {
      lines += cppArrayBlock("FieldWriter::Block block(out", field,
                             "out.count(" + cppTag(field.fields[0]) + ", " + value + ");",
                             cppPutList(field.fields[1], value));
    } else if (field.isCount()) {
      const Field& list = fields[field.counterpart];
      lines += codeLine(
          2, "out.count(" + cppTag(field) + ", from." + fieldName(list, Language::cpp) + ");");
    } else if (field.isArray()) {
      lines += codeLine(2, cppPutList(field, value));
    } else {
      const char* put = field.kind == Field::Kind::block ? "out.block("
                        : field.scalar == Scalar::fn     ? "out.path("
                                                         : "out.put(";
      lines += codeLine(2, put + cppTag(field) + ", " + value + ");");
    }
  }
  return lines;
}

std::string cppGets(const std::vector<Field>& fields) {
  std::string lines;
  const auto readCount = [](const std::string& variable, const Field& count) {
    return "const auto " + variable + " = in.count(" + cppTag(count) + ");";
  };
  for (const Field& field : fields) {
    const std::string value = "to." + fieldName(field, Language::cpp);
    if (field.isArrayBlock()) {
      lines +=
          cppArrayBlock("FieldReader::Block block(in", field, readCount("count", field.fields[0]),
                        cppGetList(field.fields[1], "count", value));
    } else if (field.isCount()) {
      lines += codeLine(2, readCount(cppCount(field), field));
    } else if (field.isArray()) {
      lines += codeLine(2, cppGetList(field, cppCount(fields[field.counterpart]), value));
    } else {
      const char* get = field.kind == Field::Kind::block ? "in.block(" : "in.get(";
      lines += codeLine(2, get + cppTag(field) + ", " + value + ");");
    }
  }
  return lines;
}

std::string cppCodecs(const std::vector<Field>& fields, const std::string& name) {
  std::string code;
  for (const Field& field : fields)
    if (isCppStruct(field)) code += cppCodecs(field.fields, blockType(name, field));
  const auto named = [&](const char* parameter) {
    return fields.empty() ? std::string() : std::string(" ") + parameter;
  };
  return code + fillTemplate(kCppCodec, {{"out", "hublink::FieldWriter&" + named("out")},
                                         {"in", "hublink::FieldReader&" + named("in")},
                                         {"name", name},
                                         {"from", named("from")},
                                         {"to", named("to")},
                                         {"puts", cppPuts(fields)},
                                         {"gets", cppGets(fields)}});
}

}  // namespace

std::string docLines(int indent, const std::string& doc, const std::string& other) {
  const std::string& text = doc.empty() ? other : doc;
  std::string lines;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    std::string line = text.substr(start, end - start);
    // Or the comment would go on in the next line; the other is the same as a trigraph.
    if (line.ends_with('\\') || line.ends_with("?\?/")) line += '.';
    lines += codeLine(indent, line.empty() ? "///" : "/// " + line);
    start = end + 1;
  }
  return lines;
}

std::string structsOf(const Message& message) {
  std::string code = cppStructs(message.fields, messageType(message), docLines(0, message.doc, {}));
  if (message.twoWay)
    code += cppStructs(message.reply, replyType(message),
                       "/// The reply to " + messageType(message) + ".\n");
  return code;
}

std::string codecOf(const Message& message) {
  return cppCodecs(message.fields, messageType(message)) +
         (message.twoWay ? cppCodecs(message.reply, replyType(message)) : std::string());
}

}  // namespace stpc
