// Any text is read in the ascii form, by every kind of read.
#include <string>

#include "stp_transport/message/stp_received_message.h"

namespace {

void readAll(STPReceivedMessage& message, int depth) {
  STPReceivedMessage::Mark mark;
  std::int32_t length = 0;
  for (int i = 0; i < 20; ++i) {
    message.readInt("flags");
    message.readString("vstamp");
    message.readWord("name", &length);
    message.readQuoted("fmt", &length);
    message.readInt64("id");
    message.peekWord(&length);
    if (depth < 4) {
      message.enterArray(&mark, "msgs");
      readAll(message, depth + 1);
      message.leaveArray(&mark);
      message.enterBlock(&mark);
      readAll(message, depth + 1);
      message.leaveBlock(&mark);
    }
    message.nextValue();
    char* name = nullptr;
    if (!message.nextField(&name)) break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  STPReceivedMessage message(text.c_str());
  readAll(message, 0);
  return 0;
}
