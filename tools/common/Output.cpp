#include "Output.h"

#include <cctype>
#include <cstdio>
#include <regex>

#include "ResultNames.h"
#include "Vyrix_Api.h"

namespace vyrix::tools {

nlohmann::ordered_json JsonValue(const std::string& text) {
    static const std::regex integer("-?(0|[1-9][0-9]{0,17})");
    static const std::regex real("-?(0|[1-9][0-9]*)\\.[0-9]+([eE][-+]?[0-9]{1,3})?");
    if (std::regex_match(text, integer)) return std::stoll(text);
    if (std::regex_match(text, real)) return std::stod(text);
    return text;
}

std::string Explain(uint32_t result, const std::string& failure) {
    std::string sentence = failure;
    if (sentence.empty()) {
        sentence = Vyrix_GetResultDescription(static_cast<Vyrix_ReturnStatus>(result));
        if (!sentence.empty() && sentence.back() == '.') sentence.pop_back();
        if (!sentence.empty()) sentence[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(sentence[0])));
    }
    return sentence + " (" + ResultName(result) + ")";
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

int Report::Fail(uint32_t result, const std::string& failure, int status) {
    if (result == 0) result = VYRIX_RESULT(eVYRIX_FAILURE);
    const std::string line = Explain(result, failure);
    fprintf(stderr, "%s: %s\n", command_.c_str(), line.c_str());
    if (json_) {
        char code[16];
        snprintf(code, sizeof code, "0x%08X", result);
        nlohmann::ordered_json out = {{"command", command_},
                                      {"result", ResultName(result)},
                                      {"code", code},
                                      {"error", failure.empty() ? line : failure}};
        printf("%s\n", out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    }
    fflush(stdout);
    return status;
}

int Report::Refuse(const std::string& failure, uint32_t result) { return Fail(result, failure, kExitUsage); }

int Report::Finish(uint32_t result, const std::string& failure) {
    if (result != 0 || !failure.empty()) return Fail(result, failure, kExitFailed);
    const std::string name = ResultName(result);
    if (json_) {
        nlohmann::ordered_json out = {{"command", command_}};
        out.update(fields_);
        if (hasTable_) {
            nlohmann::ordered_json table = nlohmann::ordered_json::array();
            for (const Row& row : rows_) {
                nlohmann::ordered_json item = nlohmann::ordered_json::object();
                for (const auto& [k, v] : row) item[k] = JsonValue(v);
                table.push_back(item);
            }
            out[tableKey_] = table;
        }
        out["result"] = name;
        out["code"] = "0x00000000";
        printf("%s\n", out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    } else {
        for (const auto& [k, v] : lines_) printf("%-18s %s\n", (k + ":").c_str(), v.c_str());
        if (hasTable_ && rows_.empty() && !emptyNote_.empty()) printf("%s\n", emptyNote_.c_str());
        if (!rows_.empty()) {
            for (const auto& [k, v] : rows_[0]) printf("%-14s", k.c_str());
            printf("\n");
            for (const Row& row : rows_) {
                for (const auto& cell : row) printf("%-14s", cell.second.c_str());
                printf("\n");
            }
        }
        printf("%-18s %s\n", "result:", name.c_str());
    }
    fflush(stdout);
    return 0;
}

}  // namespace vyrix::tools
