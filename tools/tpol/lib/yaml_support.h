// Reading policy sources: every error names the file, the line and what was
// expected; unknown keys are errors, so a typo never passes silently.
#pragma once

#include "tpol.h"

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <initializer_list>
#include <string>

namespace tpol {

struct Source {
    std::string name;

    [[noreturn]] void Fail(const YAML::Node &node, const std::string &message) const {
        const auto mark = node.Mark();
        const bool known = !node.IsNull() || mark.line >= 0;
        throw SourceError(name, known && mark.line >= 0 ? mark.line + 1 : 0, known && mark.column >= 0 ? mark.column + 1 : 0,
                          message);
    }

    void ExpectMap(const YAML::Node &node, const std::string &what) const {
        if (!node.IsMap()) Fail(node, what + " must be a mapping");
    }

    void AllowKeys(const YAML::Node &map, std::initializer_list<const char *> allowed, const std::string &what) const {
        for (auto it = map.begin(); it != map.end(); ++it) {
            const auto key = it->first.as<std::string>();
            bool known = false;
            for (const char *a : allowed) known = known || key == a;
            if (!known) {
                std::string list;
                for (const char *a : allowed) list += std::string(list.empty() ? "" : ", ") + a;
                Fail(it->first, "unknown key '" + key + "' in " + what + " (expected one of: " + list + ")");
            }
        }
    }

    // An unsigned number: decimal, or hexadecimal with 0x.
    uint64_t Number(const YAML::Node &node, const std::string &what, uint64_t max = UINT64_MAX) const {
        if (!node.IsScalar()) Fail(node, what + " must be a number");
        const std::string text = node.Scalar();
        uint64_t value = 0;
        size_t used = 0;
        try {
            value = std::stoull(text, &used, 0);
        } catch (...) {
            used = 0;
        }
        if (used == 0 || used != text.size() || text[0] == '-') Fail(node, what + " must be a number, not '" + text + "'");
        if (value > max) Fail(node, what + " " + text + " is out of range (at most " + std::to_string(max) + ")");
        return value;
    }

    // An optional numeric field of a mapping.
    uint64_t Field(const YAML::Node &map, const char *key, uint64_t fallback, uint64_t max = UINT64_MAX) const {
        const YAML::Node node = map[key];
        return node ? Number(node, std::string(key), max) : fallback;
    }

    std::string Text(const YAML::Node &node, const std::string &what) const {
        if (!node.IsScalar()) Fail(node, what + " must be a string");
        return node.Scalar();
    }

    YAML::Node Required(const YAML::Node &map, const char *key, const std::string &what) const {
        const YAML::Node node = map[key];
        if (!node) Fail(map, what + " needs '" + key + "'");
        return node;
    }
};

// Little-endian writer.
struct Writer {
    Bytes bytes;
    void U8(uint8_t v) { bytes.push_back(v); }
    void U16(uint16_t v) {
        U8(uint8_t(v));
        U8(uint8_t(v >> 8));
    }
    void U32(uint32_t v) {
        U16(uint16_t(v));
        U16(uint16_t(v >> 16));
    }
    void U64(uint64_t v) {
        U32(uint32_t(v));
        U32(uint32_t(v >> 32));
    }
    void Raw(const uint8_t *p, size_t n) { bytes.insert(bytes.end(), p, p + n); }
    // A record's fixed part: n zero bytes, whose offset the fields are then
    // patched at, each at its place in the format's layout. What no patch
    // touches (reserved words, text reference slots) stays zero.
    size_t Zeros(size_t n) {
        const size_t at = bytes.size();
        bytes.resize(at + n, 0);
        return at;
    }
    void PatchU16(size_t offset, uint16_t v) {
        for (int i = 0; i < 2; ++i) bytes.at(offset + i) = uint8_t(v >> (8 * i));
    }
    void PatchU32(size_t offset, uint32_t v) {
        for (int i = 0; i < 4; ++i) bytes.at(offset + i) = uint8_t(v >> (8 * i));
    }
    void PatchU64(size_t offset, uint64_t v) {
        for (int i = 0; i < 8; ++i) bytes.at(offset + i) = uint8_t(v >> (8 * i));
    }
    void PatchRaw(size_t offset, const uint8_t *p, size_t n) {
        for (size_t i = 0; i < n; ++i) bytes.at(offset + i) = p[i];
    }
    size_t Size() const { return bytes.size(); }
};

// Little-endian reader that refuses to read past the end.
struct Reader {
    const Bytes &bytes;
    bool Has(uint64_t offset, uint64_t size) const { return offset <= bytes.size() && size <= bytes.size() - offset; }
    uint32_t U32(uint64_t offset) const {
        uint32_t v = 0;
        for (int i = 3; i >= 0; --i) v = v << 8 | bytes.at(offset + i);
        return v;
    }
    uint16_t U16(uint64_t offset) const { return uint16_t(bytes.at(offset) | bytes.at(offset + 1) << 8); }
    uint64_t U64(uint64_t offset) const { return U32(offset) | uint64_t(U32(offset + 4)) << 32; }
};

std::string Hex(uint64_t value);

}  // namespace tpol
