#include "indgen/library.h"

#include "indgen/report.h"
#include "platform/file.h"

void* gen_load_library(const char* path) {
  return platform::loadLibrary(path);
}

void* gen_library_symbol(void* library, const char* name) {
  return platform::librarySymbol(library, name);
}

void* gen_required_library_symbol(void* library, const char* name) {
  void* symbol = platform::librarySymbol(library, name);
  if (!symbol) gen_error("Could not resolve \"%s\"", name ? name : "");
  return symbol;
}

const char* gen_library_error() {
  return "no additional dynamic library information available";
}
