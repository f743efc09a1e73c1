// The allocator of the suite, and the owner of the texts that the support library gives away.
//
// gen_alloc and gen_realloc never return null for a real request: when memory is exhausted they end
// the process. `operator new` of the program ends it in the same way. What they give is freed with
// gen_free; a text is better held in a gen_text, which frees it by itself.
#pragma once

#include <cstddef>
#include <utility>

/// Zero-filled memory of `count` times `size` bytes, owned by the caller; null for 0 bytes.
extern void* (*gen_alloc)(std::size_t count, std::size_t size);

/// The block resized to `size` bytes. A `size` of 0 frees the block and gives null; a null block
/// gives a fresh zero-filled one. What a growth adds is not cleared.
extern void* (*gen_realloc)(void* block, std::size_t size);

/// Frees a block of gen_alloc or gen_realloc; null is allowed.
void gen_free(void* block);

/// A copy of `size` bytes, owned by the caller; null for a null block or a size of 0.
void* gen_memdup(const void* block, std::size_t size);

/// Makes `operator new` end the process like gen_alloc when memory is exhausted.
void gen_install_new_handler();

/// Move-only owner of a zero-closed text from gen_alloc. It may hold none (null), which is not the
/// same as an empty text.
class gen_text {
 public:
  gen_text() = default;
  /// Takes over a text allocated by gen_alloc, or null.
  explicit gen_text(char* owned) : text_(owned) {}
  gen_text(gen_text&& other) noexcept : text_(std::exchange(other.text_, nullptr)) {}
  gen_text& operator=(gen_text&& other) noexcept {
    if (this != &other) {
      gen_free(text_);
      text_ = std::exchange(other.text_, nullptr);
    }
    return *this;
  }
  gen_text(const gen_text&) = delete;
  gen_text& operator=(const gen_text&) = delete;
  ~gen_text() { gen_free(text_); }

  /// The text, valid while this object holds it; null if it holds none.
  operator const char*() const { return text_; }
  const char* get() const { return text_; }
  /// The same, for changes in place that don't lengthen the text.
  char* data() { return text_; }
  /// Gives the text away: the caller frees it with gen_free.
  char* release() { return std::exchange(text_, nullptr); }

 private:
  char* text_ = nullptr;
};
