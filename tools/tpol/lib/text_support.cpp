// Texts and depths shared by the formats (text_support.h).
#include "text_support.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace tpol::detail {

std::string Num(uint64_t value) { return std::to_string(value); }

bool Utf8ToUtf16(const std::string &in, std::u16string &out) {
    for (size_t i = 0; i < in.size();) {
        const unsigned char lead = static_cast<unsigned char>(in[i]);
        int extra = lead < 0x80             ? 0
                    : (lead & 0xE0) == 0xC0 ? 1
                    : (lead & 0xF0) == 0xE0 ? 2
                    : (lead & 0xF8) == 0xF0 ? 3
                                            : -1;
        if (extra < 0 || in.size() - i <= size_t(extra)) return false;
        uint32_t cp = extra == 0 ? lead : lead & (0x3F >> extra);
        for (int k = 1; k <= extra; ++k) {
            const unsigned char c = static_cast<unsigned char>(in[i + k]);
            if ((c & 0xC0) != 0x80) return false;
            cp = cp << 6 | (c & 0x3F);
        }
        constexpr uint32_t kLeast[4] = {0, 0x80, 0x800, 0x10000};
        if (cp < kLeast[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp < 0xE000)) return false;
        if (cp >= 0x10000) {
            out += char16_t(0xD800 + ((cp - 0x10000) >> 10));
            out += char16_t(0xDC00 + ((cp - 0x10000) & 0x3FF));
        } else {
            out += char16_t(cp);
        }
        i += size_t(extra) + 1;
    }
    return true;
}

Text ReadText(const Source &source, const YAML::Node &node, const std::string &what, bool empty_without_nul) {
    if (node.IsMap()) source.AllowKeys(node, {"text", "max_length"}, what);
    const YAML::Node text_node = node.IsMap() ? source.Required(node, "text", what) : node;
    Text t;
    if (!Utf8ToUtf16(source.Text(text_node, what), t.units)) source.Fail(text_node, what + " is not valid UTF-8");
    if (t.units.size() > 0x7FFE) source.Fail(text_node, what + " is longer than 32766 UTF-16 units");
    t.max_length = uint32_t(t.units.size() * 2 + 2);
    if (node.IsMap() && node["max_length"]) {
        const uint32_t max = uint32_t(source.Number(node["max_length"], "max_length", 0xFFFF));
        const bool without_nul = empty_without_nul && t.units.empty();
        if (max < t.max_length && !without_nul)
            source.Fail(node["max_length"], "max_length " + Num(max) + " leaves no room for the text and its NUL (" +
                                                Num(t.max_length) + " bytes)");
        t.max_length = max;
    }
    return t;
}

YAML::Node Sequence(const Source &source, const YAML::Node &map, const char *key) {
    const YAML::Node node = map[key];
    if (!node) return YAML::Node(YAML::NodeType::Sequence);
    if (!node.IsSequence()) source.Fail(node, std::string(key) + " must be a list");
    return node;
}

std::vector<Text> ReadTexts(const Source &source, const YAML::Node &map, const char *key) {
    std::vector<Text> texts;
    const YAML::Node list = Sequence(source, map, key);
    for (size_t i = 0; i < list.size(); ++i) texts.push_back(ReadText(source, list[i], std::string("an item of ") + key));
    return texts;
}

int32_t ReadDepth(const Source &source, const YAML::Node &node, int32_t any_value) {
    if (node.IsScalar() && node.Scalar() == "any") return any_value;
    const std::string text = node.IsScalar() ? node.Scalar() : "";
    const bool negative = !text.empty() && text[0] == '-';
    const std::string magnitude = negative ? text.substr(1) : text;
    uint64_t m = 0;
    size_t used = 0;
    try {
        if (!magnitude.empty() && std::isdigit(static_cast<unsigned char>(magnitude[0])))
            m = std::stoull(magnitude, &used, 0);
    } catch (...) {
        used = 0;
    }
    if (!node.IsScalar() || used == 0 || used != magnitude.size())
        source.Fail(node, "depth must be a number or 'any', not '" + text + "'");
    if (negative ? m > 0x80000000ull : m > 0x7FFFFFFFull) source.Fail(node, "depth " + text + " is out of range");
    return negative ? int32_t(-int64_t(m)) : int32_t(m);
}

