// SPDX-License-Identifier: MIT
#include "Output.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <mutex>
#include <regex>

#include "ResultNames.h"
#include "Vyrix_Api.h"

namespace vyrix::tools {

namespace {
// Labels and values line up: "value:             42".
constexpr size_t kLabelWidth = 18;
std::atomic<int> g_interrupt{0};
std::string g_noAnswerHint;  // set once, before any thread starts
// One final report per run, whichever thread gets there first (the main
// thread, or the one that ends the program on a signal).
std::mutex g_printMutex;
bool g_reported = false;  // guarded by g_printMutex

std::string Dump(const Json& j) { return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace); }

// Prints once; false when a report was printed already.
bool PrintOnce(FILE* stream, const std::string& text) {
    std::lock_guard<std::mutex> lock(g_printMutex);
    if (g_reported) return false;
    g_reported = true;
    fputs(text.c_str(), stream);
    fflush(stream);
    return true;
}

std::string Table(const std::vector<Row>& rows) {
    std::vector<size_t> widths;
    for (const auto& [k, v] : rows[0]) widths.push_back(k.size());
    for (const Row& row : rows)
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].second.size());
    std::string out;
    const auto line = [&](auto cell) {
        std::string text;
        for (size_t i = 0; i < widths.size(); ++i) {
            const std::string c = cell(i);
            text += c;
            if (i + 1 < widths.size()) text += std::string(widths[i] - c.size() + 2, ' ');
        }
        out += text + "\n";
    };
    line([&](size_t i) { return rows[0][i].first; });
    for (const Row& row : rows) line([&](size_t i) { return i < row.size() ? row[i].second : std::string(); });
    return out;
}
}  // namespace

Json JsonValue(const std::string& text) {
    static const std::regex integer("-?(0|[1-9][0-9]{0,17})");
    static const std::regex real("-?(0|[1-9][0-9]{0,17})\\.[0-9]{1,17}([eE][-+]?[0-9]{1,2})?");
    if (std::regex_match(text, integer)) return std::stoll(text);
    if (std::regex_match(text, real)) return std::stod(text);
    return text;
}

std::string Explain(uint32_t result, const std::string& failure) {
    std::string sentence = failure;
    if (sentence.empty()) {
        sentence = Vyrix_GetLastErrorText();
        if (sentence.rfind("no answer from the device", 0) == 0) sentence += g_noAnswerHint;
    }
    if (sentence.empty()) {
        sentence = Vyrix_GetResultDescription(static_cast<Vyrix_ReturnStatus>(result));
        if (!sentence.empty() && sentence.back() == '.') sentence.pop_back();
        if (!sentence.empty()) sentence[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(sentence[0])));
    }
    return sentence + " (" + ResultName(result) + ")";
}

void SetNoAnswerHint(const std::string& hint) { g_noAnswerHint = hint; }

void NoteInterrupt(int signal) { g_interrupt = signal; }
int InterruptedBy() { return g_interrupt; }
std::string SignalName(int signal) {
    if (signal == 2) return "SIGINT";
    if (signal == 15) return "SIGTERM";
    return "signal " + std::to_string(signal);
}

void PrintJsonLine(const Json& line) {
    std::lock_guard<std::mutex> lock(g_printMutex);
    if (g_reported) return;
    printf("%s\n", Dump(line).c_str());
    fflush(stdout);
}

void Report::Input(const std::string& key, const Json& value, bool show) {
    inputs_[key] = value;
    if (show) lines_.emplace_back(key, value.is_string() ? value.get<std::string>() : Dump(value));
}

void Report::Add(const std::string& key, const std::string& value) {
    fields_[key] = JsonValue(value);
    lines_.emplace_back(key, value);
}

void Report::AddText(const std::string& key, const std::string& value) {
    fields_[key] = value;
    lines_.emplace_back(key, value);
}

void Report::Add(const std::string& key, long long value) {
    fields_[key] = value;
    lines_.emplace_back(key, std::to_string(value));
}

void Report::AddCount(const std::string& key, uint64_t value) {
    fields_[key] = value;
    lines_.emplace_back(key, std::to_string(value));
}

void Report::AddRows(const std::string& key, const std::vector<Row>& rows) {
    tableKey_ = key;
    rows_ = rows;
    hasTable_ = true;
}

bool Report::PrintJson(uint32_t result, const Json& error) {
    Json out = {{"command", command_}};
    out.update(inputs_);
    out.update(fields_);
    if (hasTable_) {
        Json table = Json::array();
        for (const Row& row : rows_) {
            Json item = Json::object();
            for (const auto& [k, v] : row) item[k] = JsonValue(v);
            table.push_back(item);
        }
        out[tableKey_] = table;
    }
    out["result"] = ResultName(result);
    out["code"] = result;
    out["error"] = error;
    return PrintOnce(stdout, Dump(out) + "\n");
}

int Report::Fail(uint32_t result, const std::string& failure, int status) {
    if (result == 0) result = VYRIX_RESULT(eVYRIX_FAILURE);
    const std::string line = Explain(result, failure);
    if (json_) {
        if (PrintJson(result, line.substr(0, line.rfind(" ("))))
            fprintf(stderr, "%s: %s\n", command_.c_str(), line.c_str());
    } else {
        PrintOnce(stderr, command_ + ": " + line + "\n");
    }
    return status;
}

int Report::Refuse(const std::string& failure) {
    return Fail(VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT), failure, kExitUsage);
}

int Report::NoDevice(uint32_t result, const std::string& failure) { return Fail(result, failure, kExitNoDevice); }

int Report::Finish(uint32_t result, const std::string& failure) {
    if (const int signal = InterruptedBy()) {
        const std::string why = "interrupted by " + SignalName(signal);
        return Fail(result != 0 ? result : VYRIX_RESULT(eVYRIX_INCOMPLETE), failure.empty() ? why : why + " " + failure,
                    kExitSignalBase + signal);
    }
    if (result != 0 || !failure.empty()) return Fail(result, failure, kExitFailed);
    if (json_) {
        PrintJson(result, nullptr);
        return kExitSuccess;
    }
    std::string out;
    size_t width = kLabelWidth;
    for (const auto& [k, v] : lines_) width = std::max(width, k.size() + 1);
    const auto line = [&](const std::string& k, const std::string& v) {
        out += k + ":" + std::string(width - k.size(), ' ') + v + "\n";
    };
    for (const auto& [k, v] : lines_) line(k, v);
    if (hasTable_ && rows_.empty() && !emptyNote_.empty()) out += emptyNote_ + "\n";
    if (!rows_.empty()) out += Table(rows_);
    line("result", ResultName(result));
    PrintOnce(stdout, out);
    return kExitSuccess;
}

}  // namespace vyrix::tools
