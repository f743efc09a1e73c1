// Formatted printing into a new text of exactly the right size.
#include <algorithm>
#include <cstring>
#include <type_traits>

#include "indgen/format.h"

namespace {

// Collects a text: the start in the frame of the call, what doesn't fit on the heap.
class TextCollector {
 public:
  TextCollector() = default;
  TextCollector(const TextCollector&) = delete;
  TextCollector& operator=(const TextCollector&) = delete;
  ~TextCollector() { gen_free(heap_); }

  static void sink(void* context, const char* text, std::size_t length) {
    static_cast<TextCollector*>(context)->add(text, length);
  }

  gen_text text() const {
    gen_text result(static_cast<char*>(gen_alloc(fixedUsed_ + heapUsed_ + 1, 1)));
    std::memcpy(result.data(), fixed_, fixedUsed_);
    if (heapUsed_ > 0) std::memcpy(result.data() + fixedUsed_, heap_, heapUsed_);
    return result;
  }

 private:
  void add(const char* text, std::size_t length) {
    const std::size_t fitting = std::min(length, sizeof fixed_ - fixedUsed_);
    std::memcpy(fixed_ + fixedUsed_, text, fitting);
    fixedUsed_ += fitting;
    const std::size_t rest = length - fitting;
    if (rest == 0) return;
    if (rest > heapCapacity_ - heapUsed_) {
      heapCapacity_ = (rest + heapCapacity_) * 2;
      heap_ = static_cast<char*>(gen_realloc(heap_, heapCapacity_));
    }
    std::memcpy(heap_ + heapUsed_, text + fitting, rest);
    heapUsed_ += rest;
  }

  char fixed_[1024];
  std::size_t fixedUsed_ = 0;
  char* heap_ = nullptr;
  std::size_t heapUsed_ = 0;
  std::size_t heapCapacity_ = 0;
};

// A list is a pointer on some platforms and a value that can't be null on others.
template <class List>
bool isNullList(List list) {
  if constexpr (std::is_pointer_v<List>)
    return list == nullptr;
  else
    return false;
}

}  // namespace

gen_text gen_asprintf(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gen_text result = gen_vasprintf(format, arguments);
  va_end(arguments);
  return result;
}

gen_text gen_vasprintf(const char* format, std::va_list arguments) {
  if (!format) {
    gen_error("[gen_asprintf]: Format was NULL (illegal).");
    return gen_text();
  }
  if (isNullList(arguments)) {
    gen_error("[gen_asprintf]: vlist was NULL (illegal).");
    return gen_text();
  }
  TextCollector collector;
  gen_format(format, arguments, &collector, TextCollector::sink);
  return collector.text();
}
