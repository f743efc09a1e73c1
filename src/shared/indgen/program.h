// The running program: start-up of the support library, where the program lies, and where its user
// keeps settings.
//
// The values are worked out once, on the main thread, and held until the process ends. The name
// that stands before every report, `program_name`, is set here and owned by report.h.
#pragma once

#include "indgen/memory.h"

/// Full path of the executable; set by gen_initialise().
extern gen_text program_path;
/// True on a machine whose numbers have their highest byte first; set by gen_initialise().
extern bool gen_big_endian;

/// Starts the support library; the first call of a program. The view path is off: a program that
/// wants one starts it afterwards.
void gen_initialise();

/// The directory of the executable, in full form.
const char* gen_program_dir();
/// The directory under which the user's settings lie, made if it was missing; null if there is
/// none.
const char* gen_user_home();
