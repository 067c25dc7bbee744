// The self-protection policy format (policy/format/protection.h): a header
// with the mask and one rule count per set, then one record per rule, each
// with the body of its kind (directory, registry or process) and its two
// filter lists, and one zero byte that the checksum covers.
//
// Source, under the top-level key `protection:`:
//
//   mask               ProtectionMask, required: a forgotten mask would
//                      switch every protection class off without a word.
//   directory_count, registry_count, process_count
//                      the header's rule counts, which size the loader's
//                      sets. Default: the number of records of each kind.
//   directories, registry, processes
//                      the rules of each kind, written in this order.
//   rules              instead of the three: rules of any kind, written in
//                      the order given; each names its `kind`.
//
// A rule:
//   kind          directory (0), registry (1), process (2) or any number:
//                 the ProtectionKind word. In the three lists it defaults to
//                 the list's kind; in `rules` it is required.
//   body          rules only: directory, registry or process, the body that
//                 follows. Default: the kind's own; required for a kind
//                 above 2. Under the three lists the list says it.
//   type          RuleType, required
//   record_size   writes this RecordSize instead of the record's real size,
//                 to make files that are sealed but malformed.
//   path          required
//   second_path   directory: default '' (which still takes its two bytes of
//                 NUL); {text: '', max_length: 0} writes one without a NUL,
//                 which the loader never reads.
//   depth         signed, or `any` (-2), the default
//   process_names process: [text]
//   include       list A: filters, each {value: N, patterns: [text]}
//   exclude       list B: the same
//
// A text is UTF-8 in the source and UTF-16LE in the file, NUL-terminated,
// MaximumLength = Length + 2; {text: '...', max_length: N} writes a larger
// MaximumLength and pads with zeros. Text reference slots and reserved words
// are written as 0.
//
// `dump` prints every field, and what it prints compiles to the same bytes;
// a file it cannot print that way is refused with the offset. `check` walks
// the records as the loader does and names what the loader refuses (errors)
// or takes without using (warnings).
#include "policy/format/protection.h"
#include "text_support.h"
#include "tpol.h"
#include "walk_support.h"
#include "yaml_support.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <sstream>

namespace tpol {
namespace detail {
namespace {

// Every number of the file comes from the format's header, which the
// library's parser reads the file with.
namespace pf = ProtectionFormat;
namespace hd = ProtectionFormat::Header;
namespace rr = ProtectionFormat::RuleRecord;

constexpr StringHeaderOffsets kStrings{pf::StringHeader::Length, pf::StringHeader::MaximumLength};

enum Kind : uint32_t { kDirectory = pf::KindDirectory, kRegistry = pf::KindRegistry, kProcess = pf::KindProcess };

// The RuleTypes each set's matcher takes: any other ends its walk with an
// error, so a rule of another type loads and then fails every match that
// reaches it.
bool TypeMatched(uint32_t kind, uint32_t type) {
    switch (kind) {
        case kDirectory: return type == 2 || type == 3;  // file, directory
        case kRegistry: return type == 4;
        case kProcess: return type == 6;
    }
    return false;
}
constexpr const char *kTypesTaken[pf::KindCount] = {"2 or 3", "4", "6"};

struct KindInfo {
    const char *name;        // in sources, of a kind and of a body
    const char *list;        // the source's list of the rules of this kind
    const char *count_key;   // the source's key for the header count
    const char *count_name;  // the header field
    uint32_t count_at;
    uint32_t body_magic, body_size;
    // What the loader's event log says of a wrong body magic: the process
    // body is reported under the registry body's label.
    const char *body_label;
};
// By kind number.
constexpr KindInfo kKinds[pf::KindCount] = {
    {"directory", "directories", "directory_count", "DirectoryRuleCount", hd::DirectoryRuleCount,
     pf::DirectoryBodyMagic, pf::DirectoryBody::Size, "Self-Protection Directory Rule Body Header"},
    {"registry", "registry", "registry_count", "RegistryRuleCount", hd::RegistryRuleCount, pf::RegistryBodyMagic,
     pf::RegistryBody::Size, "Self-Protection Registry Rule Body Header"},
    {"process", "processes", "process_count", "ProcessRuleCount", hd::ProcessRuleCount, pf::ProcessBodyMagic,
     pf::ProcessBody::Size, "Self-Protection Registry Rule Body Header"},
};
static_assert(kKinds[kDirectory].body_magic == pf::DirectoryBodyMagic &&
              kKinds[kRegistry].body_magic == pf::RegistryBodyMagic &&
              kKinds[kProcess].body_magic == pf::ProcessBodyMagic);

// What a policy holds, as the file holds it.
struct Filter {
    uint32_t value = 0;
    std::vector<Text> patterns;
};

struct Rule {
    uint32_t body = kDirectory;  // the layout that follows the rule record
    uint32_t kind = kDirectory;  // the ProtectionKind word
    uint32_t type = 0;
    std::optional<uint32_t> record_size;
    int32_t depth = pf::DepthAny;
    Text path, second_path;
    std::vector<Text> names;
    std::vector<Filter> include, exclude;
};

struct Policy {
    uint32_t mask = 0;
    std::optional<uint32_t> counts[pf::KindCount];  // by kind; unset: the number of records of the kind
    std::vector<Rule> rules;

