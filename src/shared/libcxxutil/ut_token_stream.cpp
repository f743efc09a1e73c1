#include "libcxxutil/ut_token_stream.h"

#include <algorithm>
#include <cstdarg>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/format.h"
#include "indgen/path.h"
#include "indgen/text.h"
#include "libcxxutil/ut_continued_line.h"

namespace {

constexpr char kDirectiveChar = '%';

// What one reading may cost besides its input and work: every file takes some more input for being
// opened, and files stand within files only so deep.
constexpr std::size_t kFileCost = 4096;
constexpr std::size_t kDeepestInclude = 64;
// Bytes that are read at a time.
constexpr std::size_t kChunk = 4096;

// Room for a line's tokens, by the line's length: expansion seldom takes more.
constexpr std::size_t kTokenRoomFactor = 3;
constexpr std::size_t kTokenRoom = 512;

}  // namespace

ut_token_stream::ut_token_stream(bool fatal_errors, bool filename_tokens,
                                 ut_macro_table* parent_macros,
                                 const ut_preprocessor_callbacks* callbacks)
    : fatal_errors_(fatal_errors),
      filename_tokens_(filename_tokens),
      input_left_(kMostReadingInput),
      budget_(kMostReadingWork),
      preprocessor_(std::make_unique<simple_preprocessor>(
          kDirectiveChar, parent_macros, callbacks, budget_,
          [this](const char* message) { error("%s", message); })),
      callbacks_(callbacks) {}

bool ut_token_stream::open(const char* file) {
  if (!file || !main_file_.empty()) return false;
  main_file_ = file;
  return openFile(file);
}

bool ut_token_stream::open(const char* file, std::FILE* stream) {
  File opened;
  opened.stream.reset(stream);
  if (!file || !stream || !main_file_.empty()) return false;
  main_file_ = file;
  return enterFile(file, std::move(opened));
}

const char* ut_token_stream::position() {
  if (!files_.empty())
    position_text_ =
        gen_asprintf("\"%s\", line %d", files_.back().name.c_str(), files_.back().line_start);
  else if (last_line_ > 0)
    position_text_ = gen_asprintf("\"%s\", line %d", last_file_.c_str(), last_line_);
  else
    position_text_ = gen_strdup("");
  return position_text_;
}

void ut_token_stream::error(const char* format, ...) {
  had_error_ = true;
  std::va_list arguments;
  va_start(arguments, format);
  const gen_text message = gen_vasprintf(format, arguments);
  va_end(arguments);
  if (!fatal_errors_) {
    gen_error("%s: error: %s", position(), message.get());
    return;
  }
  gen_raw("%s: error: %s", position(), message.get());
  gen_exit(1);
}

// Ends the input with a word about the reason. Only once: what fails afterwards follows from it.
void ut_token_stream::giveUp(const char* reason) {
  if (!gave_up_) error("%s, giving up", reason);
  gave_up_ = input_ended_ = true;
  line_frames_.clear();
}

bool ut_token_stream::openFile(const char* name) {
  if (input_left_ < kFileCost) {
    giveUp("too much input");
    return false;
  }
  if (!gen_is_regular_file(name)) return false;
  File file;
  file.stream.reset(V_fopen(name, "rt"));
  return file.stream && enterFile(name, std::move(file));
}

bool ut_token_stream::enterFile(const char* name, File file) {
  std::setvbuf(file.stream.get(), nullptr, _IONBF, 0);  // chunks are buffer enough
  if (!readChunk(file) && std::ferror(file.stream.get())) return false;
  input_left_ -= kFileCost;
  file.name = name;
  file.directory = gen_directory_name(name);
  files_.push_back(std::move(file));
  opened_files_.emplace_back(name);
  preprocessor_->define_macro("__DIR__", files_.back().directory);
  return true;
}

void ut_token_stream::closeFile() {
  last_file_ = files_.back().name;
  last_line_ = std::max(files_.back().line_next - 1, 1);
  files_.pop_back();
  if (!files_.empty()) preprocessor_->define_macro("__DIR__", files_.back().directory);
}

// Gets the next line that is delivered into a line frame; false at the end of the input.
bool ut_token_stream::readLogicalLine() {
  while (!input_ended_ && !files_.empty()) {
    files_.back().line_start = files_.back().line_next;
    for (bool sameDelivery = true; sameDelivery && !input_ended_;) {
      if (!readRawLine(files_.back())) {
        if (!input_ended_) closeFile();
        break;
      }
      if (line_buffer_.empty() || line_buffer_.front() != kDirectiveChar) {
        if (preprocessor_->is_skipping()) continue;
        token_buffer_.clear(kTokenRoomFactor * line_buffer_.size() + kTokenRoom);
        line_frames_.push_back({ut_string(), ut_string(), line_buffer_.c_str()});
        return true;
      }
      preprocessor_->process_directive(line_buffer_.c_str());
      if (budget_.exhausted())
        giveUp("macros and messages take too much work");
      else if (!preprocessor_->is_skipping() && preprocessor_->has_pending_include())
        sameDelivery = followInclude();
    }
  }
  return false;
}

// Opens the file that the last directive named. The reading goes on with another delivery, in the
// new file or, if the callbacks refuse it, in the old one.
bool ut_token_stream::followInclude() {
  const gen_text path = gen_join(files_.back().directory, preprocessor_->pending_include());
  if (callbacks_ && callbacks_->include_filter &&
      !callbacks_->include_filter(callbacks_->context, path, static_cast<int>(files_.size())))
    return false;
  if (files_.size() >= kDeepestInclude) {
    giveUp("includes are nested too deeply");
  } else if (!openFile(path) && !gave_up_) {
    gen_error("could not open \"%s\" which was referenced at \"%s\":%d", path.get(),
              files_.back().name.c_str(), files_.back().line_next);
    input_ended_ = true;
  }
  return false;
}

// Reads a line with those that continue it; false at the end of the file.
bool ut_token_stream::readRawLine(File& file) {
  const auto add = [&] { return readPhysicalLine(file); };
  return ut_read_continued_line(line_buffer_, add) && !gave_up_;
}

// False at the end of the file.
bool ut_token_stream::readChunk(File& file) {
  std::FILE* stream = file.stream.get();
  file.place = 0;
  file.chunk.resize(std::feof(stream) ? 0 : kChunk);
  file.chunk.resize(std::fread(file.chunk.data(), 1, file.chunk.size(), stream));
  return !file.chunk.empty();
}

// Adds a line to the buffer. False, with nothing added, at the end of the file.
bool ut_token_stream::readPhysicalLine(File& file) {
  const auto hasMore = [&] { return file.place < file.chunk.size() || readChunk(file); };
  if (!hasMore()) return false;
  ++file.line_next;
  while (hasMore()) {
    if (input_left_ == 0) {
      giveUp("too much input");
      return true;
    }
    const std::string_view rest = std::string_view(file.chunk).substr(file.place, input_left_);
    const std::size_t newline = rest.find('\n');
    const std::size_t end = std::min(rest.substr(0, newline).find('\r'), newline);
    const std::string_view line = rest.substr(0, end);
    line_buffer_ += line;
    const std::size_t used = line.size() + (end == rest.npos ? 0 : 1);
    file.place += used;
    input_left_ -= used;
    if (end == rest.npos) continue;
    if (rest[end] == '\r' && hasMore()) ++file.place;
    return true;
  }
  return true;
}
