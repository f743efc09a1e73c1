#include "indgen/safe_file.h"

#include <cerrno>
#include <cstring>

#include "indgen/access.h"
#include "indgen/report.h"
#include "indgen/text.h"

namespace {

constexpr std::size_t kBufferStep = 250;

gen_text shown(const char* name, const char* description) {
  if (!description) return gen_strdup(name ? name : "file");
  return name ? gen_concat4(description, " '", name, "'") : gen_strdup(description);
}

void reportTransfer(const char* failure, const char* name) {
  if (name)
    gen_errno_report("%s '%s'", failure, name);
  else
    gen_errno_report("%s file", failure);
}

class GrowingText {
 public:
  GrowingText(gen_text& buffer, std::size_t& size) : buffer_(buffer), size_(size) {
    if (!buffer_) size_ = 0;
  }
  void add(int c) { put(length_++, static_cast<char>(c)); }
  const char* close() {
    put(length_, '\0');
    return buffer_;
  }

 private:
  void put(std::size_t place, char c) {
    if (place >= size_) {
      size_ = place + kBufferStep;
      char* old = buffer_.release();
      buffer_ = gen_text(static_cast<char*>(gen_realloc(old, size_)));
    }
    buffer_.data()[place] = c;
  }

  gen_text& buffer_;
  std::size_t& size_;
  std::size_t length_ = 0;
};

bool isSpace(int c) {
  return c != EOF && std::strchr(" \t\n\v\f\r", c) && c != '\0';
}

}  // namespace

std::FILE* gen_safe_fopen(const char* name, const char* description, const char* mode) {
  std::FILE* stream = V_fopen(name, mode);
  if (!stream) {
    const char* direction = mode && std::strchr(mode, 'r') ? "input" : "output";
    const int failure = errno;
    const gen_text what = shown(name, description);
    errno = failure;
    gen_fatal_errno(1, "Unable to open %s for %s: ", what.get(), direction);
  }
  if (std::strchr(mode, 'a')) std::fseek(stream, 0, SEEK_END);
  return stream;
}

long gen_safe_fread(const char* name, void* buffer, std::size_t size, std::size_t count,
                    std::FILE* stream) {
  if (!buffer) {
    gen_error("internal: null buffer passed to gen_safe_fread");
    return -1;
  }
  // The end of the file is no error of the system: an old number must not be blamed for it.
  errno = 0;
  const std::size_t got = std::fread(buffer, size, count, stream);
  if (got < 1) reportTransfer("Error reading from", name);
  return static_cast<long>(got);
}

void* gen_safe_fread_alloc(const char* name, std::FILE* stream, void* buffer, std::size_t size) {
  void* block = buffer ? buffer : gen_alloc(1, size);
  errno = 0;
  if (block && std::fread(block, size, 1, stream) == 1) return block;
  reportTransfer("Error reading from", name);
  if (!buffer) gen_free(block);
  return nullptr;
}

long gen_safe_fwrite(const char* name, const void* data, std::size_t size, std::size_t count,
                     std::FILE* stream) {
  errno = 0;
  const std::size_t put = data ? std::fwrite(data, size, count, stream) : 0;
  if (put < count) reportTransfer("Error writing to", name);
  return static_cast<long>(put);
}

int gen_safe_fclose(const char* name, const char* description, std::FILE* stream) {
  if (stream && std::fclose(stream) == 0) return 0;
  const int failure = stream ? errno : EINVAL;
  const gen_text what = shown(name, description);
  errno = failure;
  gen_errno_report("Error closing %s: ", what.get());
  return EOF;
}

void gen_safe_fseek(const char* name, std::FILE* stream, long offset, int whence) {
  if (std::fseek(stream, offset, whence) == 0) return;
  if (name) gen_fatal_errno(1, "seek failed to %ld in '%s'", offset, name);
  gen_fatal_errno(1, "seek failed to %ld in file", offset);
}

const char* gen_read_line(std::FILE* stream, gen_text& buffer, std::size_t& size) {
  int c = std::getc(stream);
  if (c == EOF) return nullptr;
  GrowingText line(buffer, size);
  for (; c != EOF && c != '\n' && c != '\r'; c = std::getc(stream)) line.add(c);
  if (c == '\r') std::getc(stream);
  return line.close();
}

const char* gen_read_word(std::FILE* stream, gen_text& buffer, std::size_t& size) {
  int c = std::getc(stream);
  while (isSpace(c)) c = std::getc(stream);
  if (c == EOF) return nullptr;
  GrowingText word(buffer, size);
  for (; c != EOF && !isSpace(c); c = std::getc(stream)) word.add(c);
  return word.close();
}

long gen_count_lines(const char* path) {
  std::FILE* stream = V_fopen(path, "r");
  if (!stream) return -1;
  gen_text line;
  std::size_t size = 0;
  long count = 0;
  while (gen_read_line(stream, line, size)) ++count;
  const bool failed = std::ferror(stream) != 0;
  std::fclose(stream);
  return failed ? -1 : count;
}