void PutStringHeader(Writer &out, size_t at, const Text &t, StringHeaderOffsets offsets) {
    out.PatchU16(at + offsets.length, uint16_t(t.units.size() * 2));
    out.PatchU16(at + offsets.maximum_length, uint16_t(t.max_length));
    // The text reference stays 0: a slot the loader fills in memory.
}

void PutText(Writer &out, const Text &t) {
    for (char16_t u : t.units) out.U16(u);
    for (size_t n = t.units.size() * 2; n < t.max_length; ++n) out.U8(0);  // the NUL, then padding
}

namespace {

void PutUtf8(std::string &out, uint32_t c) {
    if (c < 0x80) {
        out += char(c);
    } else if (c < 0x800) {
        out += char(0xC0 | c >> 6), out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += char(0xE0 | c >> 12), out += char(0x80 | (c >> 6 & 0x3F)), out += char(0x80 | (c & 0x3F));
    } else {
        out += char(0xF0 | c >> 18), out += char(0x80 | (c >> 12 & 0x3F)), out += char(0x80 | (c >> 6 & 0x3F)),
            out += char(0x80 | (c & 0x3F));
    }
}

// Characters that YAML takes as they stand inside quotes.
bool Printable(uint32_t c) {
    return (c >= 0x20 && c < 0x7F) || (c >= 0xA0 && c < 0xD800 && c != 0x2028 && c != 0x2029) ||
           (c >= 0xE000 && c < 0xFFFE && c != 0xFEFF) || c >= 0x10000;
}

}  // namespace

// Single quotes where they suffice, else double quotes with escapes for what
// single quotes cannot carry.
std::string Quote(const Text &t) {
    std::vector<uint32_t> chars;
    for (size_t i = 0; i < t.units.size(); ++i) {
        uint32_t c = t.units[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < t.units.size() && t.units[i + 1] >= 0xDC00 && t.units[i + 1] < 0xE000)
            c = 0x10000 + ((c - 0xD800) << 10) + (t.units[++i] - 0xDC00);
        else if (c >= 0xD800 && c < 0xE000)
            throw std::runtime_error("offset " + Hex(t.at + 2 * i) + ": an unpaired surrogate " + Hex(c) +
                                     " cannot be written as text");
        chars.push_back(c);
    }
    std::string out;
    if (std::all_of(chars.begin(), chars.end(), Printable)) {
        out = "'";
        for (uint32_t c : chars) {
            if (c == '\'') out += '\'';
            PutUtf8(out, c);
        }
        return out + "'";
    }
    out = "\"";
    for (uint32_t c : chars) {
        char buf[16];
        if (c == '"' || c == '\\') {
            out += '\\', out += char(c);
        } else if (Printable(c)) {
            PutUtf8(out, c);
        } else {
            std::snprintf(buf, sizeof buf, c < 0x100 ? "\\x%02X" : c < 0x10000 ? "\\u%04X" : "\\U%08X", c);
            out += buf;
        }
    }
    return out + "\"";
}

std::string Item(const Text &t) {
    const std::string quoted = Quote(t);
    if (t.max_length == t.units.size() * 2 + 2) return quoted;
    return "{text: " + quoted + ", max_length: " + Num(t.max_length) + "}";
}

std::string TextList(const std::vector<Text> &texts) {
    std::string out = "[";
    for (const auto &t : texts) out += (out.size() > 1 ? ", " : "") + Item(t);
    return out + "]";
}

std::string DepthText(int32_t depth, int32_t any_value) {
    return depth == any_value ? std::string("any") : std::to_string(depth);
}

}  // namespace tpol::detail