    uint32_t Count(uint32_t kind) const {
        if (counts[kind]) return *counts[kind];
        return uint32_t(std::count_if(rules.begin(), rules.end(), [&](const Rule &r) { return r.kind == kind; }));
    }
};

// ---- Writing ----
//
// Each record's fixed part is laid down as zeros and its fields patched in
// at their offsets in the format's layout; what follows a fixed part (texts,
// names, lists) is appended in file order.

void PutTextRecord(Writer &out, uint32_t magic, const Text &t) {
    const size_t at = out.Zeros(pf::TextRecord::Size);
    out.PatchU32(at + pf::TextRecord::Magic, magic);
    PutStringHeader(out, at + pf::TextRecord::Text, t, kStrings);
    PutText(out, t);
}

void PutFilters(Writer &out, const std::vector<Filter> &filters) {
    for (const auto &f : filters) {
        const size_t at = out.Zeros(pf::Filter::Size);
        out.PatchU32(at + pf::Filter::Magic, pf::FilterMagic);
        out.PatchU32(at + pf::Filter::Value, f.value);
        out.PatchU32(at + pf::Filter::PatternCount, uint32_t(f.patterns.size()));
        for (const auto &p : f.patterns) PutTextRecord(out, pf::PatternMagic, p);
    }
}

void PutRule(Writer &out, const Rule &r) {
    const size_t start = out.Zeros(rr::Size);
    out.PatchU32(start + rr::Magic, pf::RuleMagic);
    // RecordSize, below
    out.PatchU32(start + rr::ProtectionKind, r.kind);
    out.PatchU32(start + rr::RuleType, r.type);
    const uint32_t list_a = uint32_t(r.include.size()), list_b = uint32_t(r.exclude.size());
    const size_t body = out.Zeros(kKinds[r.body].body_size);
    switch (r.body) {
        case kDirectory: {
            namespace b = pf::DirectoryBody;
            out.PatchU32(body + b::Magic, pf::DirectoryBodyMagic);
            PutStringHeader(out, body + b::Path, r.path, kStrings);
            PutStringHeader(out, body + b::SecondPath, r.second_path, kStrings);
            out.PatchU32(body + b::Depth, uint32_t(r.depth));
            out.PatchU32(body + b::ListACount, list_a);
            out.PatchU32(body + b::ListBCount, list_b);
            PutText(out, r.path);
            PutText(out, r.second_path);
            break;
        }
        case kRegistry: {
            namespace b = pf::RegistryBody;
            out.PatchU32(body + b::Magic, pf::RegistryBodyMagic);
            PutStringHeader(out, body + b::Path, r.path, kStrings);
            out.PatchU32(body + b::Depth, uint32_t(r.depth));
            out.PatchU32(body + b::ListACount, list_a);
            out.PatchU32(body + b::ListBCount, list_b);
            PutText(out, r.path);
            break;
        }
        case kProcess: {
            namespace b = pf::ProcessBody;
            out.PatchU32(body + b::Magic, pf::ProcessBodyMagic);
            PutStringHeader(out, body + b::Path, r.path, kStrings);
            // The reserved words stay 0.
            out.PatchU32(body + b::Depth, uint32_t(r.depth));
            out.PatchU32(body + b::ProcessNameCount, uint32_t(r.names.size()));
            out.PatchU32(body + b::ListACount, list_a);
            out.PatchU32(body + b::ListBCount, list_b);
            PutText(out, r.path);
            for (const auto &n : r.names) PutTextRecord(out, pf::ProcessNameMagic, n);
            break;
        }
    }
    PutFilters(out, r.include);
    PutFilters(out, r.exclude);
    out.PatchU32(start + rr::RecordSize, r.record_size ? *r.record_size : uint32_t(out.Size() - start));
}

Bytes Encode(const Policy &p) {
    Writer out;
    out.Zeros(hd::Size);
    out.PatchU32(hd::Magic, pf::PolicyMagic);
    // The checksum and DataSize, below.
    out.PatchU32(hd::ProtectionMask, p.mask);
    for (uint32_t k = 0; k < pf::KindCount; ++k) out.PatchU32(kKinds[k].count_at, p.Count(k));
    for (const auto &r : p.rules) PutRule(out, r);
    const uint32_t data_size = uint32_t(out.Size() - hd::Size);
    // The checksum covers the byte behind the records too: it is written.
    out.U8(0);
    out.PatchU32(hd::DataSize, data_size);
    out.PatchU32(hd::Checksum, Checksum(out.bytes.data() + hd::Size, data_size));
    return out.bytes;
}

// ---- Reading sources ----

class SourceReader {
public:
    explicit SourceReader(const std::string &name) : source_{name} {}

