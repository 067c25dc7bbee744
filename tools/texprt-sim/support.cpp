// Scenario plumbing: YAML to JSON, the subset match of expect blocks, and
// argument access for the step handlers.
#include "sim.h"

#include <algorithm>
#include <cstdio>

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
