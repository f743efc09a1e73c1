// Any bytes are a configuration file.
#include "fuzz/options_input.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  static const OptionsInput input;
  if (!input.check(reinterpret_cast<const char*>(data), size)) std::abort();
  return 0;
}
