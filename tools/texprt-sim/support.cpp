// Scenario plumbing: YAML to JSON, the subset match of expect blocks, and
// argument access for the step handlers.
#include "sim.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sim {

void Fail(const std::string &file, const YAML::Node &node, const std::string &message) {
    const auto mark = node.Mark();
    std::string where = file;
    if (mark.line >= 0) where += ":" + std::to_string(mark.line + 1);
    throw ScenarioError(where + ": " + message);
}

namespace {

bool ParseNumber(const std::string &text, uint64_t *out, bool *negative) {
    if (text.empty()) return false;
    size_t start = 0;
    *negative = false;
    if (text[0] == '-') {
        *negative = true;
        start = 1;
    }
    if (start >= text.size() || !std::isdigit(static_cast<unsigned char>(text[start]))) return false;
    // Digits with a leading zero (a digest, an id) are text, not a number.
    if (text[start] == '0' && text.size() > start + 1 && std::isdigit(static_cast<unsigned char>(text[start + 1])))
        return false;
    try {
        size_t used = 0;
        *out = std::stoull(text.substr(start), &used, 0);
        return used == text.size() - start;
    } catch (...) {
        return false;
    }
}

}  // namespace

json ToJson(const YAML::Node &node) {
    switch (node.Type()) {
        case YAML::NodeType::Null:
        case YAML::NodeType::Undefined:
            return nullptr;
        case YAML::NodeType::Sequence: {
            json out = json::array();
            for (const auto &item : node) out.push_back(ToJson(item));
            return out;
        }
        case YAML::NodeType::Map: {
            json out = json::object();
            for (const auto &item : node) out[item.first.as<std::string>()] = ToJson(item.second);
            return out;
        }
        case YAML::NodeType::Scalar:
            break;
    }
    const std::string text = node.Scalar();
    if (node.Tag() == "!") return text;  // quoted: always text
    if (text == "true" || text == "yes") return true;
    if (text == "false" || text == "no") return false;
    if (text == "null" || text == "~") return nullptr;
    uint64_t value;
    bool negative;
    if (ParseNumber(text, &value, &negative)) {
        if (negative) return -static_cast<int64_t>(value);
        return value;
    }
    return text;
}

bool AsNumber(const json &value, uint64_t *out) {
    if (value.is_number_unsigned()) {
        *out = value.get<uint64_t>();
        return true;
    }
    if (value.is_number_integer()) {
        *out = static_cast<uint64_t>(value.get<int64_t>());
        return true;
    }
    if (value.is_boolean()) {
        *out = value.get<bool>() ? 1 : 0;
        return true;
    }
    if (value.is_string()) {
        bool negative;
        uint64_t v;
        if (!ParseNumber(value.get<std::string>(), &v, &negative)) return false;
        *out = negative ? uint64_t(0) - v : v;
        return true;
    }
    return false;
}

std::string SubsetMismatch(const json &expected, const json &actual, const std::string &path) {
    auto show = [](const json &v) { return v.dump(); };
    if (expected.is_object()) {
        if (!actual.is_object()) return path + ": expected " + show(expected) + ", got " + show(actual);
        for (auto it = expected.begin(); it != expected.end(); ++it) {
            const std::string field = path.empty() ? it.key() : path + "." + it.key();
            if (!actual.contains(it.key())) return field + ": expected " + show(it.value()) + ", got nothing";
            const std::string m = SubsetMismatch(it.value(), actual.at(it.key()), field);
            if (!m.empty()) return m;
        }
        return {};
    }
    if (expected.is_array()) {
        if (!actual.is_array() || actual.size() != expected.size())
            return path + ": expected " + std::to_string(expected.size()) + " entries " + show(expected) + ", got " +
                   show(actual);
        for (size_t i = 0; i < expected.size(); ++i) {
            const std::string m = SubsetMismatch(expected[i], actual[i], path + "[" + std::to_string(i) + "]");
            if (!m.empty()) return m;
        }
        return {};
    }
    uint64_t a, b;
    if (!expected.is_string() || !actual.is_string()) {
        if (AsNumber(expected, &a) && AsNumber(actual, &b) && a == b) return {};
    }
    if (expected == actual) return {};
    return path + ": expected " + show(expected) + ", got " + show(actual);
}

