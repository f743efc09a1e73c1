// A small profiler for long-running tools: how much processor time and memory each named pass took,
// by itself and with the passes inside it.
//
// Passes nest and end in the reverse order of their starts; wrong use fails an assertion, which
// ends the process. Up to 30 names are told apart. The records are owned here, the names by the
// caller, and all of it belongs to one thread.
#pragma once

#include <cstdint>
#include <cstdio>

/// Bytes that the program holds, by its own reckoning. Nothing in the library counts them: a
/// program that wants the memory table keeps it up to date, else all its figures are 0.
extern std::int64_t allocated_bytes;

/// Begins a pass. The text isn't copied and must outlive the reports. A null name, and the name of
/// a pass that hasn't ended yet, begin a nameless pass, whose span is hidden from all passes around
/// it; it ends with a null name.
void gen_pass_start(const char* name);
/// Ends the pass that was begun last, which must have this name.
void gen_pass_end(const char* name);

/// Print the table of all passes, in milliseconds or in bytes, those that took most by themselves
/// first. No pass may be open.
void gen_pass_report_time(std::FILE* stream);
void gen_pass_report_memory(std::FILE* stream);