    Policy Read(const YAML::Node &body) {
        source_.ExpectMap(body, "protection");
        source_.AllowKeys(body,
                          {"mask", "directory_count", "registry_count", "process_count", "directories", "registry",
                           "processes", "rules"},
                          "protection");
        Policy p;
        p.mask = uint32_t(source_.Number(source_.Required(body, "mask", "protection"), "mask", UINT32_MAX));
        for (uint32_t k = 0; k < pf::KindCount; ++k)
            if (const YAML::Node count = body[kKinds[k].count_key])
                p.counts[k] = uint32_t(source_.Number(count, kKinds[k].count_key, UINT32_MAX));
        if (const YAML::Node rules = body["rules"]) {
            for (uint32_t k = 0; k < pf::KindCount; ++k)
                if (body[kKinds[k].list])
                    source_.Fail(body[kKinds[k].list],
                                 std::string(kKinds[k].list) +
                                     " cannot stand beside rules, which gives every record in its order");
            const YAML::Node list = Sequence(source_, body, "rules");
            for (size_t i = 0; i < list.size(); ++i) p.rules.push_back(ReadRule(list[i], std::nullopt));
            return p;
        }
        for (uint32_t k = 0; k < pf::KindCount; ++k) {
            const YAML::Node list = Sequence(source_, body, kKinds[k].list);
            for (size_t i = 0; i < list.size(); ++i) p.rules.push_back(ReadRule(list[i], k));
        }
        return p;
    }

private:
    Source source_;

