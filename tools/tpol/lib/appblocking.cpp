// The app-blocking policy format (policy/format/appblocking.h): a header,
// then one record per rule with its SHA-256 digests as 64 UTF-16 hex digits.
#include "policy/format/appblocking.h"
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

// Every number of the file comes from the format's header, which the
// library's parser reads the file with.
namespace af = AppBlockingFormat;
namespace hd = AppBlockingFormat::Header;
namespace rr = AppBlockingFormat::RuleRecord;
namespace he = AppBlockingFormat::HashEntry;

bool IsHexDigest(const std::string &text) {
    if (text.size() != af::DigestChars) return false;
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

    // Each fixed part is laid down as zeros and its fields patched in at
    // their offsets in the format's layout.
    Writer out;
    out.Zeros(hd::Size);
    out.PatchU32(hd::Magic, af::PolicyMagic);
    // The checksum and DataSize, below.
    out.PatchU32(hd::Reserved, uint32_t(source.Field(body, "reserved", 0, UINT32_MAX)));
    out.PatchU64(hd::PolicyFlags, flags);
    out.PatchU32(hd::RuleCount, uint32_t(source.Field(body, "rule_count", count, UINT32_MAX)));
    out.PatchU32(hd::PolicyTag, tag);

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
        const size_t start = out.Zeros(rr::Size);
        out.PatchU32(start + rr::Magic, af::RuleMagic);
        out.PatchU32(start + rr::RecordSize, uint32_t(rr::Size + he::Size * hash_count));
        out.PatchU32(start + rr::RuleCategory,
                     uint32_t(source.Field(rule, "category", af::RuleCategoryProcess, UINT32_MAX)));
        out.PatchU32(start + rr::RuleType, uint32_t(source.Field(rule, "type", af::RuleTypeProcess, UINT32_MAX)));
        out.PatchRaw(start + rr::RuleId, id, sizeof id);
        out.PatchU32(start + rr::BodyMagic, af::BodyMagic);
        out.PatchU32(start + rr::HashCount, uint32_t(hash_count));
        for (size_t h = 0; h < hash_count; ++h) {
            const std::string digest = source.Text(hashes[h], "a digest");
            if (!IsHexDigest(digest))
                source.Fail(hashes[h], "a SHA-256 digest is 64 hexadecimal digits, not '" + digest + "'");
            const size_t entry = out.Zeros(he::Size);
            out.PatchU32(entry + he::Magic, af::HashMagic);
            // The text reference stays 0: a slot the reader fills in memory.
            for (size_t c = 0; c < digest.size(); ++c)
                out.PatchU16(entry + he::Digest + 2 * c, uint16_t(static_cast<unsigned char>(digest[c])));
            // The terminator stays 0.
        }
    }
    const uint32_t data_size = uint32_t(out.Size() - hd::Size);
    // The checksum covers the byte behind the records too: it is written.
    out.U8(0);
    out.PatchU32(hd::DataSize, data_size);
    out.PatchU32(hd::Checksum, Checksum(out.bytes.data() + hd::Size, data_size));
    return out.bytes;
}

