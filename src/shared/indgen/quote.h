// Quotes around texts and escapes in them, in both directions.
//
// A null text gives none (or false) everywhere.
#pragma once

#include "indgen/memory.h"

/// The text in `"` or `'` quotes, with a `\` before each `\`, `"` and `'`.
gen_text gen_quote(const char* text);
gen_text gen_single_quote(const char* text);

/// Without quotes: a `\` before each `\`, `"` and `'`; line feed, carriage return, tab and the
/// characters 1, 2 and 3 as `\n`, `\r`, `\t`, `\1`, `\2` and `\3`.
gen_text gen_escape(const char* text);

/// The inverse. A text that starts with `'` loses it and a closing `'`, unchanged otherwise; one
/// that starts with `"` loses it, gets its escapes resolved and ends at the next unescaped `"`; any
/// other is copied.
gen_text gen_unquote(const char* text);

/// Resolves the escapes of `text` in place, up to the first unescaped `"`, which becomes the
/// closing zero. Gives the number of characters that it wrote; a zero byte among them (`\0`)
/// counts. Null gives 0.
std::size_t gen_unescape(char* text);

/// Whether the text holds a space, a tab or a `"`.
bool gen_needs_quotes(const char* text);

/// A text that needs quotes in them: as gen_quote gives it with `double_quotes`, else unchanged
/// between `'`. Any other is copied.
gen_text gen_quote_if_needed(const char* text, bool double_quotes);
