// The app-blocking policy format (magic 0x54425001): a 32-byte header, then
// one record per rule with its SHA-256 digests as 64 UTF-16 hex digits.
#include "tpol.h"
#include "yaml_support.h"

#include <cstdio>
#include <sstream>

namespace tpol {

std::string Hex(uint64_t value) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llX", static_cast<unsigned long long>(value));
    return buf;
}

namespace detail {
namespace {

constexpr uint32_t kMagic = 0x54425001, kRuleMagic = 0x42524801, kBodyMagic = 0x42525001, kHashMagic = 0x42465301;
constexpr uint32_t kHeaderSize = 32, kRecordFixed = 40, kEntrySize = 138;

bool IsHexDigest(const std::string &text) {
    if (text.size() != 64) return false;
    for (char c : text)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

}  // namespace

Bytes CompileAppBlocking(const YAML::Node &body, const std::string &source_name) {
    Source source{source_name};
    source.ExpectMap(body, "app_blocking");
    source.AllowKeys(body, {"flags", "tag", "rules", "rule_count", "reserved"}, "app_blocking");
    const uint64_t flags = source.Field(body, "flags", 0);
    const uint32_t tag = uint32_t(source.Field(body, "tag", 0, UINT32_MAX));
    const YAML::Node rules = body["rules"];
    if (rules && !rules.IsSequence()) source.Fail(rules, "rules must be a list");
    const size_t count = rules ? rules.size() : 0;

    Writer out;
    out.U32(kMagic);
    out.U32(0);  // checksum, below
    out.U32(0);  // DataSize, below
    out.U32(uint32_t(source.Field(body, "reserved", 0, UINT32_MAX)));
    out.U64(flags);
    out.U32(uint32_t(source.Field(body, "rule_count", count, UINT32_MAX)));
    out.U32(tag);

    for (size_t r = 0; r < count; ++r) {
        const YAML::Node rule = rules[r];
        source.ExpectMap(rule, "a rule");
        source.AllowKeys(rule, {"id", "type", "category", "sha256"}, "a rule");
        uint8_t id[16];
        const YAML::Node id_node = source.Required(rule, "id", "a rule");
        if (!ParseRuleId(source.Text(id_node, "id"), id))
            source.Fail(id_node, "id must be GUID text (6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10) or 32 hex digits");
        const YAML::Node hashes = rule["sha256"];
        if (hashes && !hashes.IsSequence()) source.Fail(hashes, "sha256 must be a list of digests");
        const size_t hash_count = hashes ? hashes.size() : 0;
        const size_t start = out.Size();
        out.U32(kRuleMagic);
        out.U32(uint32_t(kRecordFixed + kEntrySize * hash_count));
        out.U32(uint32_t(source.Field(rule, "category", 0, UINT32_MAX)));
        out.U32(uint32_t(source.Field(rule, "type", 6, UINT32_MAX)));
        out.Raw(id, 16);
        out.U32(kBodyMagic);
        out.U32(uint32_t(hash_count));
        for (size_t h = 0; h < hash_count; ++h) {
            const std::string digest = source.Text(hashes[h], "a digest");
            if (!IsHexDigest(digest))
                source.Fail(hashes[h], "a SHA-256 digest is 64 hexadecimal digits, not '" + digest + "'");
            out.U32(kHashMagic);
            out.U32(0);  // text reference: a slot the reader fills in memory
            for (char c : digest) out.U16(uint16_t(static_cast<unsigned char>(c)));
            out.U16(0);
        }
        (void)start;
    }
    const uint32_t data_size = uint32_t(out.Size() - kHeaderSize);
    // The checksum covers the byte behind the records too: it is written.
    out.U8(0);
    out.PatchU32(8, data_size);
    out.PatchU32(4, Checksum(out.bytes.data() + kHeaderSize, data_size));
    return out.bytes;
}

std::string DumpAppBlocking(const Bytes &binary) {
    Reader in{binary};
    if (!in.Has(0, kHeaderSize)) throw std::runtime_error("offset 0x0: file shorter than the 32-byte header");
    const uint32_t data_size = in.U32(8);
    if (!in.Has(kHeaderSize, uint64_t(data_size) + 1))
        throw std::runtime_error("offset 0x8: DataSize " + std::to_string(data_size) + " runs past the end of the file");
    std::ostringstream out;
    out << "app_blocking:\n";
    out << "  flags: " << Hex(in.U64(16)) << "\n";
    out << "  tag: " << Hex(in.U32(28)) << "\n";
    if (in.U32(12) != 0) out << "  reserved: " << Hex(in.U32(12)) << "\n";
    std::ostringstream rules;
    size_t count = 0;
    for (uint64_t offset = 0; offset < data_size;) {
        const uint64_t at = kHeaderSize + offset;
        if (!in.Has(at, kRecordFixed) || offset + kRecordFixed > data_size)
            throw std::runtime_error("offset " + Hex(at) + ": a record runs past DataSize");
        if (in.U32(at) != kRuleMagic) throw std::runtime_error("offset " + Hex(at) + ": rule magic " + Hex(in.U32(at)));
        if (in.U32(at + 32) != kBodyMagic)
            throw std::runtime_error("offset " + Hex(at + 32) + ": body magic " + Hex(in.U32(at + 32)));
        const uint32_t record_size = in.U32(at + 4), hash_count = in.U32(at + 36);
        if (record_size != kRecordFixed + uint64_t(kEntrySize) * hash_count || offset + record_size > data_size)
            throw std::runtime_error("offset " + Hex(at + 4) + ": RecordSize " + std::to_string(record_size) +
                                     " does not hold exactly its " + std::to_string(hash_count) + " digests");
        uint8_t id[16];
        for (int i = 0; i < 16; ++i) id[i] = binary[at + 16 + i];
        rules << "    - id: " << RuleIdText(id) << "\n";
        if (in.U32(at + 12) != 6) rules << "      type: " << in.U32(at + 12) << "\n";
        if (in.U32(at + 8) != 0) rules << "      category: " << in.U32(at + 8) << "\n";
        rules << "      sha256:" << (hash_count ? "\n" : " []\n");
        for (uint32_t h = 0; h < hash_count; ++h) {
            const uint64_t entry = at + kRecordFixed + uint64_t(h) * kEntrySize;
            if (in.U32(entry) != kHashMagic)
                throw std::runtime_error("offset " + Hex(entry) + ": digest entry magic " + Hex(in.U32(entry)));
            std::string digest;
            for (int c = 0; c < 64; ++c) {
                const uint16_t unit = in.U16(entry + 8 + 2 * c);
                digest += unit < 0x80 ? char(unit) : '?';
            }
            if (!IsHexDigest(digest) || in.U32(entry + 4) != 0 || in.U16(entry + 136) != 0)
                throw std::runtime_error("offset " + Hex(entry) + ": digest entry is not what a writer produces");
            rules << "        - " << digest << "\n";
        }
        ++count;
        offset += record_size;
    }
    if (in.U32(24) != count) out << "  rule_count: " << in.U32(24) << "\n";
    out << "  rules:" << (count ? "\n" : " []\n") << rules.str();
    if (binary[kHeaderSize + data_size] != 0 || binary.size() != kHeaderSize + uint64_t(data_size) + 1)
        throw std::runtime_error("offset " + Hex(kHeaderSize + data_size) +
                                 ": the file does not end with the single zero byte a writer adds");
    if (Checksum(binary.data() + kHeaderSize, data_size) != in.U32(4))
        throw std::runtime_error("offset 0x4: checksum does not hold");
    return out.str();
}

std::vector<Finding> CheckAppBlocking(const Bytes &binary) {
    std::vector<Finding> found;
    auto error = [&](uint64_t at, const std::string &m) { found.push_back({Finding::Error, at, m}); };
    auto warn = [&](uint64_t at, const std::string &m) { found.push_back({Finding::Warning, at, m}); };
    Reader in{binary};
    if (!in.Has(0, kHeaderSize)) {
        error(0, "file is " + std::to_string(binary.size()) + " bytes, shorter than the 32-byte header");
        return found;
    }
    const uint32_t data_size = in.U32(8), rule_count = in.U32(24);
    if (!in.Has(kHeaderSize, uint64_t(data_size) + 1)) {
        error(8, "DataSize " + std::to_string(data_size) + " needs a file of " +
                     std::to_string(uint64_t(kHeaderSize) + data_size + 1) + " bytes; the file has " +
                     std::to_string(binary.size()));
        return found;
    }
    if (Checksum(binary.data() + kHeaderSize, data_size) != in.U32(4))
        error(4, "checksum " + Hex(in.U32(4)) + " does not match the records (" +
                     Hex(Checksum(binary.data() + kHeaderSize, data_size)) + ")");
    if (rule_count == 0 && data_size == 0) error(24, "no rules and no records: the library refuses such a policy");
    uint32_t records = 0;
    for (uint64_t offset = 0; offset < data_size;) {
        const uint64_t at = kHeaderSize + offset;
        if (offset + kRecordFixed > data_size) {
            error(at, "a record's fixed 40 bytes run past DataSize");
            break;
        }
        if (in.U32(at) != kRuleMagic) {
            error(at, "rule magic " + Hex(in.U32(at)) + ", expected " + Hex(kRuleMagic));
            break;
        }
        if (in.U32(at + 8) != 0) error(at + 8, "rule category " + std::to_string(in.U32(at + 8)) + " must be 0");
        if (in.U32(at + 12) != 6)
            warn(at + 12, "rule type " + std::to_string(in.U32(at + 12)) + " loads, but every match that reaches it fails");
        if (in.U32(at + 32) != kBodyMagic) {
            error(at + 32, "body magic " + Hex(in.U32(at + 32)) + ", expected " + Hex(kBodyMagic));
            break;
        }
        const uint32_t record_size = in.U32(at + 4), hash_count = in.U32(at + 36);
        if (record_size == 0) {
            error(at + 4, "RecordSize 0");
            break;
        }
        if (offset + record_size > data_size) error(at + 4, "RecordSize " + std::to_string(record_size) + " runs past DataSize");
        if (kRecordFixed + uint64_t(kEntrySize) * hash_count > record_size) {
            error(at + 36, "HashCount " + std::to_string(hash_count) + " runs past the record");
            break;
        }
        if (hash_count == 0) warn(at + 36, "a rule without digests loads, but every match that reaches it fails");
        for (uint32_t h = 0; h < hash_count; ++h) {
            const uint64_t entry = at + kRecordFixed + uint64_t(h) * kEntrySize;
            if (in.U32(entry) != kHashMagic) {
                error(entry, "digest entry magic " + Hex(in.U32(entry)) + ", expected " + Hex(kHashMagic));
                break;
            }
            std::string digest;
            for (int c = 0; c < 64; ++c) {
                const uint16_t unit = in.U16(entry + 8 + 2 * c);
                digest += unit < 0x80 && unit != 0 ? char(unit) : '?';
            }
            if (!IsHexDigest(digest))
                warn(entry + 8, "digest text '" + digest + "' is not 64 hex digits; it matches nothing reliably");
        }
        ++records;
        if (records > rule_count) error(at, "more records than RuleCount " + std::to_string(rule_count));
        offset += record_size;
    }
    return found;
}

}  // namespace detail
}  // namespace tpol
