#include "tool/report.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fmt/format.h>
#include <unistd.h>

namespace tool {

namespace {

constexpr std::int64_t kProgressIntervalMs = 200;

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Characters on the screen: continuation bytes of UTF-8 take no place.
std::size_t displayWidth(const std::string& text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](unsigned char c) { return (c & 0xC0) != 0x80; }));
}

} // namespace

void Report::add(std::string key, Json value, std::string label, std::string text) {
    json_[std::move(key)] = std::move(value);
    if (!label.empty()) {
        rows_.emplace_back(std::move(label), std::move(text));
    }
}

std::string Report::table() const {
    std::size_t width = 0;
    for (const auto& [label, text] : rows_) {
        width = std::max(width, label.size());
    }
    std::string table;
    for (const auto& [label, text] : rows_) {
        table += fmt::format("{:<{}}  {}\n", label, width, text);
    }
    return table;
}

void Report::print(bool asJson, bool outputTaken) const {
    const std::string text = asJson ? json_.dump(2) + "\n" : table();
    std::fwrite(text.data(), 1, text.size(), outputTaken ? stderr : stdout);
    std::fflush(stdout);
}

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

Progress::Progress(bool wanted) : enabled_(wanted && isatty(STDERR_FILENO) != 0), lastMs_(nowMs()) {}

Progress::~Progress() {
    clear();
}

void Progress::show(const std::string& line) {
    if (!enabled_ || nowMs() - lastMs_ < kProgressIntervalMs) {
        return;
    }
    lastMs_ = nowMs();
    shown_ = true;
    std::fprintf(stderr, "\r\033[K%s", line.c_str());
}

void Progress::clear() {
    if (shown_) {
        std::fprintf(stderr, "\r\033[K");
        shown_ = false;
    }
}

} // namespace tool