namespace {

// Days since 1970-01-01 of a civil date, and back (proleptic Gregorian).
int64_t DaysFromCivil(int64_t year, int month, int day) {
    const int64_t y = month <= 2 ? year - 1 : year;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

void CivilFromDays(int64_t days, int64_t *year, int *month, int *day) {
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t doe = days - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    *day = int(doy - (153 * mp + 2) / 5 + 1);
    *month = int(mp < 10 ? mp + 3 : mp - 9);
    *year = yoe + era * 400 + (*month <= 2 ? 1 : 0);
}

// System time counts from 1601-01-01, 134774 days before 1970-01-01.
constexpr int64_t kDaysFrom1601To1970 = 134774;

}  // namespace

std::optional<int64_t> ParseTimeText(const std::string &text) {
    int year, month, day, hour = 0, minute = 0, second = 0;
    char separator = ' ';
    int used = 0;
    const int fields = std::sscanf(text.c_str(), "%d-%d-%d%c%d:%d:%d%n", &year, &month, &day, &separator, &hour,
                                   &minute, &second, &used);
    if (fields == 3) {
        used = 0;
        std::sscanf(text.c_str(), "%d-%d-%d%n", &year, &month, &day, &used);
    }
    if ((fields != 3 && fields != 7) || size_t(used) != text.size() ||
        (fields == 7 && separator != ' ' && separator != 'T') || year < 1601 || month < 1 || month > 12 || day < 1 ||
        day > 31 || hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59)
        return std::nullopt;
    const int64_t days = DaysFromCivil(year, month, day) + kDaysFrom1601To1970;
    return ((days * 24 + hour) * 60 + minute) * 60 * hk::kTicksPerSecond + int64_t(second) * hk::kTicksPerSecond;
}

std::string TimeText(int64_t ticks) {
    const int64_t seconds = ticks / hk::kTicksPerSecond;
    const int64_t fraction = ticks % hk::kTicksPerSecond;
    int64_t year;
    int month, day;
    CivilFromDays(seconds / 86400 - kDaysFrom1601To1970, &year, &month, &day);
    const int64_t in_day = seconds % 86400;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04lld-%02d-%02d %02d:%02d:%02d", static_cast<long long>(year), month, day,
                  int(in_day / 3600), int(in_day / 60 % 60), int(in_day % 60));
    std::string out = buf;
    if (fraction != 0) {
        std::snprintf(buf, sizeof buf, ".%07lld", static_cast<long long>(fraction));
        std::string digits = buf;
        while (digits.back() == '0') digits.pop_back();
        out += digits;
    }
    return out;
}

json TimeJson(int64_t ticks) {
    json out;
    out["time"] = ticks > 0 ? json(TimeText(ticks)) : json(nullptr);
    out["ticks"] = ticks;
    return out;
}

std::optional<int32_t> StatusByName(const std::string &name) {
    // The host names only statuses it knows; they all sit in the first
    // codes of facility 0 of each severity, so those are all there is to
    // look through.
    static const std::map<std::string, int32_t> codes = [] {
        std::map<std::string, int32_t> out;
        for (uint32_t severity : {0x00000000u, 0x40000000u, 0x80000000u, 0xC0000000u})
            for (uint32_t code = 0; code < 0x1000; ++code) {
                const std::string known = hk::StatusName(int32_t(severity | code));
                if (!known.empty()) out.emplace(known, int32_t(severity | code));
            }
        return out;
    }();
    const auto found = codes.find(name);
    if (found == codes.end()) return std::nullopt;
    return found->second;
}

