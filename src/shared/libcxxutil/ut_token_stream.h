// The tokens of a configuration file, with its includes, conditions and macros worked out.
//
// A stream serves one reading: it is opened once, drained, and destroyed, which closes its files.
// It owns its preprocessor; the parent table and the callbacks belong to the caller and outlive it.
//
// Whatever the files hold, a reading ends: what they and their includes bring in, how deep they
// include and what their macros cause is bounded. A reading that meets such a bound says so once,
// and its input is then at an end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "indgen/memory.h"
#include "indgen/report.h"
#include "libcxxutil/simple_preprocessor.h"
#include "libcxxutil/ut_token_buffer.h"

class ut_token_stream {
 public:
  /// With `fatal_errors` an error ends the process with status 1. With `filename_tokens` a run of
  /// letters, digits, `_` and `/` is one token.
  ut_token_stream(bool fatal_errors, bool filename_tokens, ut_macro_table* parent_macros,
                  const ut_preprocessor_callbacks* callbacks);
  ut_token_stream(const ut_token_stream&) = delete;
  ut_token_stream& operator=(const ut_token_stream&) = delete;

  /// False if a file was opened before, or this one can't be; a directory can't.
  bool open(const char* file);
  /// The same for a stream on it, which is this one's from now on.
  bool open(const char* file, std::FILE* stream);
  const char* main_file() const { return main_file_.c_str(); }

  /// The next token, or null at the end of the input. A string keeps its quotes and escapes; it has
  /// no closing quote if its line has none. Valid until the next line is read.
  char* next_token();
  /// Whether no further token stands on the line; reads no new one.
  bool at_end_of_line();
  /// Whether there is no further token at all.
  bool at_end_of_input();
  /// Takes the coming characters, behind blanks, if they are `text`.
  bool accept(const char* text);
  /// Resolves the escapes of a string token in place and gives the text within; null if `token`
  /// isn't the last token or is no string.
  char* unescape_string(char* token);

  /// `"file", line N`; at the end of the input the file read last, with its last line; empty before
  /// a file is open. Valid until the next call.
  const char* position();
  /// Reports an error at this position.
  void error(const char* format, ...) GEN_PRINTF(2, 3);
  bool had_error() const { return had_error_; }
  /// Whether the reading was ended by one of its bounds, which has been reported.
  bool gave_up() const { return gave_up_; }
  /// Whether the input has ended before its end: so, or by an include that can't be opened.
  bool cut_short() const { return input_ended_; }

  /// Every file opened, in order.
  const std::vector<std::string>& opened_files() const { return opened_files_; }

 private:
  struct CloseFile {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
  };
  struct File {
    std::string name;
    gen_text directory;
    std::unique_ptr<std::FILE, CloseFile> stream;
    std::string chunk;  // of the file, taken up to `place`
    std::size_t place = 0;
    int line_start = 0;
    int line_next = 1;
  };
  // A text that tokens are taken from: a line of a file, with an empty key, or a macro's value.
  struct LineFrame {
    ut_string key;
    ut_string value;  // keeps the macro's text alive
    const char* cursor;
    bool noBrace = false;  // no `}` stands anywhere behind the cursor
  };

  bool openFile(const char* name);
  bool enterFile(const char* name, File file);
  void closeFile();
  bool readLogicalLine();
  bool readRawLine(File& file);
  static bool readChunk(File& file);
  bool readPhysicalLine(File& file);
  bool followInclude();
  void giveUp(const char* reason);

  bool moveToToken();
  void readString();
  bool stringMacro(LineFrame& frame);
  const char* closingBrace(LineFrame& frame);
  bool pushMacro(const ut_string& name, bool complain);
  bool expandInString(const ut_string& name, bool complain);
  void copyExpanded();
  void popFrame();

  const bool fatal_errors_, filename_tokens_;
  bool had_error_ = false, no_line_reading_ = false;
  bool gave_up_ = false, input_ended_ = false;
  std::string main_file_;
  gen_text position_text_;
  std::vector<std::string> opened_files_;
  std::vector<File> files_;             // the innermost last
  std::vector<LineFrame> line_frames_;  // the one being read last
  std::string line_buffer_;
  ut_token_buffer token_buffer_;
  std::size_t input_left_;
  std::string last_file_;  // the file that was closed last, and its last line
  int last_line_ = 0;
  ut_work_budget budget_;
  std::unique_ptr<ut_simple_preprocessor_interface> preprocessor_;
  const ut_preprocessor_callbacks* callbacks_;
};
