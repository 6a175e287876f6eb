// What a tool reports: readable lines, or one JSON object with --json.
#ifndef VYRIX_TOOLS_OUTPUT_H
#define VYRIX_TOOLS_OUTPUT_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vyrix::tools {

class Report {
public:
    Report(std::string command, bool json) : command_(std::move(command)), json_(json) {}
    // A field; numbers stay numbers in JSON.
    void Add(const std::string& key, const std::string& value);
    void Add(const std::string& key, long long value);
    // A field that stays text in JSON even when it looks like a number.
    void AddText(const std::string& key, const std::string& value);
    // A table (a JSON array of objects).
    void AddRows(const std::string& key, const std::vector<std::vector<std::pair<std::string, std::string>>>& rows);
    // Prints the report with the result; returns the exit status.
    int Finish(uint32_t result, const std::string& failure = "");

private:
    struct Field {
        std::string key, value;
        bool number;
    };
    std::string command_;
    bool json_;
    std::vector<Field> fields_;
    std::string tableKey_;
    std::vector<std::vector<std::pair<std::string, std::string>>> rows_;
};

std::string JsonString(const std::string& text);
bool LooksNumeric(const std::string& text);

}  // namespace vyrix::tools

#endif
