// The ascii form of a message being built.
#include <cstdio>

#include "stp_transport/message/stp_message.h"

STPMessage::STPMessage(const char* text) : STPMessage() {
  if (text && *text) {
    writeText(text);
    writeText(" ");
  }
  // The end word only needs its room: the bytes behind the cursor are zero.
  const std::int64_t end = cursorOffset();
  writeU32(0);
  setCursor(end);
}

void STPMessage::writeName(const char* name) {
  if (!name) return;
  writeText(name);
  writeText(":");
}

void STPMessage::writeBlockBegin(const char* name) {
  writeName(name);
  writeText("{ ");
}

void STPMessage::writeBlockEnd() {
  writeText(" } ");
}

void STPMessage::writeArrayBegin(std::int32_t size, const char* name) {
  writeName(name);
  if (size >= 0) {
    writeText("(");
    writeInt(static_cast<std::uint32_t>(size));
    writeText(")");
  }
  writeText("[ ");
}

void STPMessage::writeArrayEnd() {
  writeText(" ] ");
}

void STPMessage::writeInt(std::uint32_t value, const char* name) {
  writeName(name);
  char digits[16];
  std::snprintf(digits, sizeof digits, "0x%x ", value);
  writeText(digits);
}

void STPMessage::writeInt64(std::uint64_t value, const char* name) {
  writeName(name);
  char digits[24];
  std::snprintf(digits, sizeof digits, "0x%x%08x ", static_cast<std::uint32_t>(value >> 32),
                static_cast<std::uint32_t>(value));
  writeText(digits);
}

void STPMessage::writeString(const char* text, const char* name) {
  writeName(name);
  if (!text) {
    writeText("null ");
    return;
  }
  writeText("\"");
  std::string_view rest = text;
  for (std::size_t plain; (plain = rest.find_first_of("\\\"\n")) != std::string_view::npos;
       rest.remove_prefix(plain + 1)) {
    writeText(rest.substr(0, plain));
    const char escaped[] = {'\\', rest[plain] == '\n' ? 'n' : rest[plain]};
    writeText({escaped, sizeof escaped});
  }
  writeText(rest);
  writeText("\" ");
}

void STPMessage::writeWord(const char* text, const char* name) {
  writeName(name);
  if (text) writeText(text);
  writeText(" ");
}

void STPMessage::writeQuoted(const char* text, const char* name) {
  writeName(name);
  writeText("\"");
  if (text) writeText(text);
  writeText("\" ");
}
