#include "stp_transport/spec/stp_stub_support.h"

#include "indgen/find.h"

namespace {

constexpr std::uint32_t kLineFlag = 1;

}  // namespace

STPReceivedMessage::Count STPStubReader::countOf(const void* array) const {
  for (const auto& [counted, count] : counts_)
    if (counted == array) return count;
  return {};
}

void* STPStubReader::keep(void* block) {
  if (block) kept_.emplace_back(block);
  return block;
}

std::int32_t STPStubReader::lesserCount(std::int32_t count, std::int32_t made) {
  return static_cast<std::uint32_t>(count) < static_cast<std::uint32_t>(made) ? count : made;
}

void stpPutPath(STPMessage& message, std::int32_t tag, const char* path) {
  if (path)
    message.putString(tag, gen_absolute_path(path));
  else
    message.putString(tag, nullptr);
}

void stpPutPaths(STPMessage& message, const StringArray& array) {
  stpPutCount(message, STP_TAG_ARRAY_COUNT, array);
  for (std::int32_t i = 0; i < array.count; ++i)
    stpPutPath(message, STP_TAG_ARRAY_ELEMENT, array.data[i]);
}

STPStubTrace::STPStubTrace(STPLog& log, const STPSpecClass* spec, const char* heading)
    : log_(log), spec_(spec) {
  log_.begin(spec_, kLineFlag);
  log_.write(heading);
}

STPStubTrace::~STPStubTrace() {
  log_.write("\n");
  log_.end(spec_, kLineFlag);
}

STPStubTrace& STPStubTrace::open(const char* name) {
  writeName(name);
  log_.write("{");
  ++depth_;
  separated_ = true;
  return *this;
}

STPStubTrace& STPStubTrace::close() {
  log_.write("}");
  --depth_;
  separated_ = false;
  return *this;
}

void STPStubTrace::writeName(const char* name) {
  if (!separated_) log_.write(depth_ > 0 ? " " : ", ");
  separated_ = false;
  log_.write(name);
  log_.write(":");
}

void STPStubTrace::writeValue(const char* value) {
  log_.printf("\"%s\"", value ? value : "");
}

void STPStubTrace::writeValue(std::uint64_t value) {
  log_.printf("0x%llx", static_cast<unsigned long long>(value));
}

void stpTraceFailure(STPLog& log, const STPSpecClass* spec, const char* messageName) {
  log.begin(spec, kLineFlag);
  log.printf("SEND FAILED: %s\n", messageName);
  log.end(spec, kLineFlag);
}
