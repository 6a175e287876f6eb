// SPDX-License-Identifier: MIT
#include "Settings.h"

#include <cstdio>

#include "Numbers.h"
#include "Suggest.h"

namespace vyrix::tools {

namespace {

constexpr double kMaxU32 = 4294967295.0;
const char* const kStorageNames[] = {"current", "saved", "factory"};

std::string Text(double v) {
    char buf[32];
    snprintf(buf, sizeof buf, "%g", v);
    return buf;
}
using S = Vyrix_ValueStorageTypeE;
S Storage(const SettingContext& c) { return static_cast<S>(c.storage); }

// A setting that is one 32-bit unsigned value from 0 to `max`.
template <typename GetFn, typename SetFn>
Setting U32Setting(const char* name, const char* help, uint32_t max, unsigned scope, GetFn getFn, SetFn setFn) {
    return Setting{
        name,
        help,
        {{"value", 0, static_cast<double>(max)}},
        0,
        scope,
        [getFn](const SettingContext& c, std::string& out) {
            uint32_t v = 0;
            Vyrix_ReturnStatus r = getFn(c, &v);
            out = std::to_string(v);
            return r;
        },
        [setFn](const SettingContext& c, const Values& in) { return setFn(c, static_cast<uint32_t>(in.Whole(0))); }};
}

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1)
        parts.push_back(text.substr(start, comma - start));
    parts.push_back(text.substr(start));
    return parts;
}

}  // namespace

const char* StorageName(uint32_t storage) { return storage < 3 ? kStorageNames[storage] : "?"; }