std::optional<std::vector<uint8_t>> SidFromText(const std::string &text) {
    // S-1-<authority>-<sub authority>..., each field decimal, the authority
    // also 0x hex, as Windows reads them.
    if (text.size() < 4 || (text[0] != 'S' && text[0] != 's') || text[1] != '-') return std::nullopt;
    std::vector<uint64_t> fields;
    size_t at = 2;
    for (;;) {
        const size_t end = text.find('-', at);
        const std::string field = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        const bool hex = fields.size() == 1 && field.size() > 2 && field[0] == '0' && (field[1] == 'x' || field[1] == 'X');
        const std::string digits = hex ? field.substr(2) : field;
        if (digits.empty() || digits.size() > 15 ||
            digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos)
            return std::nullopt;
        fields.push_back(std::stoull(digits, nullptr, hex ? 16 : 10));
        if (end == std::string::npos) break;
        at = end + 1;
    }
    if (fields.size() < 2 || fields[0] != 1 || fields[1] >> 48 || fields.size() - 2 > 15) return std::nullopt;
    std::vector<uint8_t> sid(8 + 4 * (fields.size() - 2));
    sid[0] = 1;
    sid[1] = uint8_t(fields.size() - 2);
    for (int i = 0; i < 6; ++i) sid[2 + i] = uint8_t(fields[1] >> (8 * (5 - i)));
    for (size_t i = 2; i < fields.size(); ++i) {
        if (fields[i] > 0xFFFFFFFFu) return std::nullopt;
        const uint32_t sub = uint32_t(fields[i]);
        std::memcpy(sid.data() + 8 + 4 * (i - 2), &sub, sizeof sub);
    }
    return sid;
}

std::string SidText(const uint8_t *sid, size_t available) {
    if (sid == nullptr || available < 8 || sid[0] != 1 || available < 8 + size_t(sid[1]) * 4) return "";
    uint64_t authority = 0;
    for (int i = 0; i < 6; ++i) authority = authority << 8 | sid[2 + i];
    std::string text = "S-1-" + std::to_string(authority);
    for (int i = 0; i < sid[1]; ++i) {
        uint32_t sub;
        std::memcpy(&sub, sid + 8 + 4 * i, sizeof sub);
        text += "-" + std::to_string(sub);
    }
    return text;
}

std::string SnakeCase(std::string_view name) {
    auto upper = [](char c) { return c >= 'A' && c <= 'Z'; };
    auto lower_or_digit = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); };
    std::string out;
    for (size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if (!upper(c)) {
            out += c;
            continue;
        }
        // A word starts at a capital after a small letter or digit
        // (TimeLow, Win32Path), and at the last capital of a run that a
        // small letter follows (UNCPath: unc_path).
        const bool starts_word = i > 0 && (lower_or_digit(name[i - 1]) ||
                                           (upper(name[i - 1]) && i + 1 < name.size() && !upper(name[i + 1]) &&
                                            lower_or_digit(name[i + 1])));
        if (starts_word) out += '_';
        out += char(c - 'A' + 'a');
    }
    return out;
}

std::string ClosestName(const std::string &given, const std::vector<std::string> &accepted) {
    // Edit distance; a name within two edits (a letter dropped, doubled or
    // swapped) is what the author most likely meant.
    auto distance = [](const std::string &a, const std::string &b) {
        std::vector<size_t> row(b.size() + 1);
        for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
        for (size_t i = 1; i <= a.size(); ++i) {
            size_t diagonal = row[0];
            row[0] = i;
            for (size_t j = 1; j <= b.size(); ++j) {
                const size_t above = row[j];
                row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
                diagonal = above;
            }
        }
        return row[b.size()];
    };
    std::string best;
    size_t best_distance = 3;
    for (const auto &name : accepted) {
        const size_t d = distance(given, name);
        if (d < best_distance) {
            best = name;
            best_distance = d;
        }
    }
    return best;
}

