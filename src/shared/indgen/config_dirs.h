// Where the configuration lies: the defaults that come with the program, the installation's own
// configuration, and the user's.
//
// A program runs from an installed tree, which has `defaults` and `config` in the program's
// directory, or from a development layout, which has them in the source tree next to it. What is
// worked out is kept until the process ends or gen_reset_config_dirs; the texts are the module's.
// They are changed only while one thread runs.
#pragma once

#include "indgen/memory.h"

bool gen_is_development_layout();

/// Neither directory need exist.
const char* gen_defaults_dir();
const char* gen_config_dir();

/// The user's directory. With `create` it is made if it is missing; if that fails, `error`, unless
/// null, gets the reason. Without a home of the user it is `KVX` in the working directory.
const char* gen_user_config_dir(bool create, gen_text* error);
/// Replaces the user's directory; an empty or null path changes nothing.
void gen_set_user_config_dir(const char* path);
/// Has the three directories computed anew when they are next asked for.
void gen_reset_config_dirs();

/// The full path of a configuration file: the first that has the access of `mode` (as for V_access)
/// in the user's directory, the installation's, and the defaults, or with `defaults_only` in the
/// last alone. An absolute name is only tested. None if there is no such file.
gen_text gen_find_config_file(const char* name, int mode, bool defaults_only);

/// The configuration file of the tool `name` in `directory`: with `check_override` its file in
/// `override`, else `kvx.cfg`, else with `use_name` its own. The last choice need not exist.
gen_text gen_select_config_file(const char* directory, const char* name, bool use_name,
                                bool check_override);
