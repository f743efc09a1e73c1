// Commands as one text, and their way to and from argument vectors.
//
// A vector is closed by a null; its first entry names the program. The quoting rule: an argument
// with a blank, a `"` or a `&` stands between `"`, a `"` in it is written `\"`, and a `\` at its
// end is doubled. Nothing here starts or looks for a program.
#pragma once

#include <string>
#include <vector>

#include "indgen/memory.h"

/// The value of `COMSPEC` if `name` has the extension `bat` and the variable is set, else null:
/// what a batch file is started with. Valid until the variable changes.
const char* gen_batch_processor(const char* name);

/// A vector as one text by the quoting rule, the command processor in front of it if both `program`
/// and the first entry are batch files. An empty argument leaves only its blank. None for an empty
/// or absent vector.
gen_text gen_command_line(const char* program, const char* const* argv);

/// Reads a command as people write it: `cd DIRECTORY;` if it is wanted, then the program, between
/// `"` if its name has blanks, then its arguments. `directory` becomes none without a `cd`. A batch
/// file gets its command processor. False, with nothing stored, for a command without a program, a
/// `cd` without a command behind it and a `"` without its end.
bool gen_read_command(const char* command, gen_text& directory, gen_text& command_line);

/// A command line as arguments, the inverse of the quoting rule: cut at blanks and tabs outside
/// `"`. In the program's name a `\` is only itself.
std::vector<std::string> gen_cut_command_line(const char* command_line);