const std::vector<Setting>& Settings() {
    static const std::vector<Setting> settings = {
        {"brightness",
         "0..100",
         {{"value", 0, 100}},
         0,
         0,
         [](const SettingContext& c, std::string& out) {
             uint8_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetBrightness(c.handle, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const Values& in) {
             return Vyrix_SetBrightness(c.handle, static_cast<uint8_t>(in.Whole(0)), Storage(c));
         }},
        {"color-mode",
         "0..4",
         {{"value", 0, 4}},
         0,
         0,
         [](const SettingContext& c, std::string& out) {
             int32_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetColorMode(c.handle, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const Values& in) {
             return Vyrix_SetColorMode(c.handle, static_cast<int32_t>(in.Whole(0)), Storage(c));
         }},
        {"gamma",
         "1.0..3.0, per --channel 0..2",
         {{"value", 1.0, 3.0, true}},
         0,
         kScopeChannel,
         [](const SettingContext& c, std::string& out) {
             float v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetGamma(c.handle, c.channel, &v, Storage(c));
             out = Text(v);
             return r;
         },
         [](const SettingContext& c, const Values& in) {
             return Vyrix_SetGamma(c.handle, c.channel, static_cast<float>(in.numbers[0]), Storage(c));
         }},
        U32Setting(
            "gamma-boost", "0..1, per --channel 0..2", 1, kScopeChannel,
            [](const SettingContext& c, uint32_t* v) {
                return Vyrix_GetVideoGammaBoostMode(c.handle, c.channel, v, Storage(c));
            },
            [](const SettingContext& c, uint32_t v) {
                return Vyrix_SetVideoGammaBoostMode(c.handle, c.channel, v, Storage(c));
            }),
        U32Setting(
            "microweave", "0..1", 1, 0,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetMicroWeaveMode(c.handle, v, Storage(c)); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetMicroWeaveMode(c.handle, v, Storage(c)); }),
        U32Setting(
            "flip", "0..3", 3, 0,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetFlipState(c.handle, v, Storage(c)); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetFlipState(c.handle, v, Storage(c)); }),
        U32Setting(
            "input-state", "0..1", 1, 0,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetInputVideoState(c.handle, v, c.storage); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetInputVideoState(c.handle, v, c.storage); }),
        U32Setting(
            "output-state", "0..1", 1, 0,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetOutputVideoState(c.handle, v, Storage(c)); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetOutputVideoState(c.handle, v, c.storage); }),
        U32Setting(
            "sensing", "0..1", 1, 0,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetSensingState(c.handle, v, Storage(c)); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetSensingState(c.handle, v, Storage(c)); }),
        {"biphase",
         "-100..100",
         {{"value", -100, 100}},
         0,
         0,
         [](const SettingContext& c, std::string& out) {
             int16_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetBiPhase(c.handle, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const Values& in) {
             return Vyrix_SetBiPhase(c.handle, static_cast<int16_t>(in.Whole(0)), Storage(c));
         }},
        {"color-alignment",
         "-32..32, per --sel1 0..1 and --sel2 0..4",
         {{"value", -32, 32}},
         0,
         kScopeSelectors,
         [](const SettingContext& c, std::string& out) {
             int16_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetColorAlignment(c.handle, c.selector1, c.selector2, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const Values& in) {
             return Vyrix_SetColorAlignment(c.handle, c.selector1, c.selector2, static_cast<int16_t>(in.Whole(0)),
                                            Storage(c));
         }},
        {"color-converter",
         "-65536..65535, per --index 0..8",
         {{"value", -65536, 65535}},
         0,
         kScopeIndex,
         [](const SettingContext& c, std::string& out) {
             int32_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetColorConverter(c.handle, c.index, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const Values& in) {
             return Vyrix_SetColorConverter(c.handle, c.index, static_cast<int32_t>(in.Whole(0)), Storage(c));
         }},
        {"frame-rate",
         "MODE[,PARAM1,PARAM2]: mode 0..2, params 0..4294967295",
         {{"mode", 0, 2}, {"param1", 0, kMaxU32}, {"param2", 0, kMaxU32}},
         1,
         0,
         [](const SettingContext& c, std::string& out) {
             Vyrix_FrameRateS v{};
             Vyrix_ReturnStatus r = Vyrix_GetFrameRateMode(c.handle, &v, Storage(c));
             out = std::to_string(v.mode) + "," + std::to_string(v.param1) + "," + std::to_string(v.param2);
             return r;
         },
         [](const SettingContext& c, const Values& in) {
             Vyrix_FrameRateS v{};
             v.mode = static_cast<uint32_t>(in.Whole(0));
             if (in.numbers.size() == 3) {
                 v.param1 = static_cast<uint32_t>(in.Whole(1));
                 v.param2 = static_cast<uint32_t>(in.Whole(2));
             }
             return Vyrix_SetFrameRateMode(c.handle, v, c.storage);
         }},
        {"input-video",
         "WIDTHxHEIGHT@RATE (read only)",
         {},
         0,
         0,
         [](const SettingContext& c, std::string& out) {
             uint16_t w = 0, h = 0;
             float rate = 0;
             Vyrix_ReturnStatus r = Vyrix_GetInputVideoProperties(c.handle, &w, &h, &rate);
             out = std::to_string(w) + "x" + std::to_string(h) + "@" + Text(rate);
             return r;
         },
         nullptr},
        {"output-video",
         "WIDTHxHEIGHT@RATE (read only)",
         {},
         0,
         0,
         [](const SettingContext& c, std::string& out) {
             Vyrix_VideoPropertiesS p{};
             Vyrix_ReturnStatus r = Vyrix_GetOutputVideoProperties(c.handle, &p);
             out = std::to_string(p.width) + "x" + std::to_string(p.height) + "@" + Text(p.frameRate);
             return r;
         },
         nullptr},
    };
    return settings;
}

const Setting* FindSetting(const std::string& name) {
    for (const Setting& s : Settings())
        if (name == s.name) return &s;
    return nullptr;
}

std::vector<std::string> SettingNames() {
    std::vector<std::string> names;
    for (const Setting& s : Settings()) names.push_back(s.name);
    return names;
}

std::string ParseValue(const Setting& setting, const std::string& text, Values& values) {
    const std::vector<std::string> parts = Split(text);
    const size_t all = setting.fields.size();
    if (parts.size() != all && !(setting.optionalFrom > 0 && parts.size() == setting.optionalFrom))
        return "expected " + std::string(setting.help) + ", not '" + Printable(text) + "'";
    values.numbers.clear();
    for (size_t i = 0; i < parts.size(); ++i) {
        const Field& f = setting.fields[i];
        std::string why;
        if (f.real) {
            double v = 0;
            why = ParseReal(f.name, parts[i], f.min, f.max, v);
            values.numbers.push_back(v);
        } else {
            long long v = 0;
            why = ParseInteger(f.name, parts[i], static_cast<long long>(f.min), static_cast<long long>(f.max), v);
            values.numbers.push_back(static_cast<double>(v));
        }
        if (!why.empty()) return why;
    }
    return "";
}

namespace {
// "--channel does not apply to brightness", or "" when the option is not
// given or applies.
std::string Applies(const Setting& setting, const std::string& given, unsigned bit, const char* option) {
    if (given.empty() || (setting.scope & bit) != 0) return "";
    return std::string(option) + " does not apply to " + setting.name;
}

std::string Storage(const std::string& text, bool writing, uint32_t& storage) {
    const long long max = writing ? eVYRIX_STORAGE_SAVED : eVYRIX_STORAGE_FACTORY;
    for (long long i = 0; i <= eVYRIX_STORAGE_FACTORY; ++i) {
        if (text != kStorageNames[i]) continue;
        if (i > max) return "--storage factory is read only";
        storage = static_cast<uint32_t>(i);
        return "";
    }
    if (!text.empty() && (text[0] < '0' || text[0] > '9') && text[0] != '-')
        return "--storage must be current, saved or factory (or 0..2), not '" + Printable(text) + "'" +
               DidYouMean(text, {kStorageNames, kStorageNames + 3});
    long long v = 0;
    std::string why = ParseInteger("--storage", text, 0, max, v);
    if (!why.empty()) return why + (writing ? " (factory is read only)" : "");
    storage = static_cast<uint32_t>(v);
    return "";
}

std::string Number(const char* option, const std::string& text, long long min, long long max, long long& out) {
    return text.empty() ? "" : ParseInteger(option, text, min, max, out);
}
}  // namespace

std::string ParseScope(const Setting& setting, const ScopeText& t, bool writing, SettingContext& c) {
    for (const std::string& why :
         {Applies(setting, t.channel, kScopeChannel, "--channel"), Applies(setting, t.sel1, kScopeSelectors, "--sel1"),
          Applies(setting, t.sel2, kScopeSelectors, "--sel2"), Applies(setting, t.index, kScopeIndex, "--index")})
        if (!why.empty()) return why;
    if (!t.storage.empty())
        if (std::string why = Storage(t.storage, writing, c.storage); !why.empty()) return why;
    long long channel = 0, sel1 = 0, sel2 = 0, index = 0;
    for (const std::string& why : {Number("--channel", t.channel, 0, 2, channel), Number("--sel1", t.sel1, 0, 1, sel1),
                                   Number("--sel2", t.sel2, 0, 4, sel2), Number("--index", t.index, 0, 8, index)})
        if (!why.empty()) return why;
    c.channel = static_cast<uint32_t>(channel);
    c.selector1 = static_cast<uint32_t>(sel1);
    c.selector2 = static_cast<int32_t>(sel2);
    c.index = static_cast<int32_t>(index);
    return "";
}

}  // namespace vyrix::tools