namespace {

std::string Listed(const std::vector<std::string> &names) {
    if (names.empty()) return "none";
    std::string out;
    for (const auto &n : names) out += (out.empty() ? "" : ", ") + n;
    return out;
}

// What a value is, for "expected a number, got text 'abc'".
std::string Described(const YAML::Node &value) {
    if (value.IsMap()) return "a mapping";
    if (value.IsSequence()) return "a list";
    const json j = ToJson(value);
    if (j.is_null()) return "null";
    if (j.is_boolean()) return j.get<bool>() ? "true" : "false";
    if (j.is_number()) return "the number " + value.Scalar();
    return "text '" + value.Scalar() + "'";
}

}  // namespace

void StepContext::Error(const std::string &message) const { Fail(file, node, step_name + ": " + message); }

void StepContext::ErrorAt(const Argument &arg, const std::string &message) const {
    Fail(file, arg.key ? arg.key : node, step_name + ": " + message);
}

void StepContext::CheckArguments(const std::vector<ArgumentSpec> &accepted) const {
    std::vector<std::string> names;
    for (const auto &a : accepted) names.push_back(a.name);
    const YAML::Node args = node["args"];
    if (args && !args.IsNull()) {
        if (!args.IsMap()) Fail(file, args, step_name + ": args must be a mapping of argument names to values");
        std::vector<std::string> seen;
        for (const auto &item : args) {
            const std::string key = item.first.Scalar();
            if (std::find(names.begin(), names.end(), key) == names.end()) {
                std::string message = step_name + " takes no argument '" + key + "'";
                const std::string closest = ClosestName(key, names);
                if (!closest.empty()) message += " (did you mean '" + closest + "'?)";
                message += "; it takes: " + Listed(names);
                Fail(file, item.first, message);
            }
            if (std::find(seen.begin(), seen.end(), key) != seen.end())
                Fail(file, item.first, step_name + ": argument '" + key + "' is given twice");
            seen.push_back(key);
        }
    }
    for (const auto &a : accepted)
        if (a.required && !Find(a.name))
            Error("missing argument '" + a.name + "'; it takes: " + Listed(names));
}

std::optional<Argument> StepContext::Find(const std::string &name) const {
    const YAML::Node args = node["args"];
    if (!args || !args.IsMap()) return std::nullopt;
    for (const auto &item : args)
        if (item.first.Scalar() == name) return Argument{name, item.first, item.second};
    return std::nullopt;
}

Argument StepContext::Arg(const std::string &name) const {
    auto found = Find(name);
    if (!found) Error("missing argument '" + name + "'");
    return *found;
}

bool StepContext::Has(const std::string &name) const {
    auto found = Find(name);
    return found && !found->IsNull();
}

uint64_t StepContext::NumberOf(const Argument &arg, uint64_t maximum) const {
    const json v = arg.value.IsScalar() ? ToJson(arg.value) : json();
    uint64_t value = 0;
    if (v.is_boolean()) value = v.get<bool>() ? 1 : 0;
    else if (v.is_number_unsigned()) value = v.get<uint64_t>();
    else if (v.is_number_integer()) ErrorAt(arg, arg.name + " must not be negative");
    else ErrorAt(arg, arg.name + " must be a number or true/false, not " + Described(arg.value));
    if (value > maximum)
        ErrorAt(arg, arg.name + " must be at most " + HexText(maximum, 1) + ", not " + arg.value.Scalar());
    return value;
}

int64_t StepContext::SignedOf(const Argument &arg, int64_t minimum, int64_t maximum) const {
    const json v = arg.value.IsScalar() ? ToJson(arg.value) : json();
    int64_t value = 0;
    if (v.is_boolean()) value = v.get<bool>() ? 1 : 0;
    else if (v.is_number_unsigned() && v.get<uint64_t>() <= uint64_t(INT64_MAX)) value = int64_t(v.get<uint64_t>());
    else if (v.is_number_integer()) value = v.get<int64_t>();
    else ErrorAt(arg, arg.name + " must be a number or true/false, not " + Described(arg.value));
    if (value < minimum || value > maximum)
        ErrorAt(arg, arg.name + " must be from " + std::to_string(minimum) + " to " + HexText(uint64_t(maximum), 1) +
                         ", not " + arg.value.Scalar());
    return value;
}

