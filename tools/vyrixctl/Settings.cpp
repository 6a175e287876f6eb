#include "Settings.h"

#include <cstdio>
#include <stdexcept>

namespace vyrix::tools {

namespace {

long long Integer(const std::string& text) {
    size_t used = 0;
    long long v = std::stoll(text, &used, 0);
    if (used != text.size()) throw std::invalid_argument(text);
    return v;
}
float Real(const std::string& text) {
    size_t used = 0;
    float v = std::stof(text, &used);
    if (used != text.size()) throw std::invalid_argument(text);
    return v;
}
std::string Text(double v) {
    char buf[32];
    snprintf(buf, sizeof buf, "%g", v);
    return buf;
}
using S = Vyrix_ValueStorageTypeE;
S Storage(const SettingContext& c) { return static_cast<S>(c.storage); }

// A setting that is one 32-bit unsigned value.
template <typename GetFn, typename SetFn>
Setting U32Setting(const char* name, const char* help, uint32_t max, GetFn getFn, SetFn setFn) {
    return Setting{name,
                   help,
                   [getFn](const SettingContext& c, std::string& out) {
                       uint32_t v = 0;
                       Vyrix_ReturnStatus r = getFn(c, &v);
                       out = std::to_string(v);
                       return r;
                   },
                   [setFn](const SettingContext& c, const std::string& in) {
                       return setFn(c, static_cast<uint32_t>(Integer(in)));
                   },
                   0,
                   static_cast<double>(max)};
}

}  // namespace

const std::vector<Setting>& Settings() {
    static const std::vector<Setting> settings = {
        {"brightness", "0..100",
         [](const SettingContext& c, std::string& out) {
             uint8_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetBrightness(c.handle, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const std::string& in) {
             long long v = Integer(in);
             return Vyrix_SetBrightness(c.handle, static_cast<uint8_t>(v), Storage(c));
         },
         0, 100},
        {"color-mode", "0..4",
         [](const SettingContext& c, std::string& out) {
             int32_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetColorMode(c.handle, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const std::string& in) {
             return Vyrix_SetColorMode(c.handle, static_cast<int32_t>(Integer(in)), Storage(c));
         },
         0, 4},
        {"gamma", "1.0..3.0, per --channel",
         [](const SettingContext& c, std::string& out) {
             float v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetGamma(c.handle, c.channel, &v, Storage(c));
             out = Text(v);
             return r;
         },
         [](const SettingContext& c, const std::string& in) {
             return Vyrix_SetGamma(c.handle, c.channel, Real(in), Storage(c));
         },
         1.0, 3.0, true},
        U32Setting(
            "gamma-boost", "0..1, per --channel 0..2", 1,
            [](const SettingContext& c, uint32_t* v) {
                return Vyrix_GetVideoGammaBoostMode(c.handle, c.channel, v, Storage(c));
            },
            [](const SettingContext& c, uint32_t v) {
                return Vyrix_SetVideoGammaBoostMode(c.handle, c.channel, v, Storage(c));
            }),
        U32Setting(
            "microweave", "0..1", 1,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetMicroWeaveMode(c.handle, v, Storage(c)); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetMicroWeaveMode(c.handle, v, Storage(c)); }),
        U32Setting(
            "flip", "0..3", 3,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetFlipState(c.handle, v, Storage(c)); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetFlipState(c.handle, v, Storage(c)); }),
        U32Setting(
            "input-state", "0..1", 1,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetInputVideoState(c.handle, v, c.storage); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetInputVideoState(c.handle, v, c.storage); }),
        U32Setting(
            "output-state", "0..1", 1,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetOutputVideoState(c.handle, v, Storage(c)); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetOutputVideoState(c.handle, v, c.storage); }),
        U32Setting(
            "sensing", "0..1", 1,
            [](const SettingContext& c, uint32_t* v) { return Vyrix_GetSensingState(c.handle, v, Storage(c)); },
            [](const SettingContext& c, uint32_t v) { return Vyrix_SetSensingState(c.handle, v, Storage(c)); }),
        {"biphase", "-100..100",
         [](const SettingContext& c, std::string& out) {
             int16_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetBiPhase(c.handle, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const std::string& in) {
             long long v = Integer(in);
             return Vyrix_SetBiPhase(c.handle, static_cast<int16_t>(v), Storage(c));
         },
         -100, 100},
        {"color-alignment", "-32..32, per --sel1 0..1 and --sel2 0..4",
         [](const SettingContext& c, std::string& out) {
             int16_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetColorAlignment(c.handle, c.selector1, c.selector2, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const std::string& in) {
             long long v = Integer(in);
             return Vyrix_SetColorAlignment(c.handle, c.selector1, c.selector2, static_cast<int16_t>(v), Storage(c));
         },
         -32, 32},
        {"color-converter", "-65536..65535, per --index 0..8",
         [](const SettingContext& c, std::string& out) {
             int32_t v = 0;
             Vyrix_ReturnStatus r = Vyrix_GetColorConverter(c.handle, c.index, &v, Storage(c));
             out = std::to_string(v);
             return r;
         },
         [](const SettingContext& c, const std::string& in) {
             return Vyrix_SetColorConverter(c.handle, c.index, static_cast<int32_t>(Integer(in)), Storage(c));
         },
         -65536, 65535},
        {"frame-rate", "MODE[,PARAM1,PARAM2], mode 0..2",
         [](const SettingContext& c, std::string& out) {
             Vyrix_FrameRateS v{};
             Vyrix_ReturnStatus r = Vyrix_GetFrameRateMode(c.handle, &v, Storage(c));
             out = std::to_string(v.mode) + "," + std::to_string(v.param1) + "," + std::to_string(v.param2);
             return r;
         },
         [](const SettingContext& c, const std::string& in) {
             Vyrix_FrameRateS v{};
             size_t a = in.find(','), b = a == std::string::npos ? a : in.find(',', a + 1);
             v.mode = static_cast<uint32_t>(Integer(in.substr(0, a)));
             if (a != std::string::npos) {
                 v.param1 = static_cast<uint32_t>(Integer(in.substr(a + 1, b - a - 1)));
                 if (b == std::string::npos) throw std::invalid_argument(in);
                 v.param2 = static_cast<uint32_t>(Integer(in.substr(b + 1)));
             }
             return Vyrix_SetFrameRateMode(c.handle, v, c.storage);
         }},
        {"input-video", "WIDTHxHEIGHT@RATE (read only)",
         [](const SettingContext& c, std::string& out) {
             uint16_t w = 0, h = 0;
             float rate = 0;
             Vyrix_ReturnStatus r = Vyrix_GetInputVideoProperties(c.handle, &w, &h, &rate);
             out = std::to_string(w) + "x" + std::to_string(h) + "@" + Text(rate);
             return r;
         },
         nullptr},
        {"output-video", "WIDTHxHEIGHT@RATE (read only)",
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

namespace {

std::string Range(double min, double max, bool real) {
    char text[64];
    if (real)
        snprintf(text, sizeof text, "%.1f..%.1f", min, max);
    else
        snprintf(text, sizeof text, "%.0f..%.0f", min, max);
    return text;
}

std::string OutOfRange(const char* what, long long v, long long min, long long max) {
    if (v >= min && v <= max) return "";
    return std::string(what) + " out of range " + Range(static_cast<double>(min), static_cast<double>(max), false);
}

}  // namespace

std::string CheckValue(const Setting& setting, const std::string& value) {
    if (setting.name == std::string("frame-rate")) {
        try {
            Integer(value.substr(0, value.find(',')));
        } catch (const std::exception&) {
            return "not a frame rate mode: " + value + " (MODE[,PARAM1,PARAM2])";
        }
        return OutOfRange("mode", Integer(value.substr(0, value.find(','))), 0, 2);
    }
    if (setting.min == setting.max) return "";
    double v = 0;
    try {
        v = setting.real ? static_cast<double>(Real(value)) : static_cast<double>(Integer(value));
    } catch (const std::exception&) {
        return std::string("not ") + (setting.real ? "a number" : "a whole number") + ": " + value;
    }
    if (!(v >= setting.min && v <= setting.max))
        return "value out of range " + Range(setting.min, setting.max, setting.real);
    return "";
}

std::string CheckScope(const Setting& setting, const SettingContext& c, bool writing) {
    const std::string name = setting.name;
    std::string why = OutOfRange("--storage", c.storage, 0, writing ? 1 : 2);
    if (why.empty() && name == "gamma-boost") why = OutOfRange("--channel", c.channel, 0, 2);
    if (why.empty() && name == "color-alignment") {
        why = OutOfRange("--sel1", c.selector1, 0, 1);
        if (why.empty()) why = OutOfRange("--sel2", c.selector2, 0, 4);
    }
    if (why.empty() && name == "color-converter") why = OutOfRange("--index", c.index, 0, 8);
    return why;
}

const Setting* FindSetting(const std::string& name) {
    for (const Setting& s : Settings())
        if (name == s.name) return &s;
    return nullptr;
}

}  // namespace vyrix::tools
