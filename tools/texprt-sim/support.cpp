// Scenario plumbing: YAML to JSON, the subset match of expect blocks, and
// argument access for the step handlers.
#include "sim.h"

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

const json &StepContext::Arg(const char *name) const {
    if (!args.is_object() || !args.contains(name)) Error(std::string("missing argument '") + name + "'");
    return args.at(name);
}

uint64_t StepContext::Number(const char *name) const {
    uint64_t value;
    if (!AsNumber(Arg(name), &value)) Error(std::string("argument '") + name + "' must be a number");
    return value;
}

uint64_t StepContext::Number(const char *name, uint64_t fallback) const { return Has(name) ? Number(name) : fallback; }

bool StepContext::Flag(const char *name, bool fallback) const {
    if (!Has(name)) return fallback;
    const json &v = Arg(name);
    if (v.is_boolean()) return v.get<bool>();
    uint64_t n;
    if (AsNumber(v, &n)) return n != 0;
    Error(std::string("argument '") + name + "' must be true or false");
}

std::string StepContext::Text(const char *name) const {
    const json &v = Arg(name);
    if (v.is_string()) return v.get<std::string>();
    if (v.is_number()) return v.dump();
    Error(std::string("argument '") + name + "' must be text");
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