    // A kind's name, or a number; `limit` bounds the numbers.
    uint32_t KindOf(const YAML::Node &node, const std::string &what, uint64_t limit) const {
        if (node.IsScalar() && !node.Scalar().empty() && !std::isdigit(static_cast<unsigned char>(node.Scalar()[0]))) {
            for (uint32_t k = 0; k < pf::KindCount; ++k)
                if (node.Scalar() == kKinds[k].name) return k;
            source_.Fail(node, what + (limit > pf::KindCount ? " must be directory, registry, process or a number"
                                                             : " must be directory, registry or process") +
                                   ", not '" + node.Scalar() + "'");
        }
        if (limit <= pf::KindCount)
            source_.Fail(node, what + " must be directory, registry or process, not '" + node.Scalar() + "'");
        return uint32_t(source_.Number(node, what, limit));
    }

    // `list_kind` is the kind of the list the rule stands in, none in `rules`.
    Rule ReadRule(const YAML::Node &node, std::optional<uint32_t> list_kind) const {
        source_.ExpectMap(node, "a rule");
        Rule r;
        if (list_kind) {
            r.kind = r.body = *list_kind;
            if (node["kind"]) r.kind = KindOf(node["kind"], "kind", UINT32_MAX);
        } else {
            const YAML::Node kind = source_.Required(node, "kind", "a rule of rules");
            r.kind = KindOf(kind, "kind", UINT32_MAX);
            if (const YAML::Node body = node["body"])
                r.body = KindOf(body, "body", pf::KindCount);
            else if (r.kind < pf::KindCount)
                r.body = r.kind;
            else
                source_.Fail(kind, "a rule of kind " + Num(r.kind) +
                                       " needs 'body' (directory, registry or process): the kind does not say it");
        }
        const std::string what = std::string("a ") + kKinds[r.body].name + " rule";
        switch (r.body) {
            case kDirectory:
                source_.AllowKeys(node,
                                  {"kind", "body", "type", "record_size", "path", "second_path", "depth", "include",
                                   "exclude"},
                                  what);
                break;
            case kRegistry:
                source_.AllowKeys(node, {"kind", "body", "type", "record_size", "path", "depth", "include", "exclude"},
                                  what);
                break;
            case kProcess:
                source_.AllowKeys(
                    node, {"kind", "body", "type", "record_size", "path", "depth", "process_names", "include", "exclude"},
                    what);
                break;
        }
        if (list_kind && node["body"])
            source_.Fail(node["body"], std::string("body stands only in rules: under ") + kKinds[*list_kind].list +
                                           " every body is a " + kKinds[*list_kind].name + " body");
        r.type = uint32_t(source_.Number(source_.Required(node, "type", what), "type", UINT32_MAX));
        if (node["record_size"])
            r.record_size = uint32_t(source_.Number(node["record_size"], "record_size", UINT32_MAX));
        r.path = ReadText(source_, source_.Required(node, "path", what), "path");
        if (const YAML::Node second = node["second_path"])
            r.second_path = ReadText(source_, second, "second_path", true);
        if (const YAML::Node depth = node["depth"]) r.depth = ReadDepth(source_, depth, pf::DepthAny);
        r.names = ReadTexts(source_, node, "process_names");
        r.include = Filters(node, "include");
        r.exclude = Filters(node, "exclude");
        return r;
    }

    std::vector<Filter> Filters(const YAML::Node &rule, const char *key) const {
        std::vector<Filter> filters;
        const YAML::Node list = Sequence(source_, rule, key);
        for (size_t i = 0; i < list.size(); ++i) {
            const YAML::Node node = list[i];
            source_.ExpectMap(node, "a filter");
            source_.AllowKeys(node, {"value", "patterns"}, "a filter");
            Filter f;
            f.value = uint32_t(source_.Field(node, "value", 0, UINT32_MAX));
            f.patterns = ReadTexts(source_, node, "patterns");
            filters.push_back(f);
        }
        return filters;
    }
};

// ---- Reading files ----

std::string Quoted(const char *label) { return std::string("'") + label + "'"; }

// Walks a file as the loader does. For `check` it gathers findings and
// bounds each record by its RecordSize; for `dump` it stops at the first
// problem and follows what each record holds, whatever its RecordSize says.
class FileReader : public Walker {
public:
    FileReader(const Bytes &bytes, bool dumping) : Walker(bytes, dumping) {}

