// What a tool reports: readable lines, or one JSON object with --json.
// Results go to standard output; a failure is one line on standard error
// ("set brightness: value out of range 0..100 (eVYRIX_INVALID_ARGUMENT)")
// and, with --json, the same as a JSON object on standard output.
#ifndef VYRIX_TOOLS_OUTPUT_H
#define VYRIX_TOOLS_OUTPUT_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace vyrix::tools {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

using Row = std::vector<std::pair<std::string, std::string>>;

class Report {
public:
    Report(std::string command, bool json) : command_(std::move(command)), json_(json) {}
    // A field; text that is a plain decimal number is a number in JSON.
    void Add(const std::string& key, const std::string& value);
    void Add(const std::string& key, long long value);
    // A counter: a JSON integer over the whole unsigned 64-bit range.
    void AddCount(const std::string& key, uint64_t value);
    // A field that stays text in JSON even when it looks like a number.
    void AddText(const std::string& key, const std::string& value);
    // A table (a JSON array of objects).
    void AddRows(const std::string& key, const std::vector<Row>& rows);
    // A line printed instead of an empty table ("no USB devices found").
    void SetEmptyNote(const std::string& note) { emptyNote_ = note; }
    // Prints the report with its result; returns the exit status: 0 when
    // the result is success and there is no failure text, else 1.
    int Finish(uint32_t result, const std::string& failure = "");
    // Prints a refused argument; returns the exit status of a usage error.
    int Refuse(const std::string& failure, uint32_t result);

private:
    int Fail(uint32_t result, const std::string& failure, int status);

    std::string command_;
    bool json_;
    nlohmann::ordered_json fields_ = nlohmann::ordered_json::object();
    std::vector<std::pair<std::string, std::string>> lines_;
    std::string tableKey_, emptyNote_;
    std::vector<Row> rows_;
    bool hasTable_ = false;
};

// A plain decimal number ("42", "-3", "2.5") as a JSON number, anything
// else ("1.", "nan", "inf", "0x10", "") as a JSON string.
nlohmann::ordered_json JsonValue(const std::string& text);

// "value out of range 0..100 (eVYRIX_INVALID_ARGUMENT)": the sentence that
// explains a result, with the code name; the library's description when
// there is no sentence.
std::string Explain(uint32_t result, const std::string& failure);

}  // namespace vyrix::tools

#endif
