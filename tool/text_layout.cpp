#include "tool/text_layout.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool {

namespace {

constexpr std::size_t kDefaultWidth = 80;

// The number of characters: UTF-8 continuation bytes do not count.
std::size_t displayWidth(std::string_view text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](unsigned char c) { return (c & 0xC0) != 0x80; }));
}

} // namespace

std::string formatColumns(std::vector<std::vector<std::string>> rows) {
    std::vector<std::size_t> widths;
    std::vector<bool> right;
    for (std::string& heading : rows.front()) {
        right.push_back(heading.starts_with('>'));
        if (right.back()) {
            heading.erase(0, 1);
        }
    }
    widths.resize(right.size());
    for (const std::vector<std::string>& row : rows) {
        for (std::size_t column = 0; column < row.size(); column++) {
            widths[column] = std::max(widths[column], displayWidth(row[column]));
        }
    }
    std::string text;
    for (const std::vector<std::string>& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); column++) {
            const std::string padding(widths[column] - displayWidth(row[column]), ' ');
            line +=
                (column == 0 ? "" : "  ") + (right[column] ? padding + row[column] : row[column] + padding);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

std::string formatParagraph(std::string_view text, std::size_t width, std::size_t indent) {
    std::string paragraph;
    std::string line;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(' '), text.size());
        const std::string_view word = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.empty()) {
            line = std::string(indent, ' ').append(word);
        } else if (displayWidth(line) + 1 + displayWidth(word) <= width) {
            line.append(" ").append(word);
        } else {
            paragraph += line + "\n";
            line = std::string(indent, ' ').append(word);
        }
    }
    return line.empty() ? paragraph : paragraph + line + "\n";
}

std::size_t terminalWidth() {
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kDefaultWidth;
}

} // namespace tool
