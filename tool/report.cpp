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
