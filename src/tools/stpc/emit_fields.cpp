#include "tools/stpc/emit_fields.h"

#include "tools/stpc/code_layout.h"
#include "tools/stpc/names.h"

namespace stpc {
namespace {

// Where the values of a list of fields are: in variables of their names, in the members of an
// object, or in an array, which has both the count and the elements.
struct Place {
  std::string object;
  bool isArray = false;
};

std::string valueOf(const std::vector<Field>& fields, const Field& field, const Place& place) {
  const Field& named = field.isCount() ? fields[field.counterpart] : field;
  const std::string holder = place.isArray          ? place.object
                             : place.object.empty() ? localName(named.name)
                                                    : place.object + "." + memberName(named.name);
  return holder + (field.isCount() ? ".count" : "");
}

// The value of the array that a count field belongs to.
std::string arrayOf(const std::vector<Field>& fields, const Field& count, const Place& place) {
  return valueOf(fields, fields[count.counterpart], place);
}

Place inside(const Field& block, const std::string& value) {
  return {value, block.isArrayBlock()};
}

std::string arrayType(const Field& array) {
  if (isText(array.scalar)) return "StringArray";
  if (array.scalar == Scalar::u4) return "RNArray";
  return std::string("STPArray<") + spelling(array.scalar).elementType + ">";
}

// `scope` is the name of the enclosing type, for a block's own type.
std::string typeOf(const Field& field, const std::string& scope) {
  if (field.isArray()) return arrayType(field);
  if (field.isArrayBlock()) return arrayType(field.fields[1]);
  if (field.kind == Field::Kind::block) return scope + "_" + field.name;
  return spelling(field.scalar).type;
}

std::string declaration(const std::string& type, const std::string& name) {
  return type + " " + name;
}

std::string outputType(const Field& field) {
  return isText(field.scalar) ? "gen_text" : spelling(field.scalar).type;
}

bool isPassedByReference(const Field& field) {
  return field.kind == Field::Kind::block && !field.isArrayBlock();
}

std::vector<std::string> requestParameters(const Message& message) {
  std::vector<std::string> parameters;
  for (const Field& field : message.fields) {
    if (field.isCount()) continue;
    const std::string type = typeOf(field, message.name);
    parameters.push_back(declaration(isPassedByReference(field) ? "const " + type + "&" : type,
                                     localName(field.name)));
  }
  return parameters;
}

std::vector<std::string> withOutputs(std::vector<std::string> parameters, const Message& message,
                                     const char* mark) {
  for (const Field& field : message.reply)
    parameters.push_back(declaration(outputType(field) + mark, localName(field.name)));
  return parameters;
}

void addBlockTypes(const std::vector<Field>& fields, const std::string& scope,
                   const std::string& messageName, std::string& types) {
  for (const Field& field : fields) {
    if (field.kind != Field::Kind::block || field.isArrayBlock()) continue;
    const std::string name = typeOf(field, scope);
    addBlockTypes(field.fields, name, messageName, types);
    types += codeLine(2, "/// The block `" + field.name + "` of " + messageName + ".");
    types += codeLine(2, "struct " + name + " {");
    for (const Field& member : field.fields) {
      if (member.isCount()) continue;
      const bool isScalar = member.kind == Field::Kind::scalar;
      types += codeLine(
          4, declaration(typeOf(member, name), memberName(member.name)) +
                 (isScalar ? std::string(" = ") + spelling(member.scalar).initial : std::string()) +
                 ";");
    }
    types += codeLine(2, "};");
  }
}

std::string tagOf(const Field& field) {
  return "tag::" + field.name;
}

std::string getterOf(Scalar scalar) {
  return isText(scalar) ? "str" : spelling(scalar).name;
}

std::string read(const Field& field) {
  return "in." + getterOf(field.scalar) + "(" + tagOf(field) + ")";
}

std::string blockVariable(int depth) {
  return "block" + (depth > 1 ? std::to_string(depth) : std::string());
}

std::string readValue(const std::vector<Field>& fields, const Field& field, const Place& place,
                      int indent, int depth) {
  const std::string value = valueOf(fields, field, place);
  switch (field.kind) {
    case Field::Kind::scalar:
      if (field.isCount() && fields[field.counterpart].kind == Field::Kind::pointerArray)
        return codeLine(indent,
                        "in.count(" + tagOf(field) + ", " + arrayOf(fields, field, place) + ");");
      return codeLine(indent, value + " = " + read(field) + ";");
    case Field::Kind::pointerArray:
      return codeLine(indent, "in.elements(" + value + ");");
    case Field::Kind::dynamicArray:
      return codeLine(indent, "in.packed(" + tagOf(field) + ", " + value + ");");
    case Field::Kind::block:
      break;
  }
  std::string lines = codeLine(indent, "{");
  lines += codeLine(indent + 2, "const STPStubReader::Block " + blockVariable(depth) + "(in, " +
                                    tagOf(field) + ");");
  for (const Field& member : field.fields)
    lines += readValue(field.fields, member, inside(field, value), indent + 2, depth + 1);
  return lines + codeLine(indent, "}");
}

std::string writeValues(const std::vector<Field>& fields, const Place& place,
                        const std::string& packet, int indent, int depth) {
  const std::string message = "*" + packet;
  std::string lines;
  for (const Field& field : fields) {
    const std::string value = valueOf(fields, field, place);
    const std::string target = message + ", " + tagOf(field) + ", ";
    if (field.isCount()) {
      lines += codeLine(indent, "stpPutCount(" + target + arrayOf(fields, field, place) + ");");
    } else if (field.kind == Field::Kind::pointerArray) {
      const char* put = field.scalar == Scalar::fn ? "stpPutPaths(" : "stpPutElements(";
      lines += codeLine(indent, put + message + ", " + value + ");");
    } else if (field.kind == Field::Kind::dynamicArray) {
      lines += codeLine(indent, "stpPutPacked(" + target + value + ");");
    } else if (field.kind == Field::Kind::block) {
      lines += codeLine(indent, "{");
      lines += codeLine(indent + 2, "const STPStubBlock " + blockVariable(depth) + "(" + message +
                                        ", " + tagOf(field) + ");");
      lines += writeValues(field.fields, inside(field, value), packet, indent + 2, depth + 1);
      lines += codeLine(indent, "}");
    } else if (field.scalar == Scalar::fn) {
      lines += codeLine(indent, "stpPutPath(" + target + value + ");");
    } else {
      lines += codeLine(indent, packet + "->" + spelling(field.scalar).put + "(" + tagOf(field) +
                                    ", " + value + ");");
    }
  }
  return lines;
}

void addTraceLinks(const std::vector<Field>& fields, const Place& place,
                   std::vector<std::string>& links) {
  for (const Field& field : fields) {
    const std::string value = valueOf(fields, field, place);
    const std::string arguments = "(\"" + field.name + "\", " + value + ")";
    if (field.kind == Field::Kind::block) {
      links.push_back(".open(\"" + field.name + "\")");
      addTraceLinks(field.fields, inside(field, value), links);
      links.push_back(".close()");
    } else {
      links.push_back((field.isArray() ? ".elements" : ".field") + arguments);
    }
  }
}

}  // namespace

std::vector<std::string> stubParameters(const Message& message) {
  return withOutputs(requestParameters(message), message, "*");
}

std::vector<std::string> handlerParameters(const Message& message) {
  return withOutputs(requestParameters(message), message, "&");
}

std::vector<std::string> argumentNames(const Message& message) {
  std::vector<std::string> names;
  for (const auto* fields : {&message.fields, &message.reply})
    for (const Field& field : *fields)
      if (!field.isCount()) names.push_back(localName(field.name));
  return names;
}

std::string blockTypes(const Message& message) {
  std::string types;
  addBlockTypes(message.fields, message.name, message.name, types);
  return types;
}

std::string readFields(const Message& message, int indent) {
  std::string lines;
  for (const Field& field : message.fields) {
    if (field.kind == Field::Kind::scalar && !field.isCount()) {
      lines += codeLine(
          indent,
          declaration(std::string("const ") +
                          (isText(field.scalar) ? "char* const" : spelling(field.scalar).type),
                      localName(field.name)) +
              " = " + read(field) + ";");
      continue;
    }
    // An array is filled in two places, and its variable stands before the first.
    const Field& holder = field.isCount() ? message.fields[field.counterpart] : field;
    if (!field.isArray())
      lines +=
          codeLine(indent, declaration(typeOf(holder, message.name), localName(holder.name)) + ";");
    lines += readValue(message.fields, field, {}, indent, 1);
  }
  return lines;
}

std::string declareReply(const Message& message, int indent) {
  std::string lines;
  for (const Field& field : message.reply)
    lines += codeLine(
        indent, declaration(outputType(field), localName(field.name)) +
                    (isText(field.scalar) ? std::string()
                                          : std::string(" = ") + spelling(field.scalar).initial) +
                    ";");
  return lines;
}

std::string readReply(const Message& message, int indent) {
  std::string lines;
  for (const Field& field : message.reply)
    lines += codeLine(
        indent, "*" + localName(field.name) + " = " +
                    (isText(field.scalar) ? "in.ownedText(" + tagOf(field) + ")" : read(field)) +
                    ";");
  return lines;
}

std::string clearReply(const Message& message, int indent) {
  std::string lines;
  for (const Field& field : message.reply)
    lines += codeLine(
        indent, "*" + localName(field.name) + " = " +
                    (isText(field.scalar) ? "gen_text()" : spelling(field.scalar).initial) + ";");
  return lines;
}

std::string writeFields(const std::vector<Field>& fields, const std::string& packet, int indent) {
  return writeValues(fields, {}, packet, indent, 1);
}

std::string traceFields(const std::vector<Field>& fields, const std::string& log,
                        const std::string& heading, const std::string& messageName, int indent) {
  std::vector<std::string> links;
  addTraceLinks(fields, {}, links);
  return chainLines(indent, "STPStubTrace(*" + log + ", this, \"" + heading + messageName + ": \")",
                    links);
}

}  // namespace stpc
