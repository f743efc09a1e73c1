// Texts from elsewhere, made fit for a terminal.
#pragma once

#include <string>
#include <string_view>

/// The text with nothing in it that acts on a terminal: a line feed becomes `\n`, a tabulator `\t`,
/// and each byte of another control character, of one that changes the direction or the line of
/// writing, and of what is no UTF-8, `\xNN`.
std::string gen_printable(std::string_view text);