    Policy Read() {
        Policy p;
        if (!in_.Has(0, hd::Size)) {
            Error(0, "file is " + Num(bytes_.size()) + " bytes, shorter than the " + Num(hd::Size) + "-byte header");
            return p;
        }
        if (U32(hd::Magic) != pf::PolicyMagic)
            Error(hd::Magic, "magic " + Hex(U32(hd::Magic)) + ", expected " + Hex(pf::PolicyMagic) +
                                 ": the loader refuses the file (STATUS_FILE_INVALID)");
        const uint32_t data_size = U32(hd::DataSize);
        if (!in_.Has(hd::Size, uint64_t(data_size) + 1)) {
            Error(hd::DataSize, "DataSize " + Num(data_size) + " needs a file of " +
                                    Num(uint64_t(hd::Size) + data_size + 1) + " bytes; the file has " +
                                    Num(bytes_.size()));
            return p;
        }
        const uint32_t sum = Checksum(bytes_.data() + hd::Size, data_size);
        if (sum != U32(hd::Checksum))
            Error(hd::Checksum, "checksum " + Hex(U32(hd::Checksum)) + " does not match the records (" + Hex(sum) +
                                    "): the loader refuses the policy (STATUS_DATA_ERROR)");
        const uint64_t end = uint64_t(hd::Size) + data_size;
        if (dumping_ && (bytes_.size() != end + 1 || bytes_[end] != 0))
            Error(end, "the file does not end with the single zero byte a writer adds");
        p.mask = U32(hd::ProtectionMask);
        for (uint32_t k = 0; k < pf::KindCount; ++k) p.counts[k] = U32(kKinds[k].count_at);
        if (!*p.counts[kDirectory] && !*p.counts[kRegistry] && !*p.counts[kProcess]) {
            Refused(hd::RegistryRuleCount,
                    "all three rule counts are 0: the loader makes no set and refuses the policy (STATUS_UNSUCCESSFUL)");
        } else {
            for (uint32_t k = 0; k < pf::KindCount; ++k)
                if (!*p.counts[k])
                    Warn(kKinds[k].count_at, std::string(kKinds[k].count_name) + " 0: the loader makes no " +
                                                 kKinds[k].name +
                                                 " set, and the policy loads, but the store installs all three sets "
                                                 "or none and refuses it");
        }
        past_ = dumping_ ? "DataSize" : "the end of the record";
        uint32_t seen[pf::KindCount] = {};
        for (uint64_t at = hd::Size; at < end;) {
            if (end - at < rr::Size) {
                Error(at, "a record's fixed " + Num(rr::Size) + " bytes run past DataSize");
                break;
            }
            if (U32(at + rr::Magic) != pf::RuleMagic) {
                Error(at, "rule magic " + Hex(U32(at + rr::Magic)) + ", expected " + Hex(pf::RuleMagic) +
                              ": the loader reports 'Self-Protection Rule Magic Number', version " +
                              Num(U32(at + rr::Magic) & pf::MagicVersionMask) + ", expected " +
                              Num(pf::ReportedRuleVersion) + ", and refuses the policy (STATUS_DATA_ERROR)");
                break;
            }
            const uint32_t record_size = U32(at + rr::RecordSize);
            if (!dumping_ && record_size == 0) {
                Error(at + rr::RecordSize, "RecordSize 0: the loader's walk never ends");
                break;
            }
            const bool size_fits = record_size <= end - at;
            if (!dumping_ && !size_fits)
                Error(at + rr::RecordSize, "RecordSize " + Num(record_size) + " runs past DataSize");
            Rule rule;
            uint64_t contents_end = 0;
            try {
                ReadKind(at, p, seen, rule);
                contents_end = ReadRule(at, dumping_ ? end : std::min(end, at + record_size), rule);
            } catch (const Stop &) {
            }
            if (dumping_) {
                if (contents_end - at != record_size) rule.record_size = record_size;
                p.rules.push_back(rule);
                at = contents_end;
                continue;
            }
            if (contents_end && size_fits && contents_end < at + record_size)
                Warn(contents_end, Num(at + record_size - contents_end) +
                                       " bytes behind the rule's last filter, inside its RecordSize, are never read");
            if (!size_fits) break;
            at += record_size;
        }
        return p;
    }

private:
    // The ProtectionKind word and the set it lands in; for `dump` also the
    // body that follows, which the kind names unless its magic says otherwise.
    void ReadKind(uint64_t at, const Policy &p, uint32_t seen[], Rule &r) {
        const uint64_t kind_at = at + rr::ProtectionKind, body_at = at + rr::Size;
        r.kind = U32(kind_at);
        r.type = U32(at + rr::RuleType);
        if (r.kind >= pf::KindCount) {
            Refused(kind_at, "ProtectionKind " + Num(r.kind) +
                                 ": the loader refuses anything above 2 (STATUS_INVALID_PARAMETER)");
            // The loader reads no further: only a dump, which must print the
            // record, looks at what follows.
            if (!dumping_) throw Stop{};
            r.body = BodyByMagic(body_at, "a record of ProtectionKind " + Num(r.kind));
            return;
        }
        const KindInfo &kind = kKinds[r.kind];
        const uint32_t count = *p.counts[r.kind];
        if (count == 0) {
            Refused(kind_at, std::string("a ") + kind.name + " rule, and " + kind.count_name +
                                 " is 0: the loader has no set for it and refuses the policy (STATUS_DATA_ERROR)");
        } else {
            if (++seen[r.kind] == count + 1)
                Warn(at, std::string(kind.name) + " rule " + Num(count + 1) + " is more than " + kind.count_name +
                             " " + Num(count) + ": the loader does not notice, and writes it beyond the set's capacity");
            if (!TypeMatched(r.kind, r.type))
                Warn(at + rr::RuleType, "RuleType " + Num(r.type) + " in the " + kind.name +
                                            " set: it loads, but every match that reaches it fails (the matcher "
                                            "takes " +
                                            kTypesTaken[r.kind] + ")");
        }
        r.body = r.kind;
        if (dumping_ && U32(body_at) != kind.body_magic)
            r.body = BodyByMagic(body_at, std::string("a ") + kind.name + " rule");
    }