std::string DumpAppBlocking(const Bytes &binary) {
    Reader in{binary};
    if (!in.Has(0, hd::Size))
        throw std::runtime_error("offset 0x0: file shorter than the " + std::to_string(hd::Size) + "-byte header");
    const uint32_t data_size = in.U32(hd::DataSize);
    if (!in.Has(hd::Size, uint64_t(data_size) + 1))
        throw std::runtime_error("offset " + Hex(hd::DataSize) + ": DataSize " + std::to_string(data_size) +
                                 " runs past the end of the file");
    std::ostringstream out;
    out << "app_blocking:\n";
    out << "  flags: " << Hex(in.U64(hd::PolicyFlags)) << "\n";
    out << "  tag: " << Hex(in.U32(hd::PolicyTag)) << "\n";
    if (in.U32(hd::Reserved) != 0) out << "  reserved: " << Hex(in.U32(hd::Reserved)) << "\n";
    std::ostringstream rules;
    size_t count = 0;
    for (uint64_t offset = 0; offset < data_size;) {
        const uint64_t at = hd::Size + offset;
        if (!in.Has(at, rr::Size) || offset + rr::Size > data_size)
            throw std::runtime_error("offset " + Hex(at) + ": a record runs past DataSize");
        if (in.U32(at + rr::Magic) != af::RuleMagic)
            throw std::runtime_error("offset " + Hex(at) + ": rule magic " + Hex(in.U32(at + rr::Magic)));
        if (in.U32(at + rr::BodyMagic) != af::BodyMagic)
            throw std::runtime_error("offset " + Hex(at + rr::BodyMagic) + ": body magic " +
                                     Hex(in.U32(at + rr::BodyMagic)));
        const uint32_t record_size = in.U32(at + rr::RecordSize), hash_count = in.U32(at + rr::HashCount);
        if (record_size != rr::Size + uint64_t(he::Size) * hash_count || offset + record_size > data_size)
            throw std::runtime_error("offset " + Hex(at + rr::RecordSize) + ": RecordSize " +
                                     std::to_string(record_size) + " does not hold exactly its " +
                                     std::to_string(hash_count) + " digests");
        uint8_t id[16];
        for (size_t i = 0; i < sizeof id; ++i) id[i] = binary[at + rr::RuleId + i];
        rules << "    - id: " << RuleIdText(id) << "\n";
        if (in.U32(at + rr::RuleType) != af::RuleTypeProcess)
            rules << "      type: " << in.U32(at + rr::RuleType) << "\n";
        if (in.U32(at + rr::RuleCategory) != af::RuleCategoryProcess)
            rules << "      category: " << in.U32(at + rr::RuleCategory) << "\n";
        rules << "      sha256:" << (hash_count ? "\n" : " []\n");
        for (uint32_t h = 0; h < hash_count; ++h) {
            const uint64_t entry = at + rr::Size + uint64_t(h) * he::Size;
            if (in.U32(entry + he::Magic) != af::HashMagic)
                throw std::runtime_error("offset " + Hex(entry) + ": digest entry magic " +
                                         Hex(in.U32(entry + he::Magic)));
            std::string digest;
            for (uint32_t c = 0; c < af::DigestChars; ++c) {
                const uint16_t unit = in.U16(entry + he::Digest + 2 * c);
                digest += unit < 0x80 ? char(unit) : '?';
            }
            if (!IsHexDigest(digest) || in.U32(entry + he::TextReference) != 0 || in.U16(entry + he::Terminator) != 0)
                throw std::runtime_error("offset " + Hex(entry) + ": digest entry is not what a writer produces");
            rules << "        - " << digest << "\n";
        }
        ++count;
        offset += record_size;
    }
    if (in.U32(hd::RuleCount) != count) out << "  rule_count: " << in.U32(hd::RuleCount) << "\n";
    out << "  rules:" << (count ? "\n" : " []\n") << rules.str();
    if (binary[hd::Size + data_size] != 0 || binary.size() != hd::Size + uint64_t(data_size) + 1)
        throw std::runtime_error("offset " + Hex(hd::Size + data_size) +
                                 ": the file does not end with the single zero byte a writer adds");
    if (Checksum(binary.data() + hd::Size, data_size) != in.U32(hd::Checksum))
        throw std::runtime_error("offset " + Hex(hd::Checksum) + ": checksum does not hold");
    return out.str();
}