int32_t StepContext::StatusOf(const Argument &arg) const {
    const json v = arg.value.IsScalar() ? ToJson(arg.value) : json();
    if (v.is_string()) {
        const auto status = StatusByName(v.get<std::string>());
        if (!status) ErrorAt(arg, arg.name + ": '" + v.get<std::string>() + "' is not a status name the host knows; give its code, such as 0xC0000022");
        return *status;
    }
    return int32_t(uint32_t(SignedOf(arg, INT32_MIN, UINT32_MAX)));
}

int64_t StepContext::TimeOf(const Argument &arg) const {
    const json v = arg.value.IsScalar() ? ToJson(arg.value) : json();
    if (v.is_number()) return int64_t(NumberOf(arg, INT64_MAX));
    const std::string text = TextOf(arg);
    const auto time = ParseTimeText(text);
    if (!time) ErrorAt(arg, arg.name + ": time '" + text + "' is not YYYY-MM-DD HH:MM:SS (system time, UTC) or a number of ticks");
    return *time;
}

bool StepContext::FlagOf(const Argument &arg) const {
    const json v = arg.value.IsScalar() ? ToJson(arg.value) : json();
    if (v.is_boolean()) return v.get<bool>();
    if (v.is_number_unsigned()) return v.get<uint64_t>() != 0;
    ErrorAt(arg, arg.name + " must be true or false, not " + Described(arg.value));
}

std::string StepContext::TextOf(const Argument &arg) const {
    const json v = arg.value.IsScalar() ? ToJson(arg.value) : json();
    if (v.is_string()) return v.get<std::string>();
    if (v.is_number()) return arg.value.Scalar();
    ErrorAt(arg, arg.name + " must be text, not " + Described(arg.value));
}

std::vector<uint8_t> StepContext::HexOf(const Argument &arg) const {
    return HexBytes(TextOf(arg), file, arg.key ? arg.key : node);
}

std::map<std::string, Argument> StepContext::FieldsOf(const Argument &arg,
                                                      const std::vector<std::string> &accepted) const {
    if (!arg.value.IsMap()) ErrorAt(arg, arg.name + " is a mapping of " + Listed(accepted) + ", not " + Described(arg.value));
    std::map<std::string, Argument> fields;
    for (const auto &item : arg.value) {
        const std::string key = item.first.Scalar();
        if (std::find(accepted.begin(), accepted.end(), key) == accepted.end()) {
            std::string message = arg.name + " has no field '" + key + "'";
            const std::string closest = ClosestName(key, accepted);
            if (!closest.empty()) message += " (did you mean '" + closest + "'?)";
            Fail(file, item.first, step_name + ": " + message + "; its fields: " + Listed(accepted));
        }
        if (!fields.emplace(key, Argument{arg.name + "." + key, item.first, item.second}).second)
            Fail(file, item.first, step_name + ": " + arg.name + "." + key + " is given twice");
    }
    return fields;
}

void *StepContext::ExportAddress(const char *name) const {
    if (!machine.loaded())
        Error(std::string("the image is not loaded (a DllUnload step unloaded it; call DllInitialize to load it "
                          "again), so ") +
              name + " cannot be called");
    void *address = machine.Symbol(name);
    if (address == nullptr) Error(std::string("the image does not export ") + name);
    return address;
}

std::string HexText(uint64_t value, int width) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%0*llX", width, static_cast<unsigned long long>(value));
    return buf;
}

std::string StatusText(int32_t status) {
    const std::string name = hk::StatusName(status);
    return name.empty() ? HexText(uint32_t(status)) : name;
}

}  // namespace sim
