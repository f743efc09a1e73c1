#include "indgen/memory.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "indgen/report.h"
#include "platform/file.h"

namespace {

constexpr int kErrorDescriptor = 2;
constexpr int kOutOfMemoryStatus = 3;

// Straight to the descriptor: a buffered stream may want to allocate.
void writeRaw(const char* text) {
  platform::writeDescriptor(kErrorDescriptor, text, std::strlen(text));
}

[[noreturn]] void outOfMemory() {
  if (program_name && *program_name) {
    writeRaw(program_name);
    writeRaw(": ");
  }
  writeRaw("fatal: Out of memory\n");
  gen_exit(kOutOfMemoryStatus);
}

void* allocate(std::size_t count, std::size_t size) {
  if (count == 0 || size == 0) return nullptr;
  void* block = std::calloc(count, size);
  if (!block) outOfMemory();
  return block;
}

void* reallocate(void* block, std::size_t size) {
  if (size == 0) {
    gen_free(block);
    return nullptr;
  }
  if (!block) return gen_alloc(1, size);
  void* resized = std::realloc(block, size);
  if (!resized) outOfMemory();
  return resized;
}

}  // namespace

void* (*gen_alloc)(std::size_t count, std::size_t size) = allocate;
void* (*gen_realloc)(void* block, std::size_t size) = reallocate;

void gen_free(void* block) {
  std::free(block);
}

void* gen_memdup(const void* block, std::size_t size) {
  if (!block || size == 0) return nullptr;
  return std::memcpy(gen_alloc(1, size), block, size);
}

void gen_install_new_handler() {
  std::set_new_handler(outOfMemory);
}
