#include "tools/stpc/names.h"

#include <algorithm>
#include <iterator>

#include "tools/stpc/macro_names.h"

namespace stpc {
namespace {

constexpr std::string_view kReserved[] = {
    "alignas",       "alignof",     "and",
    "and_eq",        "asm",         "auto",
    "bitand",        "bitor",       "bool",
    "break",         "case",        "catch",
    "char",          "char16_t",    "char32_t",
    "char8_t",       "class",       "co_await",
    "co_return",     "co_yield",    "compl",
    "concept",       "const",       "const_cast",
    "consteval",     "constexpr",   "constinit",
    "continue",      "decltype",    "default",
    "delete",        "do",          "double",
    "dynamic_cast",  "else",        "enum",
    "explicit",      "export",      "extern",
    "false",         "float",       "for",
    "friend",        "goto",        "if",
    "inline",        "int",         "long",
    "mutable",       "namespace",   "new",
    "noexcept",      "not",         "not_eq",
    "nullptr",       "operator",    "or",
    "or_eq",         "private",     "protected",
    "public",        "register",    "reinterpret_cast",
    "requires",      "return",      "short",
    "signed",        "sizeof",      "static",
    "static_assert", "static_cast", "struct",
    "switch",        "template",    "this",
    "thread_local",  "throw",       "true",
    "try",           "typedef",     "typeid",
    "typename",      "union",       "unsigned",
    "using",         "virtual",     "void",
    "volatile",      "wchar_t",     "while",
    "xor",           "xor_eq",
};

constexpr std::string_view kBaseFields[] = {
    "negotiated",    "formatsFetched", "peerReady", "transport",    "sourceRN",   "destinationRN",
    "sendLog",       "receiveLog",     "busy",      "refCount",     "dying",      "retrySet",
    "retryHandler",  "specName",       "tagCount",  "tagNames",     "sideName",   "vstamp",
    "specFlags",     "receiveCount",   "peerName",  "receiveTable", "peerVstamp", "peerFlags",
    "tagMap",        "sendTable",      "sendUp",    "extraTable",   "receiveUp",  "listener",
    "deferredCount",
};

constexpr std::string_view kBaseOperations[] = {
    "addRef",
    "release",
    "setTransport",
    "setRetryHandler",
    "getRetryHandler",
    "setDefaultRetryHandler",
    "setLogs",
    "setSendLog",
    "setReceiveLog",
    "getTransport",
    "getSourceRN",
    "getDestinationRN",
    "getBusy",
    "isNegotiated",
    "getPeerName",
    "getPeerVstamp",
    "sendNegotiate",
    "awaitTags",
    "negotiate",
    "negotiateLocally",
    "awaitNegotiate",
    "fetchFormats",
    "canSend",
    "messageCount",
    "messageName",
    "messageId",
    "peerEntry",
    "closeSend",
    "closeReceive",
    "virtualConnectionClose",
    "handleMessage",
    "isVirtualConnectionUp",
    "virtualConnectionDown",
    "peerRecordTaken",
    "defaultSourceRN",
    "defaultDestinationRN",
    "handleAsciiMessage",
    "handleBinaryMessage",
    "handleCommandMessage",
    "transportFailed",
    "newStubMessage",
    "sendStubMessage",
    "callStubMessage",
};

// Arguments and variables of the generated operations.
constexpr std::string_view kGeneratedNames[] = {
    "wait", "retry", "status", "id", "packet", "reply", "response", "hold", "in", "tag",
};

// Those among which the handlers are called.
constexpr std::string_view kDispatchNames[] = {"id", "packet", "reply", "in"};

// Types, functions and constants of which generated code is made.
constexpr std::string_view kLibraryNames[] = {
    "CountedPtr",    "RNArray",         "RetryHandler",       "STPArray",
    "STPMessage",    "STPMessageEntry", "STPReceivedMessage", "STPSpecClass",
    "STPSpecTables", "STPStatus",       "STPStubBlock",       "STPStubReader",
    "STPStubTrace",  "StringArray",     "gen_text",           "kReceiveTable",
    "kSendTable",    "kTables",         "kTagNames",          "std",
    "stpPutCount",   "stpPutElements",  "stpPutPacked",       "stpPutPath",
    "stpPutPaths",   "stpTraceFailure",
};

template <class Table>
bool contains(const Table& table, std::string_view name) {
  return std::find(std::begin(table), std::end(table), name) != std::end(table);
}

bool isBlockName(std::string_view name) {
  return name.starts_with("block") &&
         name.find_first_not_of("0123456789", 5) == std::string_view::npos;
}

}  // namespace

std::string nameFault(std::string_view name) {
  const std::string quoted = "\"" + std::string(name) + "\"";
  if (name.find('-') != std::string_view::npos) return quoted + " is no name: it has a \"-\"";
  if (name.front() == '_' || name.back() == '_' || name.find("__") != std::string_view::npos)
    return quoted + " is no name: underscores stand between other characters, one at a time";
  if (contains(kReserved, name)) return quoted + " is a reserved word of C++";
  if (isMacroName(name)) return quoted + " is a macro of the system's headers";
  return {};
}

std::string messageFault(std::string_view name) {
  const std::string quoted = "\"" + std::string(name) + "\"";
  if (contains(kBaseFields, name) || contains(kBaseOperations, name))
    return quoted + " is an operation of every spec";
  if (contains(kDispatchNames, name) || contains(kLibraryNames, name))
    return quoted + " means something else in every generated class";
  return {};
}

std::string localName(std::string_view fieldName) {
  const bool taken = contains(kBaseFields, fieldName) || contains(kGeneratedNames, fieldName) ||
                     isBlockName(fieldName);
  return taken ? std::string(fieldName) + "_" : memberName(fieldName);
}

std::string memberName(std::string_view fieldName) {
  return std::string(fieldName) + (contains(kLibraryNames, fieldName) ? "_" : "");
}

}  // namespace stpc
