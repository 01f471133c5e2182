// The result of a command: a short table for people, one JSON object for machines.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

namespace tool {

using Json = nlohmann::ordered_json;

class Report {
  public:
    // `key` and `value` go to the JSON object, `label` and `text` to the table. Without a label the value is
    // in the JSON object only.
    void add(std::string key, Json value, std::string label = {}, std::string text = {});

    // A line of the table that belongs to the row above.
    void addLine(std::string text) { rows_.emplace_back("", std::move(text)); }

    std::string table() const;
    const Json& json() const { return json_; }

    // To standard output, or to standard error when standard output carries a file.
    void print(bool asJson, bool outputTaken = false) const;

  private:
    std::vector<std::pair<std::string, std::string>> rows_;
    Json json_ = Json::object();
};

// A progress line on standard error, if that is a terminal.
class Progress {
  public:
    explicit Progress(bool wanted);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(const std::string& line);
    void clear();

  private:
    bool enabled_;
    bool shown_ = false;
    std::int64_t lastMs_ = 0;
};

} // namespace tool