    uint32_t BodyByMagic(uint64_t body_at, const std::string &what) {
        static_assert(pf::DirectoryBody::Magic == 0 && pf::RegistryBody::Magic == 0 && pf::ProcessBody::Magic == 0);
        if (in_.Has(body_at, sizeof(uint32_t)))
            for (uint32_t k = 0; k < pf::KindCount; ++k)
                if (U32(body_at) == kKinds[k].body_magic) return k;
        Error(body_at, "the body of " + what + " has the magic of none of the three bodies");
        throw Stop{};
    }

    // Reads the record at `at`, not past `limit`; gives the end of what it holds.
    uint64_t ReadRule(uint64_t at, uint64_t limit, Rule &r) {
        const uint64_t body = at + rr::Size;
        const KindInfo &info = kKinds[r.body];
        Need(body, info.body_size, limit, body, std::string("the ") + info.name + " rule body");
        // The loader tests the magic of the body its kind names; a dump has
        // chosen the body by its magic already.
        if (U32(body) != info.body_magic)
            Fatal(body, std::string(info.name) + " rule body magic " + Hex(U32(body)) + ", expected " +
                            Hex(info.body_magic) + ": the loader reports " + Quoted(info.body_label) + ", version " +
                            Num(U32(body) & pf::MagicVersionMask) + ", expected " + Num(pf::ReportedBodyVersion) +
                            ", and refuses the policy (STATUS_INVALID_PARAMETER)");
        uint64_t cursor = 0, list_a_at = 0, list_b_at = 0;
        switch (r.body) {
            case kDirectory: {
                namespace b = pf::DirectoryBody;
                r.depth = int32_t(U32(body + b::Depth));
                list_a_at = body + b::ListACount, list_b_at = body + b::ListBCount;
                r.path = String(body + b::Path, body + b::Size, limit, kStrings);
                // The loader reads an empty second path's text not at all,
                // and steps over its MaximumLength all the same.
                r.second_path = String(body + b::SecondPath, body + b::Size + r.path.max_length, limit, kStrings, false);
                cursor = body + b::Size + r.path.max_length + r.second_path.max_length;
                break;
            }
            case kRegistry: {
                namespace b = pf::RegistryBody;
                r.depth = int32_t(U32(body + b::Depth));
                list_a_at = body + b::ListACount, list_b_at = body + b::ListBCount;
                r.path = String(body + b::Path, body + b::Size, limit, kStrings);
                cursor = body + b::Size + r.path.max_length;
                break;
            }
            case kProcess: {
                namespace b = pf::ProcessBody;
                r.depth = int32_t(U32(body + b::Depth));
                list_a_at = body + b::ListACount, list_b_at = body + b::ListBCount;
                r.path = String(body + b::Path, body + b::Size, limit, kStrings);
                cursor = body + b::Size + r.path.max_length;
                const uint64_t count_at = body + b::ProcessNameCount;
                const uint32_t count = U32(count_at);
                for (uint32_t i = 0; i < count; ++i)
                    r.names.push_back(TextRecord(cursor, limit, count_at, "ProcessNameCount " + Num(count),
                                                 pf::ProcessNameMagic, "process name", "Self-Protection Process Name"));
                break;
            }
        }
        Filters(cursor, limit, list_a_at, "ListACount", r.include);
        Filters(cursor, limit, list_b_at, "ListBCount", r.exclude);
        return cursor;
    }

