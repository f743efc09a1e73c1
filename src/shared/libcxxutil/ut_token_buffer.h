// The tokens of one logical line, one behind the other, each closed by a zero byte.
//
// A finished token keeps its address until clear(), however many follow it: when the block is full,
// only the token being written moves on to the next one.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

class ut_token_buffer {
 public:
  /// Forgets all tokens, and makes sure that `room` bytes of tokens fit into one block.
  void clear(std::size_t room);
  /// Starts a token; one that wasn't finished is dropped.
  void begin() { used_ = start_; }
  void put(char c);
  void put(std::string_view text);
  /// Closes the token and gives it.
  char* finish();
  /// The last finished token; null if there is none.
  char* last() const { return last_; }

 private:
  void grow(std::size_t needed);

  std::vector<std::unique_ptr<char[]>> full_;  // blocks that hold earlier tokens of the line
  std::unique_ptr<char[]> block_;
  std::size_t capacity_ = 0, start_ = 0, used_ = 0;
  char* last_ = nullptr;
};
