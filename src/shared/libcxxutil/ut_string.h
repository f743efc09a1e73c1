// A reference-counted text: a single pointer to zero-closed characters, with a word in front of
// them that tells the references and the form of the block.
//
// Copies share a block. A shared block is never written into: the first write after sharing makes a
// growable block of its own, and appends to that cost one copy in every doubling. Counts are plain
// integers: a string and its copies belong to one thread at a time. Positions and counts are
// signed; those outside the text are taken as each operation says.
#pragma once

#include <cstdint>

class ut_string {
 public:
  using Size = std::int32_t;

  /// The null string, which reads as empty.
  ut_string();
  /// A copy of `text`; none gives the null string, an empty text the empty string.
  ut_string(const char* text);
  /// The same of up to `length` characters; a length below 1 gives the empty string.
  ut_string(const char* text, Size length);
  ut_string(const ut_string& other);
  ut_string(ut_string&& other) noexcept;
  ~ut_string();

  ut_string& operator=(const ut_string& other);
  ut_string& operator=(ut_string&& other) noexcept;
  /// `text` may lie within this string.
  ut_string& operator=(const char* text);

  /// Makes the value `a` followed by `b`; none counts as empty, two nones as none. Both may lie
  /// within this string.
  void assign(const char* a, const char* b);

  /// Appends up to `length` characters. None, a length below 1, or a zero character do nothing. The
  /// text may lie within this string.
  void append(const char* text, Size length);
  void append(const char* text);
  void append(const ut_string& other);
  void append(char c);
  /// Appends the text in `"` quotes, with a `\` before each `\` and `"`; an empty text gives `""`,
  /// none does nothing.
  void append_quoted(const char* text, Size length);
  /// The same if the text holds a blank, a `"` or a `'`, else as it is.
  void append_quoted_if_needed(const char* text, Size length);

  /// Sets one character within the text; a zero ends the text there.
  void set_char(Size index, char c);
  /// Sets one character and gives the one that stood there; 0 and no change outside the text.
  char exchange_char(Size index, char c);
  /// Removes `count` characters, or what there is of them behind `index`.
  void erase(Size index, Size count);
  /// Puts `text` in place of `count` characters, or what there is of them. `index` may be the end
  /// of the text; beyond it nothing happens. None counts as empty. `text` may lie within this
  /// string.
  void replace(Size index, Size count, const char* text);

  /// `count` characters from `index` on; a negative count, or one past the end, takes the rest. An
  /// index outside the text gives the null string. All of the text shares this string's block.
  ut_string substring(Size index, Size count = -1) const;
  /// Copies up to `count` characters from `index` on to `buffer` and returns how many; a count of
  /// -1 takes the rest, with its closing zero, which isn't counted.
  Size copy_out(char* buffer, Size count, Size index) const;

  Size length() const;
  /// Whether this is the null string.
  bool is_null() const;
  /// The characters, zero-closed, valid until the next change of this string; never null.
  const char* c_str() const { return text_; }
  operator const char*() const { return text_; }

  /// Order of the bytes; none equals the empty text.
  friend bool operator==(const ut_string& a, const ut_string& b) { return a.compare(b.text_) == 0; }
  friend bool operator==(const ut_string& a, const char* b) { return a.compare(b) == 0; }
  friend bool operator<(const ut_string& a, const ut_string& b) { return a.compare(b.text_) < 0; }
  friend bool operator<(const ut_string& a, const char* b) { return a.compare(b) < 0; }

  /// Index for `text` in a table of `size` places; 0 for none, an empty text or no places.
  static std::uint32_t hash(const char* text, std::uint32_t size);

 private:
  int compare(const char* other) const;
  bool isWritable(Size added) const;
  char* grown(Size added) const;
  void adopt(char* block);
  void makeWritable();
  void setLength(Size length);

  char* text_;
};
