// What the three formats share: errors with places, checksums, rule ids,
// file I/O, and the dispatch by top-level key or magic word.
#include "policy/format/appblocking.h"
#include "policy/format/monitor.h"
#include "policy/format/protection.h"
#include "tpol.h"
#include "yaml_support.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tpol {

SourceError::SourceError(std::string file, int line, int column, const std::string &message)
    : std::runtime_error(file + (line ? ":" + std::to_string(line) : "") + (column ? ":" + std::to_string(column) : "") +
                         ": " + message),
      file_(std::move(file)),
      line_(line),
      column_(column),
      message_(message) {}

const char *FormatName(Format format) {
    switch (format) {
        case Format::AppBlocking: return "app_blocking";
        case Format::Monitor: return "monitor";
        case Format::Protection: return "protection";
    }
    return "?";
}

uint32_t Checksum(const uint8_t *data, uint32_t length) {
    uint32_t hash = 0x811C9DC5u;
    for (uint64_t i = 0; i <= length; ++i) {
        hash ^= data[i];
        hash *= 0x01000193u;
    }
    return hash;
}

Bytes ReadFileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(path + ": cannot open");
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

void WriteFileBytes(const std::string &path, const Bytes &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error(path + ": cannot write");
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
    if (!out) throw std::runtime_error(path + ": write failed");
}

namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool ParseHex(const std::string &text, uint8_t *out, size_t bytes) {
    if (text.size() != bytes * 2) return false;
    for (size_t i = 0; i < bytes; ++i) {
        const int hi = HexValue(text[2 * i]), lo = HexValue(text[2 * i + 1]);
        if (hi < 0 || lo < 0) return false;
        out[i] = uint8_t(hi << 4 | lo);
    }
    return true;
}

}  // namespace

bool ParseRuleId(const std::string &text, uint8_t out[16]) {
    if (text.size() == 32) return ParseHex(text, out, 16);
    if (text.size() != 36 || text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-') return false;
    uint8_t d1[4], d2[2], d3[2];
    if (!ParseHex(text.substr(0, 8), d1, 4) || !ParseHex(text.substr(9, 4), d2, 2) ||
        !ParseHex(text.substr(14, 4), d3, 2) || !ParseHex(text.substr(19, 4), out + 8, 2) ||
        !ParseHex(text.substr(24, 12), out + 10, 6))
        return false;
    // Data1, Data2 and Data3 are little-endian words in a GUID's bytes.
    out[0] = d1[3], out[1] = d1[2], out[2] = d1[1], out[3] = d1[0];
    out[4] = d2[1], out[5] = d2[0];
    out[6] = d3[1], out[7] = d3[0];
    return true;
}

std::string RuleIdText(const uint8_t id[16]) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", id[3], id[2],
                  id[1], id[0], id[5], id[4], id[7], id[6], id[8], id[9], id[10], id[11], id[12], id[13], id[14],
                  id[15]);
    return buf;
}

Bytes Compile(const YAML::Node &document, const std::string &source_name) {
    Source source{source_name};
    if (!document.IsMap() || document.size() != 1)
        source.Fail(document, "a policy document has exactly one top-level key: app_blocking, monitor or protection");
    const auto key = document.begin()->first.as<std::string>();
    const YAML::Node body = document.begin()->second;
    if (key == "app_blocking") return detail::CompileAppBlocking(body, source_name);
    if (key == "monitor") return detail::CompileMonitor(body, source_name);
    if (key == "protection") return detail::CompileProtection(body, source_name);
    source.Fail(document.begin()->first,
                "unknown policy kind '" + key + "' (expected app_blocking, monitor or protection)");
}

Bytes CompileText(const std::string &yaml_text, const std::string &source_name) {
    YAML::Node document;
    try {
        document = YAML::Load(yaml_text);
    } catch (const YAML::Exception &e) {
        throw SourceError(source_name, e.mark.line + 1, e.mark.column + 1, e.msg);
    }
    return Compile(document, source_name);
}

Bytes CompileFile(const std::string &path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error(path + ": cannot open");
    std::stringstream text;
    text << in.rdbuf();
    return CompileText(text.str(), path);
}

Format DetectFormat(const Bytes &binary) {
    if (binary.size() < 4) throw std::runtime_error("file is " + std::to_string(binary.size()) + " bytes: no magic word");
    uint32_t magic;
    std::memcpy(&magic, binary.data(), 4);
    static_assert(AppBlockingFormat::Header::Magic == 0 && MonitorFormat::PolicyHeader::Magic == 0 &&
                  ProtectionFormat::Header::Magic == 0);
    if (magic == AppBlockingFormat::PolicyMagic) return Format::AppBlocking;
    if (magic == MonitorFormat::PolicyMagic) return Format::Monitor;
    // A protection policy of another version is still one: check says which
    // version the loader wants, instead of calling the word unknown.
    if ((magic & ~ProtectionFormat::MagicVersionMask) ==
        (ProtectionFormat::PolicyMagic & ~ProtectionFormat::MagicVersionMask))
        return Format::Protection;
    char buf[64];
    std::snprintf(buf, sizeof buf, "unknown magic word 0x%08X at offset 0", magic);
    throw std::runtime_error(buf);
}

std::string Dump(const Bytes &binary) {
    switch (DetectFormat(binary)) {
        case Format::AppBlocking: return detail::DumpAppBlocking(binary);
        case Format::Monitor: return detail::DumpMonitor(binary);
        case Format::Protection: return detail::DumpProtection(binary);
    }
    throw std::logic_error("a format without a dump");
}

void Reseal(Bytes &binary) {
    // Header size, where the length of the checksummed area stands, and
    // where its checksum does.
    struct Seal {
        size_t header, length_at, sum_at;
    } seal{};
    switch (DetectFormat(binary)) {
        case Format::AppBlocking:
            seal = {AppBlockingFormat::Header::Size, AppBlockingFormat::Header::DataSize,
                    AppBlockingFormat::Header::Checksum};
            break;
        case Format::Monitor:
            seal = {MonitorFormat::PolicyHeader::Size, MonitorFormat::PolicyHeader::BodyLength,
                    MonitorFormat::PolicyHeader::BodyChecksum};
            break;
        case Format::Protection:
            seal = {ProtectionFormat::Header::Size, ProtectionFormat::Header::DataSize,
                    ProtectionFormat::Header::Checksum};
            break;
    }
    Reader in{binary};
    if (!in.Has(0, seal.header)) throw std::runtime_error("file shorter than its header");
    const uint32_t length = in.U32(seal.length_at);
    if (!in.Has(seal.header, uint64_t(length) + 1))
        throw std::runtime_error("the checksummed area (" + std::to_string(length) + " + 1 bytes) runs past the end");
    const uint32_t sum = Checksum(binary.data() + seal.header, length);
    for (int i = 0; i < 4; ++i) binary[seal.sum_at + i] = uint8_t(sum >> (8 * i));
}

std::vector<Finding> Check(const Bytes &binary) {
    Format format;
    try {
        format = DetectFormat(binary);
    } catch (const std::exception &e) {
        return {{Finding::Error, 0, e.what()}};
    }
    switch (format) {
        case Format::AppBlocking: return detail::CheckAppBlocking(binary);
        case Format::Monitor: return detail::CheckMonitor(binary);
        case Format::Protection: return detail::CheckProtection(binary);
    }
    throw std::logic_error("a format without a check");
}

}  // namespace tpol
