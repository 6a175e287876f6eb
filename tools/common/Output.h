/* SPDX-License-Identifier: MIT */
// What a tool reports: readable lines, or one JSON object with --json.
// Results go to standard output; a failure is one line on standard error
// ("set brightness: value out of range 0..100: '150' (eVYRIX_INVALID_ARGUMENT)")
// and, with --json, the JSON object on standard output as well.  Success
// and failure objects have the same keys: "command", the inputs as given,
// the outputs (null when there are none), "result" (the result's name),
// "code" (the result word as a number) and "error" (null on success).
#ifndef VYRIX_TOOLS_OUTPUT_H
#define VYRIX_TOOLS_OUTPUT_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "ExitStatus.h"

namespace vyrix::tools {

using Row = std::vector<std::pair<std::string, std::string>>;
using Json = nlohmann::ordered_json;

class Report {
public:
    Report(std::string command, bool json) : command_(std::move(command)), json_(json) {}
    // An input echoed in the JSON object (and shown as a line when `show`).
    void Input(const std::string& key, const Json& value, bool show = false);
    // An output that stays null unless set: present in failures too.
    void Declare(const std::string& key) { fields_[key] = nullptr; }
    // A field; text that is a plain decimal number is a number in JSON.
    void Add(const std::string& key, const std::string& value);
    void Add(const std::string& key, long long value);
    // A counter: a JSON integer over the whole unsigned 64-bit range.
    void AddCount(const std::string& key, uint64_t value);
    // A field that stays text in JSON even when it looks like a number.
    void AddText(const std::string& key, const std::string& value);
    // A table (a JSON array of objects); plain text aligns its columns.
    void AddRows(const std::string& key, const std::vector<Row>& rows);
    // A line printed instead of an empty table ("no USB devices found").
    void SetEmptyNote(const std::string& note) { emptyNote_ = note; }

    // Prints the report with its result; returns the exit status: 0 when
    // the result is success and there is no failure text, else 1 (or
    // 128 + the signal when one interrupted the program).
    int Finish(uint32_t result, const std::string& failure = "");
    // A refused option or value: exit status 2, result eVYRIX_INVALID_ARGUMENT.
    int Refuse(const std::string& failure);
    // A connection that could not be opened: exit status 3.
    int NoDevice(uint32_t result, const std::string& failure);

private:
    int Fail(uint32_t result, const std::string& failure, int status);
    bool PrintJson(uint32_t result, const Json& error);

    std::string command_;
    bool json_;
    Json inputs_ = Json::object();
    Json fields_ = Json::object();
    std::vector<std::pair<std::string, std::string>> lines_;
    std::string tableKey_, emptyNote_;
    std::vector<Row> rows_;
    bool hasTable_ = false;
};

// A plain decimal number ("42", "-3", "2.5") as a JSON number, anything
// else ("1.", "nan", "0x10", "") as a JSON string.
Json JsonValue(const std::string& text);

// "value out of range ... (eVYRIX_INVALID_ARGUMENT)": the sentence that
// explains a result, with the code name.  Without a sentence of the
// caller's: the library's last error text on this thread, else the code's
// description.
std::string Explain(uint32_t result, const std::string& failure);

// Words added to the library's "no answer from the device within N s"
// (vyrixctl: how to wait longer).
void SetNoAnswerHint(const std::string& hint);

// The signal that interrupted the program (0: none).  Once noted, every
// report ends as interrupted, with exit status 128 + the signal.
void NoteInterrupt(int signal);
int InterruptedBy();
// "SIGINT", "SIGTERM".
std::string SignalName(int signal);

// One line of JSON Lines output (monitor), printed at once; the final
// report of such a run still follows.
void PrintJsonLine(const Json& line);

}  // namespace vyrix::tools

#endif
