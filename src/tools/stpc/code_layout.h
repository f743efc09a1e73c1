// Lines of code that fit into the width of a page, and texts in it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace stpc {

/// `head`, the parts in parentheses, and `tail`, indented by `indent`, with a line end. Parts that
/// don't fit on the line go on below the first.
std::string callLines(int indent, const std::string& head, const std::vector<std::string>& parts,
                      const std::string& tail);
/// `head` and the links of a chain of calls on it: on one line, or each on one of its own.
std::string chainLines(int indent, const std::string& head, const std::vector<std::string>& links);
/// Words one after the other, each with a comma behind it, in lines that are filled.
std::string wordLines(int indent, const std::vector<std::string>& words);
/// One line, and whether it would fit.
std::string codeLine(int indent, const std::string& text);
bool fitsLine(int indent, const std::string& text);

/// `text` in quotes, with what would end or change it escaped: the same in every language here.
std::string textLiteral(std::string_view text);

}  // namespace stpc
