#include "hublink_plugin/interface_codec.h"

#include "indgen/find.h"

namespace hublink {

void FieldWriter::put(std::int32_t tag, const std::string& text) {
  if (!takesBytes(text.size())) return;
  if (text.find('\0') != std::string::npos) {
    fault_ = Failure::badValue;
    return;
  }
  message_.putText(tag, text);
}

void FieldWriter::path(std::int32_t tag, const std::string& path) {
  if (path.find('\0') == std::string::npos)
    put(tag, std::string(gen_absolute_path(path.c_str()).get()));
  else
    fault_ = Failure::badValue;
}

void FieldWriter::path(std::int32_t tag, const std::optional<std::string>& path) {
  if (path)
    this->path(tag, *path);
  else
    message_.putString(tag, nullptr);
}

bool FieldWriter::takesBytes(std::size_t bytes) {
  const std::int64_t room = STP_MAX_PACKET_SIZE - message_.cursorOffset();
  if (room >= 0 && bytes <= static_cast<std::size_t>(room)) return true;
  fault_ = Failure::tooLarge;
  return false;
}

std::optional<Failure> FieldWriter::fault() const {
  if (fault_) return fault_;
  if (!stpFitsPacket(message_.cursorOffset())) return Failure::tooLarge;
  return std::nullopt;
}

std::optional<std::string> FieldReader::textIfThere(std::int32_t tag) {
  std::optional<std::string> text;
  if (tag >= 0) get(tag, text);
  return text;
}

}  // namespace hublink
