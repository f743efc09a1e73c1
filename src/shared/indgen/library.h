// Dynamic libraries.
#pragma once

/// A handle on the loaded library, which stays loaded; null for a failure.
void* gen_load_library(const char* path);
/// The address of a symbol, or null.
void* gen_library_symbol(void* library, const char* name);
/// The same; a missing symbol is reported as an error.
void* gen_required_library_symbol(void* library, const char* name);
/// What is known of the last failure.
const char* gen_library_error();