std::vector<Finding> CheckAppBlocking(const Bytes &binary) {
    std::vector<Finding> found;
    auto error = [&](uint64_t at, const std::string &m) { found.push_back({Finding::Error, at, m}); };
    auto warn = [&](uint64_t at, const std::string &m) { found.push_back({Finding::Warning, at, m}); };
    Reader in{binary};
    if (!in.Has(0, hd::Size)) {
        error(0, "file is " + std::to_string(binary.size()) + " bytes, shorter than the " + std::to_string(hd::Size) +
                     "-byte header");
        return found;
    }
    const uint32_t data_size = in.U32(hd::DataSize), rule_count = in.U32(hd::RuleCount);
    if (!in.Has(hd::Size, uint64_t(data_size) + 1)) {
        error(hd::DataSize, "DataSize " + std::to_string(data_size) + " needs a file of " +
                                std::to_string(uint64_t(hd::Size) + data_size + 1) + " bytes; the file has " +
                                std::to_string(binary.size()));
        return found;
    }
    if (Checksum(binary.data() + hd::Size, data_size) != in.U32(hd::Checksum))
        error(hd::Checksum, "checksum " + Hex(in.U32(hd::Checksum)) + " does not match the records (" +
                                Hex(Checksum(binary.data() + hd::Size, data_size)) + ")");
    if (rule_count == 0 && data_size == 0)
        error(hd::RuleCount, "no rules and no records: the library refuses such a policy");
    uint32_t records = 0;
    for (uint64_t offset = 0; offset < data_size;) {
        const uint64_t at = hd::Size + offset;
        if (offset + rr::Size > data_size) {
            error(at, "a record's fixed " + std::to_string(rr::Size) + " bytes run past DataSize");
            break;
        }
        if (in.U32(at + rr::Magic) != af::RuleMagic) {
            error(at, "rule magic " + Hex(in.U32(at + rr::Magic)) + ", expected " + Hex(af::RuleMagic));
            break;
        }
        const uint32_t category = in.U32(at + rr::RuleCategory), type = in.U32(at + rr::RuleType);
        if (category != af::RuleCategoryProcess)
            error(at + rr::RuleCategory, "rule category " + std::to_string(category) + " must be " +
                                             std::to_string(af::RuleCategoryProcess));
        if (type != af::RuleTypeProcess)
            warn(at + rr::RuleType,
                 "rule type " + std::to_string(type) + " loads, but every match that reaches it fails");
        if (in.U32(at + rr::BodyMagic) != af::BodyMagic) {
            error(at + rr::BodyMagic,
                  "body magic " + Hex(in.U32(at + rr::BodyMagic)) + ", expected " + Hex(af::BodyMagic));
            break;
        }
        const uint32_t record_size = in.U32(at + rr::RecordSize), hash_count = in.U32(at + rr::HashCount);
        if (record_size == 0) {
            error(at + rr::RecordSize, "RecordSize 0");
            break;
        }
        if (offset + record_size > data_size)
            error(at + rr::RecordSize, "RecordSize " + std::to_string(record_size) + " runs past DataSize");
        if (rr::Size + uint64_t(he::Size) * hash_count > record_size) {
            error(at + rr::HashCount, "HashCount " + std::to_string(hash_count) + " runs past the record");
            break;
        }
        if (hash_count == 0)
            warn(at + rr::HashCount, "a rule without digests loads, but every match that reaches it fails");
        for (uint32_t h = 0; h < hash_count; ++h) {
            const uint64_t entry = at + rr::Size + uint64_t(h) * he::Size;
            if (in.U32(entry + he::Magic) != af::HashMagic) {
                error(entry, "digest entry magic " + Hex(in.U32(entry + he::Magic)) + ", expected " + Hex(af::HashMagic));
                break;
            }
            std::string digest;
            for (uint32_t c = 0; c < af::DigestChars; ++c) {
                const uint16_t unit = in.U16(entry + he::Digest + 2 * c);
                digest += unit < 0x80 && unit != 0 ? char(unit) : '?';
            }
            if (!IsHexDigest(digest))
                warn(entry + he::Digest,
                     "digest text '" + digest + "' is not 64 hex digits; it matches nothing reliably");
        }
        ++records;
        if (records > rule_count) error(at, "more records than RuleCount " + std::to_string(rule_count));
        offset += record_size;
    }
    return found;
}

}  // namespace detail
}  // namespace tpol
