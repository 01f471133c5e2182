// Tables and paragraphs for a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Rows of columns, each as wide as its widest cell; the first row is the heading. Columns whose heading
// starts with '>' are right-aligned.
std::string formatColumns(std::vector<std::vector<std::string>> rows);

// The words of `text` in lines of at most `width` characters, indented by `indent` spaces. A longer word has
// a line of its own.
std::string formatParagraph(std::string_view text, std::size_t width, std::size_t indent);

// Of standard output: 80 when that is no terminal.
std::size_t terminalWidth();

} // namespace tool