    // A process name or a pattern at `cursor`, which it moves past.
    Text TextRecord(uint64_t &cursor, uint64_t limit, uint64_t count_at, const std::string &count_text,
                    uint32_t magic, const char *what, const char *label) {
        namespace tr = pf::TextRecord;
        Need(cursor, tr::Size, limit, count_at, count_text);
        if (U32(cursor + tr::Magic) != magic)
            Error(cursor, std::string(what) + " magic " + Hex(U32(cursor + tr::Magic)) + ", expected " + Hex(magic) +
                              ": the loader reports " + Quoted(label) + ", version " +
                              Num(U32(cursor + tr::Magic) & pf::MagicVersionMask) + ", expected " +
                              Num(pf::ReportedListVersion) + ", and refuses the policy (STATUS_INVALID_PARAMETER)");
        const Text t = String(cursor + tr::Text, cursor + tr::Size, limit, kStrings);
        cursor += tr::Size + t.max_length;
        return t;
    }

    void Filters(uint64_t &cursor, uint64_t limit, uint64_t count_at, const char *count_name,
                 std::vector<Filter> &filters) {
        namespace fl = pf::Filter;
        const uint32_t count = U32(count_at);
        const std::string count_text = std::string(count_name) + " " + Num(count);
        for (uint32_t i = 0; i < count; ++i) {
            const uint64_t at = cursor;
            Need(at, fl::Size, limit, count_at, count_text);
            const uint32_t magic = U32(at + fl::Magic);
            if (magic != pf::FilterMagic) {
                const std::string m = "filter magic " + Hex(magic) + ", expected " + Hex(pf::FilterMagic);
                if (i == 0) {
                    Error(at, m + ": the loader reports 'Self-Protection Rule Filter Header', version " +
                                  Num(magic & pf::MagicVersionMask) + ", expected " + Num(pf::ReportedListVersion) +
                                  ", and refuses the policy (STATUS_INVALID_PARAMETER)");
                } else {
                    Warn(at, m + "; the loader tests only the first filter of a list and takes this one on trust");
                    Inexpressible(at, m);
                }
            }
            Filter f;
            f.value = U32(at + fl::Value);
            const uint64_t patterns_at = at + fl::PatternCount;
            const uint32_t patterns = U32(patterns_at);
            if (patterns == 0)
                Warn(patterns_at, "a filter without patterns never holds: the loader keeps it, and it matches nothing");
            cursor = at + fl::Size;
            for (uint32_t p = 0; p < patterns; ++p)
                f.patterns.push_back(TextRecord(cursor, limit, patterns_at, "PatternCount " + Num(patterns),
                                                pf::PatternMagic, "pattern", "Self-Protection Filter Pattern Header"));
            filters.push_back(f);
        }
    }
};

// ---- Printing sources ----

void PrintFilters(std::ostringstream &out, const char *key, const std::vector<Filter> &filters) {
    out << "      " << key << ":" << (filters.empty() ? " []\n" : "\n");
    for (const auto &f : filters)
        out << "        - {value: " << f.value << ", patterns: " << TextList(f.patterns) << "}\n";
}

// `ordered`: the rule stands in `rules`, and says its kind and body there.
void PrintRule(std::ostringstream &out, const Rule &r, bool ordered) {
    const char *lead = "    - ";
    auto kind_text = [](uint32_t kind) { return kind < pf::KindCount ? std::string(kKinds[kind].name) : Num(kind); };
    if (ordered) {
        out << lead << "kind: " << kind_text(r.kind) << "\n";
        if (r.kind != r.body) out << "      body: " << kKinds[r.body].name << "\n";
        lead = "      ";
    } else if (r.kind != r.body) {
        out << lead << "kind: " << kind_text(r.kind) << "\n";
        lead = "      ";
    }
    out << lead << "type: " << r.type << "\n";
    if (r.record_size) out << "      record_size: " << *r.record_size << "\n";
    out << "      path: " << Item(r.path) << "\n";
    if (r.body == kDirectory) out << "      second_path: " << Item(r.second_path) << "\n";
    out << "      depth: " << DepthText(r.depth, pf::DepthAny) << "\n";
    if (r.body == kProcess) out << "      process_names: " << TextList(r.names) << "\n";
    PrintFilters(out, "include", r.include);
    PrintFilters(out, "exclude", r.exclude);
}

std::string Print(const Policy &p) {
    std::ostringstream out;
    out << "protection:\n";
    out << "  mask: " << Hex(p.mask) << "\n";
    // A count is printed only where it is not the number of records of its
    // kind, so that a rule added to a dump is counted without a second edit.
    Policy counted = p;
    for (auto &c : counted.counts) c.reset();
    for (uint32_t k = 0; k < pf::KindCount; ++k)
        if (p.Count(k) != counted.Count(k)) out << "  " << kKinds[k].count_key << ": " << p.Count(k) << "\n";
    // The three lists where the bodies stand in their order, else `rules`.
    const bool in_order = std::is_sorted(p.rules.begin(), p.rules.end(),
                                         [](const Rule &a, const Rule &b) { return a.body < b.body; });
    if (!in_order) {
        out << "  rules:\n";
        for (const auto &r : p.rules) PrintRule(out, r, true);
        return out.str();
    }
    for (uint32_t k = 0; k < pf::KindCount; ++k) {
        const bool any = std::any_of(p.rules.begin(), p.rules.end(), [&](const Rule &r) { return r.body == k; });
        out << "  " << kKinds[k].list << ":" << (any ? "\n" : " []\n");
        for (const auto &r : p.rules)
            if (r.body == k) PrintRule(out, r, false);
    }
    return out.str();
}

}  // namespace

Bytes CompileProtection(const YAML::Node &body, const std::string &source_name) {
    return Encode(SourceReader(source_name).Read(body));
}

std::string DumpProtection(const Bytes &binary) {
    FileReader reader(binary, true);
    const std::string text = Print(reader.Read());
    ProveDump(binary, text, hd::Checksum);
    return text;
}

std::vector<Finding> CheckProtection(const Bytes &binary) {
    FileReader reader(binary, false);
    reader.Read();
    return reader.findings;
}

}  // namespace detail
}  // namespace tpol
