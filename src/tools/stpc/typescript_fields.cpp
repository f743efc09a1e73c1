#include "tools/stpc/typescript_fields.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "tools/stpc/typescript_layout.h"

namespace stpc::typescript {
namespace {

// In the order of Scalar: a value's type, and what a field has that is left out.
struct Spelling {
  const char* type;
  const char* initial;
};
constexpr std::array<Spelling, 8> kSpellings = {{
    {"boolean", "false"},
    {"number", "0"},
    {"number", "0"},
    {"bigint", "0n"},
    {"number", "0"},
    {"number", "0"},
    {"string", "\"\""},
    {"string", "\"\""},
}};

const Spelling& spellingOf(const Field& field) {
  return kSpellings[static_cast<std::size_t>(field.scalar)];
}

// What reads and writes a list of fields uses these names itself.
constexpr std::string_view kOwnNames[] = {"hublink", "input", "messages", "tag"};

std::string nameOf(const Field& field) {
  return fieldName(field, kLanguage);
}

std::string variableOf(const Field& field) {
  const std::string name = nameOf(field);
  const bool isOwn =
      std::find(std::begin(kOwnNames), std::end(kOwnNames), name) != std::end(kOwnNames);
  return isOwn ? name + "_" : name;
}

std::string tagOf(const Field& field) {
  return "tag." + field.name;
}

bool isBytes(const Field& array) {
  return array.kind == Field::Kind::dynamicArray && array.scalar == Scalar::u1;
}

bool isNullable(const Field& field) {
  const Field* list = field.list();
  return field.isNullable || (list && list->isNullable);
}

std::string typeOf(const Field& field, const std::string& outer) {
  if (const Field* array = field.list()) {
    if (isBytes(*array)) return "Uint8Array";
    if (isNullable(field)) return "(string | null)[]";
    // A byte is no boolean.
    return std::string(array->scalar == Scalar::u1 ? "number" : spellingOf(*array).type) + "[]";
  }
  if (field.kind == Field::Kind::block) return blockType(outer, field);
  return std::string(spellingOf(field).type) + (isNullable(field) ? " | null" : "");
}

// How the elements of an array are read and written.
std::string elementOf(const Field& field, const Field& array) {
  const std::string scalar = spelling(array.scalar).name;
  if (array.kind == Field::Kind::dynamicArray) return "hublink.bare." + scalar;
  if (!isNullable(field)) return "hublink.element." + scalar;
  return array.scalar == Scalar::fn ? "hublink.element.nullableFn" : "hublink.element.nullable";
}

std::string initialOf(const Field& field) {
  if (field.list()) return "[]";
  if (field.kind == Field::Kind::block) return "{}";
  return isNullable(field) ? "null" : spellingOf(field).initial;
}

std::string putOf(const Field& field) {
  return field.scalar == Scalar::str ? "str" : spelling(field.scalar).name;
}

std::string getOf(const Field& field) {
  if (!isText(field.scalar)) return spelling(field.scalar).name;
  return isNullable(field) ? "nullable" : "str";
}

std::string writeField(const std::vector<Field>& fields, const Field& field,
                       const std::string& type, int indent) {
  const Field& named = field.isCount() ? fields[field.counterpart] : field;
  const std::string member = "message." + nameOf(named);
  const std::string value = member + " ?? " + initialOf(named);
  if (field.isCount())
    return tsCall(indent, "out.u4", {tagOf(field), member + "?.length ?? 0"}, ";");
  if (field.kind == Field::Kind::scalar)
    return tsCall(indent, "out." + putOf(field), {tagOf(field), value}, ";");
  if (field.isArrayBlock()) {
    const Field& array = *field.list();
    if (array.kind == Field::Kind::pointerArray)
      return tsCall(indent, "out.listBlock",
                    {tagOf(field), tagOf(field.fields[0]), value, elementOf(field, array)}, ";");
    return tsCall(
        indent, "out.packedBlock",
        {tagOf(field), tagOf(field.fields[0]), tagOf(array), value, elementOf(field, array)}, ";");
  }
  if (field.kind == Field::Kind::pointerArray)
    return tsCall(indent, "out.elements", {value, elementOf(field, field)}, ";");
  if (field.kind == Field::Kind::dynamicArray)
    return tsCall(indent, "out.packed", {tagOf(field), value, elementOf(field, field)}, ";");
  return tsCall(indent, "out.block", {tagOf(field), value, "write" + blockType(type, field)}, ";");
}

// A call that reads a field: its function and arguments.
struct ReadCall {
  std::string head;
  std::vector<std::string> arguments;
};

ReadCall readField(const std::vector<Field>& fields, const Field& field, const std::string& type) {
  if (field.isCount()) {
    const bool isPointer = fields[field.counterpart].kind == Field::Kind::pointerArray;
    return {isPointer ? "input.count" : "input.u4", {tagOf(field)}};
  }
  if (field.kind == Field::Kind::scalar) return {"input." + getOf(field), {tagOf(field)}};
  if (field.isArrayBlock()) {
    const Field& array = *field.list();
    const std::string count = tagOf(field.fields[0]);
    if (array.kind == Field::Kind::pointerArray)
      return {"input.listBlock", {tagOf(field), count, elementOf(field, array)}};
    if (isBytes(array)) return {"input.bytesBlock", {tagOf(field), count, tagOf(array)}};
    return {"input.packedBlock", {tagOf(field), count, tagOf(array), elementOf(field, array)}};
  }
  if (field.kind == Field::Kind::block)
    return {"input.block", {tagOf(field), "read" + blockType(type, field)}};
  const std::string count = "countOf" + pascalCase(field.name);
  if (field.kind == Field::Kind::pointerArray)
    return {"input.elements", {count, elementOf(field, field)}};
  if (isBytes(field)) return {"input.packedBytes", {tagOf(field), count}};
  return {"input.packed", {tagOf(field), count, elementOf(field, field)}};
}

bool hasCounts(const std::vector<Field>& fields) {
  return std::any_of(fields.begin(), fields.end(), [](const Field& f) { return f.isCount(); });
}

// The statements of a function that reads a list of fields, in the order of its format.
std::string readStatements(const std::vector<Field>& fields, const std::string& type, int indent) {
  const std::string margin(static_cast<std::size_t>(indent), ' ');
  std::string lines;
  std::string members;
  const bool needsVariables = hasCounts(fields);
  for (const Field& field : fields) {
    const ReadCall read = readField(fields, field, type);
    if (!needsVariables) {
      members += tsCall(indent + 2, nameOf(field) + ": " + read.head, read.arguments, ",");
      continue;
    }
    const std::string variable = field.isCount()
                                     ? "countOf" + pascalCase(fields[field.counterpart].name)
                                     : variableOf(field);
    lines += tsCall(indent, "const " + variable + " = " + read.head, read.arguments, ";");
    if (field.isCount()) continue;
    const bool isShort = variable == nameOf(field);
    members += margin + "  " + nameOf(field) + (isShort ? "" : ": " + variable) + ",\n";
  }
  return lines + margin + "return {\n" + members + margin + "};\n";
}

std::string writeStatements(const std::vector<Field>& fields, const std::string& type, int indent) {
  std::string lines;
  for (const Field& field : fields) lines += writeField(fields, field, type, indent);
  return lines;
}

}  // namespace

std::string interfaceTypes(const std::vector<Field>& fields, const std::string& type,
                           const std::string& doc) {
  std::string types = "\n" + tsDoc(0, doc);
  if (fields.empty()) return types + "export type " + type + " = Record<string, never>;\n";
  types += "export interface " + type + " {\n";
  for (const Field& field : fields)
    if (!field.isCount()) types += "  " + nameOf(field) + ": " + typeOf(field, type) + ";\n";
  types += "}\n";
  for (const Field& field : fields)
    if (field.kind == Field::Kind::block && !field.isArrayBlock())
      types += interfaceTypes(field.fields, blockType(type, field),
                              "The block `" + field.name + "` of {@link " + type + "}.");
  return types;
}

std::string blockFunctions(const std::vector<Field>& fields, const std::string& type) {
  std::string functions;
  for (const Field& field : fields) {
    if (field.kind != Field::Kind::block || field.isArrayBlock()) continue;
    const std::string block = blockType(type, field);
    functions += blockFunctions(field.fields, block);
    functions +=
        "\n" + tsSignature(0, "function write" + block,
                           {"out: hublink.Writer", "message: hublink.Sending<" + block + ">"},
                           ": void {");
    functions += writeStatements(field.fields, block, 2) + "}\n";
    functions += "\n" + tsSignature(0, "function read" + block, {"input: hublink.Reader"},
                                    ": " + block + " {");
    functions += readStatements(field.fields, block, 2) + "}\n";
  }
  return functions;
}

std::string writeMethod(const std::string& name, const std::vector<Field>& fields,
                        const std::string& type) {
  if (fields.empty())
    return "    " + name + "(): void {\n      // There is nothing to write.\n    },\n";
  return tsSignature(4, name, {"out: hublink.Writer", "message: hublink.Sending<" + type + ">"},
                     ": void {") +
         writeStatements(fields, type, 6) + "    },\n";
}

std::string readMethod(const std::string& name, const std::vector<Field>& fields,
                       const std::string& type) {
  if (fields.empty())
    return tsSignature(4, name, {}, ": " + type + " {") + "      return {};\n    },\n";
  return tsSignature(4, name, {"input: hublink.Reader"}, ": " + type + " {") +
         readStatements(fields, type, 6) + "    },\n";
}

}  // namespace stpc::typescript
