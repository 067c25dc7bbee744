// The monitor policy format (policy/format/monitor.h): a header, then one
// record per rule of the six categories, each with its contexts, its body and
// its include and exclude filters, and one zero byte that the checksum covers.
//
// Source, under the top-level key `monitor:`:
//
//   whitelist_capacity: N   WhiteListRuleCapacity; default: the number of
//                           whitelist rules. 0 means no whitelist set.
//   rules: [...]            one mapping per record, in file order:
//
//   category      system|process|file|registry|whitelist|network, or 0..5
//   type          RuleType, required
//   list          the RuleList word of the first context: none (0), fim (1),
//                 edr (2) or a number. Default: edr, or none for a whitelist
//                 rule, which the loader keeps whatever the word holds.
//   contexts      [{id: GUID text or 32 hex digits, list: as above}], one
//                 entry per context; an entry's list defaults to the rule's.
//                 [] writes a rule without one, and then `list` has no place.
//   record_size   writes this RecordSize instead of the record's real size,
//                 to make files that are sealed but malformed.
//   operations    OperationMask, default 0
//   operations2   OperationMask2 (file, registry), default 0
//   flags         RuleFlags (file), default 0
//   path          the rule's path (all but network), required
//   value_name    registry: the value name, default '' (which still takes
//                 its two bytes of NUL)
//   depth         signed, or `any` (-2), the default (file, registry,
//                 process, system)
//   include       filters; exclude: filters (all but whitelist, which has
//                 one list, written as include)
//
// A filter of the file, registry, process and system rules (72-byte header):
//   conditions      a list of names and numbers, OR-ed, or one number.
//                   Names: object_kind 0x1, patterns 0x2, attributes 0x4,
//                   size 0x8, actor_process 0x10, actor_username 0x20,
//                   time 0x40, value 0x8000.
//   object_kind     file, registry          attributes   file
//   size            file: {op: '>' '>=' '==' '<=' '<' or a number, value: N}
//   value           process: FilterValue (16 bits)
//   patterns, actor_processes: [text]       actor_usernames: [number]
//   time            {start: 'HH:MM:SS' or a raw 64-bit word, end: same}
// A network filter (64-byte header): conditions (names actor_process,
//   actor_username, time, local_address 0x200, remote_address 0x400,
//   local_port 0x800, remote_port 0x1000, protocol 0x2000), protocol (the
//   ObjectKind word), actor_processes, actor_usernames, time, and local:
//   (group 0) and remote: (group 1), each {addresses: [text], ports:
//   [number], port_ranges: [[low, high]] or [{low: N, high: N}]}.
// A whitelist filter: conditions (names arguments 0x80, parents 0x100),
//   arguments: [text], parents: [text].
// Without `conditions`, a filter gets the conditions of the keys it has (a
// key with an empty list counts); `local: {ports: []}` gives local_port.
//
// A text is UTF-8 in the source and UTF-16LE in the file, NUL-terminated,
// MaximumLength = Length + 2. {text: '...', max_length: N} writes a larger
// MaximumLength and pads with zeros. Text reference slots and reserved words
// are written as 0.
//
// `dump` prints every field the file holds for a category, and what it
// prints compiles to the same bytes; a file it cannot print that way is
// refused with the offset. `check` walks the records as the loader does and
// names what the loader refuses (errors) or takes without using (warnings).
#include "policy/format/monitor.h"
#include "text_support.h"
#include "tpol.h"
#include "walk_support.h"
#include "yaml_support.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>
#include <span>
#include <sstream>

namespace tpol {
namespace detail {
namespace {

// Every number of the file comes from the format's header, which the
// library's parsers read the file with.
namespace mf = MonitorFormat;

enum Category : uint32_t {
    kSystem = mf::CategorySystem,
    kProcess = mf::CategoryProcess,
    kFile = mf::CategoryFile,
    kRegistry = mf::CategoryRegistry,
    kWhiteList = mf::CategoryWhiteList,
    kNetwork = mf::CategoryNetwork,
};

struct CategoryInfo {
    const char *name;
    uint32_t body_magic, filter_magic;
    uint32_t body_size;  // the body's fixed part, before its text and filters
};
// By category number.
constexpr CategoryInfo kCategories[mf::CategoryCount] = {
    {"system", mf::SystemBodyMagic, mf::SystemFilterMagic, mf::SystemBody::Size},
    {"process", mf::ProcessBodyMagic, mf::ProcessFilterMagic, mf::ProcessBody::Size},
    {"file", mf::FileBodyMagic, mf::FileFilterMagic, mf::FileBody::Size},
    {"registry", mf::RegistryBodyMagic, mf::RegistryFilterMagic, mf::RegistryBody::Size},
    {"whitelist", mf::WhiteListBodyMagic, mf::WhiteListFilterMagic, mf::WhiteListBody::Size},
    {"network", mf::NetworkBodyMagic, mf::NetworkFilterMagic, mf::NetworkBody::Size},
};
static_assert(kCategories[kSystem].body_magic == mf::SystemBodyMagic &&
              kCategories[kProcess].body_magic == mf::ProcessBodyMagic &&
              kCategories[kFile].body_magic == mf::FileBodyMagic &&
              kCategories[kRegistry].body_magic == mf::RegistryBodyMagic &&
              kCategories[kWhiteList].body_magic == mf::WhiteListBodyMagic &&
              kCategories[kNetwork].body_magic == mf::NetworkBodyMagic);

struct Name {
    const char *name;
    uint32_t value;
};
constexpr Name kRuleConditions[] = {
    {"object_kind", mf::ConditionObjectKind},       {"patterns", mf::ConditionPatterns},
    {"attributes", mf::ConditionAttributes},        {"size", mf::ConditionSize},
    {"actor_process", mf::ConditionActorProcess},   {"actor_username", mf::ConditionActorUsername},
    {"time", mf::ConditionTime},                    {"value", mf::ConditionFilterValue}};
constexpr Name kNetworkConditions[] = {
    {"actor_process", mf::ConditionActorProcess},   {"actor_username", mf::ConditionActorUsername},
    {"time", mf::ConditionTime},                    {"local_address", mf::ConditionLocalAddress},
    {"remote_address", mf::ConditionRemoteAddress}, {"local_port", mf::ConditionLocalPort},
    {"remote_port", mf::ConditionRemotePort},       {"protocol", mf::ConditionProtocol}};
constexpr Name kWhiteListConditions[] = {{"arguments", mf::ConditionArguments},
                                         {"parents", mf::ConditionParentProcess}};
constexpr Name kSizeOperators[] = {{">", mf::SizeGreater},
                                   {">=", mf::SizeGreaterOrEqual},
                                   {"==", mf::SizeEqual},
                                   {"<=", mf::SizeLessOrEqual},
                                   {"<", mf::SizeLess}};
constexpr Name kLists[] = {{"none", mf::ListNone}, {"fim", mf::ListFim}, {"edr", mf::ListEdr}};
constexpr Name kCategoryNames[] = {{"system", kSystem},   {"process", kProcess},     {"file", kFile},
                                   {"registry", kRegistry}, {"whitelist", kWhiteList}, {"network", kNetwork}};

std::span<const Name> ConditionNames(uint32_t category) {
    if (category == kNetwork) return kNetworkConditions;
    if (category == kWhiteList) return kWhiteListConditions;
    return kRuleConditions;
}

// What a policy holds, as the file holds it.
struct Group {
    std::vector<Text> addresses;
    std::vector<uint32_t> ports;
    std::vector<std::pair<uint16_t, uint16_t>> ranges;
};

struct Filter {
    uint32_t conditions = 0, object_kind = 0, attributes = 0, size_op = 0;
    uint16_t value = 0;
    uint64_t size_value = 0, start = 0, end = 0;
    std::vector<Text> patterns, actor_processes, arguments, parents;
    std::vector<uint32_t> usernames;
    Group groups[2];
};

struct Context {
    uint32_t list = 0;
    uint8_t id[16] = {};
};

struct Rule {
    uint32_t category = 0, type = 0;
    std::optional<uint32_t> record_size;
    std::vector<Context> contexts;
    uint32_t flags = 0, operations = 0, operations2 = 0;
    int32_t depth = mf::DepthAny;
    Text path, value_name;
    std::vector<Filter> include, exclude;
};

struct Policy {
    uint32_t whitelist_capacity = 0;
    std::vector<Rule> rules;
};

bool HasPath(uint32_t c) { return c != kNetwork; }
bool HasDepth(uint32_t c) { return c != kNetwork && c != kWhiteList; }
bool HasExclude(uint32_t c) { return c != kWhiteList; }

// ---- Writing ----
//
// Each record's fixed part is laid down as zeros and its fields patched in
// at their offsets in the format's layout; what follows a fixed part (text,
// entries, lists) is appended in file order.

constexpr StringHeaderOffsets kStrings{mf::StringHeader::Length, mf::StringHeader::MaximumLength};

void PutHeader(Writer &out, size_t at, const Text &t) { PutStringHeader(out, at, t, kStrings); }

void PutTexts(Writer &out, uint32_t magic, const std::vector<Text> &texts) {
    for (const auto &t : texts) {
        const size_t at = out.Zeros(mf::TextRecord::Size);
        out.PatchU32(at + mf::TextRecord::Magic, magic);
        PutHeader(out, at + mf::TextRecord::Text, t);
        PutText(out, t);
    }
}

void PutWords(Writer &out, uint32_t magic, const std::vector<uint32_t> &words) {
    for (uint32_t w : words) {
        const size_t at = out.Zeros(mf::NumberRecord::Size);
        out.PatchU32(at + mf::NumberRecord::Magic, magic);
        out.PatchU32(at + mf::NumberRecord::Value, w);
    }
}

void PutRanges(Writer &out, const std::vector<std::pair<uint16_t, uint16_t>> &ranges) {
    for (const auto &[low, high] : ranges) {
        const size_t at = out.Zeros(mf::PortRangeRecord::Size);
        out.PatchU32(at + mf::PortRangeRecord::Magic, mf::NetworkPortRangeMagic);
        out.PatchU16(at + mf::PortRangeRecord::Low, low);
        out.PatchU16(at + mf::PortRangeRecord::High, high);
    }
}

void PutFilter(Writer &out, uint32_t category, const Filter &f) {
    if (category == kNetwork) {
        namespace nf = mf::NetworkFilter;
        const size_t at = out.Zeros(nf::Size);
        out.PatchU32(at + nf::Magic, mf::NetworkFilterMagic);
        out.PatchU32(at + nf::Conditions, f.conditions);
        out.PatchU32(at + nf::ObjectKind, f.object_kind);
        out.PatchU32(at + nf::ActorProcessCount, uint32_t(f.actor_processes.size()));
        out.PatchU32(at + nf::ActorUsernameCount, uint32_t(f.usernames.size()));
        for (size_t g = 0; g < 2; ++g) {
            const size_t counts = at + nf::Groups + g * mf::NetworkGroup::Size;
            out.PatchU32(counts + mf::NetworkGroup::AddressCount, uint32_t(f.groups[g].addresses.size()));
            out.PatchU32(counts + mf::NetworkGroup::PortCount, uint32_t(f.groups[g].ports.size()));
            out.PatchU32(counts + mf::NetworkGroup::PortRangeCount, uint32_t(f.groups[g].ranges.size()));
        }
        out.PatchU64(at + nf::StartTime, f.start);
        out.PatchU64(at + nf::EndTime, f.end);
        PutTexts(out, mf::ActorProcessMagic, f.actor_processes);
        PutWords(out, mf::ActorUsernameMagic, f.usernames);
        for (const auto &g : f.groups) {
            PutTexts(out, mf::NetworkAddressMagic, g.addresses);
            PutWords(out, mf::NetworkPortMagic, g.ports);
            PutRanges(out, g.ranges);
        }
        return;
    }
    namespace rf = mf::RuleFilter;
    const size_t at = out.Zeros(rf::Size);
    out.PatchU32(at + rf::Magic, kCategories[category].filter_magic);
    out.PatchU32(at + rf::Conditions, f.conditions);
    out.PatchU32(at + rf::ObjectKind, f.object_kind);
    out.PatchU32(at + rf::PatternCount, uint32_t(f.patterns.size()));
    out.PatchU32(at + rf::ActorProcessCount, uint32_t(f.actor_processes.size()));
    out.PatchU32(at + rf::ActorUsernameCount, uint32_t(f.usernames.size()));
    out.PatchU32(at + rf::AttributeMask, f.attributes);
    out.PatchU16(at + rf::FilterValue, f.value);
    out.PatchU32(at + rf::SizeOperator, f.size_op);
    out.PatchU64(at + rf::SizeOperand, f.size_value);
    out.PatchU64(at + rf::StartTime, f.start);
    out.PatchU64(at + rf::EndTime, f.end);
    out.PatchU32(at + rf::ArgumentCount, uint32_t(f.arguments.size()));
    out.PatchU32(at + rf::ParentProcessCount, uint32_t(f.parents.size()));
    PutTexts(out, mf::PatternMagic, f.patterns);
    PutTexts(out, mf::ActorProcessMagic, f.actor_processes);
    PutWords(out, mf::ActorUsernameMagic, f.usernames);
    PutTexts(out, mf::ArgumentMagic, f.arguments);
    PutTexts(out, mf::ParentProcessMagic, f.parents);
}

void PutRule(Writer &out, const Rule &r) {
    const size_t start = out.Zeros(mf::RuleRecord::Size);
    out.PatchU32(start + mf::RuleRecord::Magic, mf::RuleMagic);
    // RecordSize, below
    out.PatchU32(start + mf::RuleRecord::RuleCategory, r.category);
    out.PatchU32(start + mf::RuleRecord::RuleType, r.type);
    out.PatchU32(start + mf::RuleRecord::Contexts + mf::ContextHeader::Magic, mf::ContextMagic);
    out.PatchU32(start + mf::RuleRecord::ContextCount, uint32_t(r.contexts.size()));
    for (const auto &c : r.contexts) {
        const size_t entry = out.Zeros(mf::ContextEntry::Size);
        out.PatchU32(entry + mf::ContextEntry::RuleList, c.list);
        out.PatchRaw(entry + mf::ContextEntry::RuleId, c.id, sizeof c.id);
    }
    const uint32_t includes = uint32_t(r.include.size()), excludes = uint32_t(r.exclude.size());
    const size_t body = out.Zeros(kCategories[r.category].body_size);
    switch (r.category) {
        case kFile: {
            namespace b = mf::FileBody;
            out.PatchU32(body + b::Magic, mf::FileBodyMagic);
            out.PatchU32(body + b::RuleFlags, r.flags);
            PutHeader(out, body + b::Path, r.path);
            out.PatchU32(body + b::Depth, uint32_t(r.depth));
            out.PatchU32(body + b::IncludeCount, includes);
            out.PatchU32(body + b::ExcludeCount, excludes);
            out.PatchU32(body + b::OperationMask, r.operations);
            out.PatchU32(body + b::OperationMask2, r.operations2);
            PutText(out, r.path);
            break;
        }
        case kRegistry: {
            namespace b = mf::RegistryBody;
            out.PatchU32(body + b::Magic, mf::RegistryBodyMagic);
            PutHeader(out, body + b::Path, r.path);
            PutHeader(out, body + b::ValueName, r.value_name);
            out.PatchU32(body + b::Depth, uint32_t(r.depth));
            out.PatchU32(body + b::IncludeCount, includes);
            out.PatchU32(body + b::ExcludeCount, excludes);
            out.PatchU32(body + b::OperationMask, r.operations);
            out.PatchU32(body + b::OperationMask2, r.operations2);
            PutText(out, r.path);
            PutText(out, r.value_name);
            break;
        }
        case kProcess:
        case kSystem: {
            // One layout for both.
            namespace b = mf::ProcessBody;
            out.PatchU32(body + b::Magic, kCategories[r.category].body_magic);
            PutHeader(out, body + b::Path, r.path);
            out.PatchU32(body + b::Depth, uint32_t(r.depth));
            out.PatchU32(body + b::IncludeCount, includes);
            out.PatchU32(body + b::ExcludeCount, excludes);
            out.PatchU32(body + b::OperationMask, r.operations);
            PutText(out, r.path);
            break;
        }
        case kWhiteList: {
            namespace b = mf::WhiteListBody;
            out.PatchU32(body + b::Magic, mf::WhiteListBodyMagic);
            PutHeader(out, body + b::Path, r.path);
            out.PatchU32(body + b::IncludeCount, includes);
            out.PatchU32(body + b::OperationMask, r.operations);
            PutText(out, r.path);
            break;
        }
        case kNetwork: {
            namespace b = mf::NetworkBody;
            out.PatchU32(body + b::Magic, mf::NetworkBodyMagic);
            out.PatchU32(body + b::IncludeCount, includes);
            out.PatchU32(body + b::ExcludeCount, excludes);
            out.PatchU32(body + b::OperationMask, r.operations);
            break;
        }
    }
    for (const auto &f : r.include) PutFilter(out, r.category, f);
    for (const auto &f : r.exclude) PutFilter(out, r.category, f);
    out.PatchU32(start + mf::RuleRecord::RecordSize, r.record_size ? *r.record_size : uint32_t(out.Size() - start));
}

Bytes Encode(const Policy &p) {
    namespace h = mf::PolicyHeader;
    Writer out;
    out.Zeros(h::Size);
    out.PatchU32(h::Magic, mf::PolicyMagic);
    // The checksum and BodyLength, below; the reserved words stay 0.
    out.PatchU32(h::WhiteListRuleCapacity, p.whitelist_capacity);
    for (const auto &r : p.rules) PutRule(out, r);
    const uint32_t body_length = uint32_t(out.Size() - h::Size);
    // The checksum covers the byte behind the records too: it is written.
    out.U8(0);
    out.PatchU32(h::BodyLength, body_length);
    out.PatchU32(h::BodyChecksum, Checksum(out.bytes.data() + h::Size, body_length));
    return out.bytes;
}

// ---- Reading sources ----

class SourceReader {
public:
    explicit SourceReader(const std::string &name) : source_{name} {}

    Policy Read(const YAML::Node &body) {
        source_.ExpectMap(body, "monitor");
        source_.AllowKeys(body, {"whitelist_capacity", "rules"}, "monitor");
        Policy p;
        uint32_t whitelist_rules = 0;
        const YAML::Node rules = Sequence(body, "rules");
        for (size_t i = 0; i < rules.size(); ++i) {
            p.rules.push_back(ReadRule(rules[i]));
            whitelist_rules += p.rules.back().category == kWhiteList;
        }
        p.whitelist_capacity = uint32_t(source_.Field(body, "whitelist_capacity", whitelist_rules, UINT32_MAX));
        return p;
    }

private:
    Source source_;

    YAML::Node Sequence(const YAML::Node &map, const char *key) const { return detail::Sequence(source_, map, key); }

    // A name from `names`, or a number.
    uint32_t Named(const YAML::Node &node, std::span<const Name> names, const std::string &what) const {
        if (node.IsScalar() && !node.Scalar().empty() && !std::isdigit(static_cast<unsigned char>(node.Scalar()[0]))) {
            std::string list;
            for (const auto &n : names) {
                if (node.Scalar() == n.name) return n.value;
                list += std::string(list.empty() ? "" : ", ") + n.name;
            }
            source_.Fail(node, what + " must be one of " + list + " or a number, not '" + node.Scalar() + "'");
        }
        return uint32_t(source_.Number(node, what, UINT32_MAX));
    }

    uint32_t Conditions(const YAML::Node &node, uint32_t category) const {
        if (!node.IsSequence()) return Named(node, ConditionNames(category), "conditions");
        uint32_t bits = 0;
        for (size_t i = 0; i < node.size(); ++i) bits |= Named(node[i], ConditionNames(category), "a condition");
        return bits;
    }

    Text ReadText(const YAML::Node &node, const std::string &what) const { return detail::ReadText(source_, node, what); }

    std::vector<Text> Texts(const YAML::Node &map, const char *key) const { return ReadTexts(source_, map, key); }

    std::vector<uint32_t> Words(const YAML::Node &map, const char *key) const {
        std::vector<uint32_t> words;
        const YAML::Node list = Sequence(map, key);
        for (size_t i = 0; i < list.size(); ++i)
            words.push_back(uint32_t(source_.Number(list[i], std::string("an item of ") + key, UINT32_MAX)));
        return words;
    }

    // 'HH:MM:SS' (each part 0..255, as the word has a byte for each) or the
    // raw word, whose upper five bytes the loader ignores.
    uint64_t Time(const YAML::Node &map, const char *key) const {
        const YAML::Node node = map[key];
        if (!node) return 0;
        if (!node.IsScalar() || node.Scalar().find(':') == std::string::npos)
            return source_.Number(node, std::string("time ") + key);
        const std::string &text = node.Scalar();
        uint64_t word = 0;
        size_t pos = 0;
        constexpr uint32_t kShifts[3] = {mf::TimeHourShift, mf::TimeMinuteShift, mf::TimeSecondShift};
        for (int part = 0; part < 3; ++part) {
            size_t digits = 0;
            unsigned value = 0;
            while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && digits < 3)
                value = value * 10 + unsigned(text[pos++] - '0'), ++digits;
            if (digits == 0 || value > mf::TimePartMask ||
                (part < 2 ? pos >= text.size() || text[pos++] != ':' : pos != text.size()))
                source_.Fail(node, std::string("time ") + key +
                                       " must be HH:MM:SS (each part at most 255) or a number, not '" + text + "'");
            word |= uint64_t(value) << kShifts[part];
        }
        return word;
    }

    void ReadGroup(const YAML::Node &node, const char *name, Group &g, uint32_t address_bit, uint32_t port_bit,
                   uint32_t &implied) const {
        if (!node) return;
        source_.ExpectMap(node, name);
        source_.AllowKeys(node, {"addresses", "ports", "port_ranges"}, name);
        if (node["addresses"]) implied |= address_bit;
        if (node["ports"] || node["port_ranges"]) implied |= port_bit;
        g.addresses = Texts(node, "addresses");
        g.ports = Words(node, "ports");
        const YAML::Node ranges = Sequence(node, "port_ranges");
        for (size_t i = 0; i < ranges.size(); ++i) {
            const YAML::Node r = ranges[i];
            // Nodes are bound once: assigning to a bound node would rewrite the document.
            if (r.IsMap())
                source_.AllowKeys(r, {"low", "high"}, "a port range");
            else if (!r.IsSequence() || r.size() != 2)
                source_.Fail(r, "a port range is [low, high] or {low: N, high: N}");
            const YAML::Node low = r.IsMap() ? source_.Required(r, "low", "a port range") : r[0];
            const YAML::Node high = r.IsMap() ? source_.Required(r, "high", "a port range") : r[1];
            g.ranges.emplace_back(uint16_t(source_.Number(low, "a port", 0xFFFF)),
                                  uint16_t(source_.Number(high, "a port", 0xFFFF)));
        }
    }

    Filter ReadFilter(const YAML::Node &node, uint32_t category) const {
        const std::string what = std::string("a ") + kCategories[category].name + " filter";
        source_.ExpectMap(node, what);
        switch (category) {
            case kFile:
                source_.AllowKeys(node,
                                  {"conditions", "object_kind", "attributes", "size", "patterns", "actor_processes",
                                   "actor_usernames", "time"},
                                  what);
                break;
            case kRegistry:
                source_.AllowKeys(
                    node, {"conditions", "object_kind", "patterns", "actor_processes", "actor_usernames", "time"},
                    what);
                break;
            case kProcess:
                source_.AllowKeys(
                    node, {"conditions", "value", "patterns", "actor_processes", "actor_usernames", "time"}, what);
                break;
            case kSystem:
                source_.AllowKeys(node, {"conditions", "patterns", "actor_processes", "actor_usernames", "time"}, what);
                break;
            case kWhiteList: source_.AllowKeys(node, {"conditions", "arguments", "parents"}, what); break;
            case kNetwork:
                source_.AllowKeys(
                    node, {"conditions", "protocol", "actor_processes", "actor_usernames", "local", "remote", "time"},
                    what);
                break;
        }
        Filter f;
        uint32_t implied = 0;
        auto present = [&](const char *key, uint32_t bit) {
            if (node[key]) implied |= bit;
            return bool(node[key]);
        };
        present("actor_processes", mf::ConditionActorProcess);
        present("actor_usernames", mf::ConditionActorUsername);
        if (const YAML::Node time = node["time"]) {
            implied |= mf::ConditionTime;
            source_.ExpectMap(time, "time");
            source_.AllowKeys(time, {"start", "end"}, "time");
            f.start = Time(time, "start");
            f.end = Time(time, "end");
        }
        f.actor_processes = Texts(node, "actor_processes");
        f.usernames = Words(node, "actor_usernames");
        if (category == kNetwork) {
            if (present("protocol", mf::ConditionProtocol))
                f.object_kind = uint32_t(source_.Number(node["protocol"], "protocol", UINT32_MAX));
            ReadGroup(node["local"], "local", f.groups[0], mf::ConditionLocalAddress, mf::ConditionLocalPort, implied);
            ReadGroup(node["remote"], "remote", f.groups[1], mf::ConditionRemoteAddress, mf::ConditionRemotePort,
                      implied);
        } else if (category == kWhiteList) {
            present("arguments", mf::ConditionArguments);
            present("parents", mf::ConditionParentProcess);
            f.arguments = Texts(node, "arguments");
            f.parents = Texts(node, "parents");
        } else {
            present("patterns", mf::ConditionPatterns);
            f.patterns = Texts(node, "patterns");
            if (present("object_kind", mf::ConditionObjectKind))
                f.object_kind = uint32_t(source_.Number(node["object_kind"], "object_kind", UINT32_MAX));
            if (present("attributes", mf::ConditionAttributes))
                f.attributes = uint32_t(source_.Number(node["attributes"], "attributes", UINT32_MAX));
            if (present("value", mf::ConditionFilterValue))
                f.value = uint16_t(source_.Number(node["value"], "value", 0xFFFF));
            if (const YAML::Node size = node["size"]) {
                implied |= mf::ConditionSize;
                source_.ExpectMap(size, "size");
                source_.AllowKeys(size, {"op", "value"}, "size");
                f.size_op = Named(source_.Required(size, "op", "size"), kSizeOperators, "size op");
                f.size_value = source_.Number(source_.Required(size, "value", "size"), "size value");
            }
        }
        f.conditions = node["conditions"] ? Conditions(node["conditions"], category) : implied;
        return f;
    }

    std::vector<Filter> Filters(const YAML::Node &rule, const char *key, uint32_t category) const {
        std::vector<Filter> filters;
        const YAML::Node list = Sequence(rule, key);
        for (size_t i = 0; i < list.size(); ++i) filters.push_back(ReadFilter(list[i], category));
        return filters;
    }

    Rule ReadRule(const YAML::Node &node) const {
        source_.ExpectMap(node, "a rule");
        Rule r;
        const YAML::Node category = source_.Required(node, "category", "a rule");
        r.category = Named(category, kCategoryNames, "category");
        if (r.category > kNetwork)
            source_.Fail(category, "category " + category.Scalar() + " is out of range (at most 5)");
        const std::string what = std::string("a ") + kCategories[r.category].name + " rule";
        switch (r.category) {
            case kFile:
                source_.AllowKeys(node,
                                  {"category", "type", "list", "contexts", "record_size", "flags", "path", "depth",
                                   "operations", "operations2", "include", "exclude"},
                                  what);
                break;
            case kRegistry:
                source_.AllowKeys(node,
                                  {"category", "type", "list", "contexts", "record_size", "path", "value_name", "depth",
                                   "operations", "operations2", "include", "exclude"},
                                  what);
                break;
            case kProcess:
            case kSystem:
                source_.AllowKeys(node,
                                  {"category", "type", "list", "contexts", "record_size", "path", "depth", "operations",
                                   "include", "exclude"},
                                  what);
                break;
            case kWhiteList:
                source_.AllowKeys(
                    node, {"category", "type", "list", "contexts", "record_size", "path", "operations", "include"},
                    what);
                break;
            case kNetwork:
                source_.AllowKeys(
                    node, {"category", "type", "list", "contexts", "record_size", "operations", "include", "exclude"},
                    what);
                break;
        }
        r.type = uint32_t(source_.Number(source_.Required(node, "type", what), "type", UINT32_MAX));
        const uint32_t list = node["list"]                ? Named(node["list"], kLists, "list")
                              : r.category == kWhiteList ? mf::ListNone
                                                         : mf::ListEdr;
        const YAML::Node contexts = source_.Required(node, "contexts", what);
        if (!contexts.IsSequence()) source_.Fail(contexts, "contexts must be a list");
        if (contexts.size() == 0 && node["list"])
            source_.Fail(node["list"], "list is the word of the first context, and the rule has no context");
        for (size_t i = 0; i < contexts.size(); ++i) {
            const YAML::Node entry = contexts[i];
            source_.ExpectMap(entry, "a context");
            source_.AllowKeys(entry, {"id", "list"}, "a context");
            Context c;
            const YAML::Node id = source_.Required(entry, "id", "a context");
            if (!ParseRuleId(source_.Text(id, "id"), c.id))
                source_.Fail(id, "id must be GUID text (6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10) or 32 hex digits");
            c.list = entry["list"] ? Named(entry["list"], kLists, "list") : list;
            if (i == 0 && node["list"] && c.list != list)
                source_.Fail(entry["list"], "the first context's list is the rule's list, and the two differ");
            r.contexts.push_back(c);
        }
        if (node["record_size"])
            r.record_size = uint32_t(source_.Number(node["record_size"], "record_size", UINT32_MAX));
        r.flags = uint32_t(source_.Field(node, "flags", 0, UINT32_MAX));
        r.operations = uint32_t(source_.Field(node, "operations", 0, UINT32_MAX));
        r.operations2 = uint32_t(source_.Field(node, "operations2", 0, UINT32_MAX));
        if (HasPath(r.category)) r.path = ReadText(source_.Required(node, "path", what), "path");
        if (node["value_name"]) r.value_name = ReadText(node["value_name"], "value_name");
        if (const YAML::Node depth = node["depth"]) r.depth = ReadDepth(source_, depth, mf::DepthAny);
        r.include = Filters(node, "include", r.category);
        r.exclude = Filters(node, "exclude", r.category);
        return r;
    }
};

// ---- Reading files ----

// Walks a file as the loader does. For `check` it gathers findings and
// bounds each record by its RecordSize; for `dump` it stops at the first
// problem and follows what each record holds, whatever its RecordSize says.
class FileReader : public Walker {
public:
    FileReader(const Bytes &bytes, bool dumping) : Walker(bytes, dumping) {}

    Policy Read() {
        namespace h = mf::PolicyHeader;
        namespace rr = mf::RuleRecord;
        Policy p;
        if (!in_.Has(0, h::Size)) {
            Error(0, "file is " + Num(bytes_.size()) + " bytes, shorter than the " + Num(h::Size) + "-byte header");
            return p;
        }
        if (in_.U32(h::Magic) != mf::PolicyMagic)
            Error(h::Magic, "magic " + Hex(in_.U32(h::Magic)) + ", expected " + Hex(mf::PolicyMagic));
        const uint32_t body_length = in_.U32(h::BodyLength);
        if (!in_.Has(h::Size, uint64_t(body_length) + 1)) {
            Error(h::BodyLength, "BodyLength " + Num(body_length) + " needs a file of " +
                                     Num(uint64_t(h::Size) + body_length + 1) + " bytes; the file has " +
                                     Num(bytes_.size()));
            return p;
        }
        const uint32_t sum = Checksum(bytes_.data() + h::Size, body_length);
        if (sum != in_.U32(h::BodyChecksum))
            Error(h::BodyChecksum,
                  "checksum " + Hex(in_.U32(h::BodyChecksum)) + " does not match the records (" + Hex(sum) + ")");
        const uint64_t end = uint64_t(h::Size) + body_length;
        if (dumping_ && (bytes_.size() != end + 1 || bytes_[end] != 0))
            Error(end, "the file does not end with the single zero byte a writer adds");
        p.whitelist_capacity = in_.U32(h::WhiteListRuleCapacity);
        past_ = dumping_ ? "BodyLength" : "the end of the record";
        uint32_t whitelist_rules = 0;
        for (uint64_t at = h::Size; at < end;) {
            if (end - at < rr::Size) {
                Error(at, "a record's fixed " + Num(rr::Size) + " bytes run past BodyLength");
                break;
            }
            if (in_.U32(at + rr::Magic) != mf::RuleMagic) {
                Error(at, "rule magic " + Hex(in_.U32(at + rr::Magic)) + ", expected " + Hex(mf::RuleMagic));
                break;
            }
            const uint32_t record_size = in_.U32(at + rr::RecordSize), category = in_.U32(at + rr::RuleCategory);
            if (!dumping_ && record_size == 0) {
                Error(at + rr::RecordSize, "RecordSize 0: the loader's walk never ends");
                break;
            }
            const bool size_fits = record_size <= end - at;
            if (!dumping_ && !size_fits)
                Error(at + rr::RecordSize, "RecordSize " + Num(record_size) + " runs past BodyLength");
            Rule rule;
            uint64_t contents_end = 0;
            try {
                if (category > kNetwork)
                    Fatal(at + rr::RuleCategory,
                          "RuleCategory " + Num(category) + ": the loader refuses anything above " + Num(kNetwork));
                if (category == kWhiteList && ++whitelist_rules > p.whitelist_capacity)
                    Refused(at, p.whitelist_capacity == 0
                                    ? "a whitelist rule, and WhiteListRuleCapacity is 0: the loader refuses the policy"
                                    : "whitelist rule " + Num(whitelist_rules) +
                                          " is more than WhiteListRuleCapacity " + Num(p.whitelist_capacity) +
                                          ": the set is full");
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
    void Magic(uint64_t at, uint32_t expected, const std::string &what) {
        if (U32(at) != expected) Error(at, what + " magic " + Hex(U32(at)) + ", expected " + Hex(expected));
    }

    // The loader looks at the text of an empty value name only when its
    // Length is not 0.
    Text String(uint64_t header, uint64_t text, uint64_t limit, bool always_read = true) {
        return Walker::String(header, text, limit, kStrings, always_read);
    }

    std::vector<Text> Texts(uint64_t &cursor, uint64_t limit, uint32_t count, uint64_t count_at, const char *count_name,
                            uint32_t magic, const char *kind) {
        namespace tr = mf::TextRecord;
        std::vector<Text> texts;
        for (uint32_t i = 0; i < count; ++i) {
            Need(cursor, tr::Size, limit, count_at, std::string(count_name) + " " + Num(count));
            Magic(cursor + tr::Magic, magic, kind);
            texts.push_back(String(cursor + tr::Text, cursor + tr::Size, limit));
            cursor += tr::Size + texts.back().max_length;
        }
        return texts;
    }

    std::vector<uint32_t> Words(uint64_t &cursor, uint64_t limit, uint32_t count, uint64_t count_at,
                                const char *count_name, uint32_t magic, const char *kind) {
        namespace nr = mf::NumberRecord;
        std::vector<uint32_t> words;
        for (uint32_t i = 0; i < count; ++i) {
            Need(cursor, nr::Size, limit, count_at, std::string(count_name) + " " + Num(count));
            Magic(cursor + nr::Magic, magic, kind);
            words.push_back(U32(cursor + nr::Value));
            cursor += nr::Size;
        }
        return words;
    }

    std::vector<std::pair<uint16_t, uint16_t>> Ranges(uint64_t &cursor, uint64_t limit, uint32_t count,
                                                      uint64_t count_at, const char *count_name) {
        namespace pr = mf::PortRangeRecord;
        std::vector<std::pair<uint16_t, uint16_t>> ranges;
        for (uint32_t i = 0; i < count; ++i) {
            Need(cursor, pr::Size, limit, count_at, std::string(count_name) + " " + Num(count));
            Magic(cursor + pr::Magic, mf::NetworkPortRangeMagic, "network port range record");
            ranges.emplace_back(in_.U16(cursor + pr::Low), in_.U16(cursor + pr::High));
            cursor += pr::Size;
        }
        return ranges;
    }

    Filter ReadFilter(uint64_t &cursor, uint64_t limit, uint32_t category, bool first, uint64_t count_at,
                      const std::string &count_text) {
        namespace rf = mf::RuleFilter;
        namespace nf = mf::NetworkFilter;
        static_assert(rf::Magic == nf::Magic && rf::Conditions == nf::Conditions && rf::ObjectKind == nf::ObjectKind &&
                      rf::StartTime == nf::StartTime && rf::EndTime == nf::EndTime);
        const uint64_t at = cursor;
        const bool network = category == kNetwork;
        const uint32_t size = network ? nf::Size : rf::Size;
        Need(at, size, limit, count_at, count_text);
        const std::string name = kCategories[category].name;
        const uint32_t magic = U32(at + rf::Magic), expected = kCategories[category].filter_magic;
        if (magic != expected) {
            const std::string m = name + " filter magic " + Hex(magic) + ", expected " + Hex(expected);
            if (first) {
                Error(at, m);
            } else {
                Warn(at, m + "; the loader tests only the first filter of a list and takes this one on trust");
                Inexpressible(at, m);
            }
        }
        Filter f;
        f.conditions = U32(at + rf::Conditions);
        f.object_kind = U32(at + rf::ObjectKind);
        f.start = in_.U64(at + rf::StartTime);
        f.end = in_.U64(at + rf::EndTime);
        // A process filter is taken whatever its Conditions say.
        if (category != kProcess && (f.conditions & mf::FilterConditions) == 0)
            Refused(at + rf::Conditions,
                    "Conditions " + Hex(f.conditions) + " has none of the low 16 bits: the loader refuses the filter");
        if (category == kFile && (f.conditions & mf::ConditionObjectKind) && (f.object_kind & mf::ObjectKindMask) == 0)
            Refused(at + rf::ObjectKind,
                    "Conditions ask for the object kind, and the low byte of ObjectKind is 0: the loader refuses the "
                    "filter");
        cursor = at + size;
        // The lists, in the order they follow the header.
        auto texts = [&](uint32_t count_offset, const char *count_name, uint32_t list_magic, const char *kind) {
            return Texts(cursor, limit, U32(at + count_offset), at + count_offset, count_name, list_magic, kind);
        };
        auto words = [&](uint32_t count_offset, const char *count_name, uint32_t list_magic, const char *kind) {
            return Words(cursor, limit, U32(at + count_offset), at + count_offset, count_name, list_magic, kind);
        };
        if (network) {
            f.actor_processes =
                texts(nf::ActorProcessCount, "ActorProcessCount", mf::ActorProcessMagic, "actor process record");
            f.usernames =
                words(nf::ActorUsernameCount, "ActorUsernameCount", mf::ActorUsernameMagic, "actor username record");
            for (uint32_t g = 0; g < 2; ++g) {
                const uint32_t counts = nf::Groups + g * mf::NetworkGroup::Size;
                auto &group = f.groups[g];
                group.addresses = texts(counts + mf::NetworkGroup::AddressCount,
                                        g ? "address count of group 1" : "address count of group 0",
                                        mf::NetworkAddressMagic, "network address record");
                group.ports = words(counts + mf::NetworkGroup::PortCount,
                                    g ? "port count of group 1" : "port count of group 0", mf::NetworkPortMagic,
                                    "network port record");
                const uint64_t ranges_at = at + counts + mf::NetworkGroup::PortRangeCount;
                group.ranges = Ranges(cursor, limit, U32(ranges_at), ranges_at,
                                      g ? "port range count of group 1" : "port range count of group 0");
            }
            return f;
        }
        f.attributes = U32(at + rf::AttributeMask);
        f.value = in_.U16(at + rf::FilterValue);
        f.size_op = U32(at + rf::SizeOperator);
        f.size_value = in_.U64(at + rf::SizeOperand);
        if (category == kWhiteList) {
            const struct {
                uint32_t offset;
                const char *name;
            } unused[3] = {{rf::PatternCount, "FilterPatternCount"},
                           {rf::ActorProcessCount, "ActorProcessCount"},
                           {rf::ActorUsernameCount, "ActorUsernameCount"}};
            for (const auto &u : unused)
                if (U32(at + u.offset) != 0)
                    Fatal(at + u.offset, std::string(u.name) + " " + Num(U32(at + u.offset)) +
                                             " in a whitelist filter: the loader refuses pattern and actor lists there");
            f.arguments = texts(rf::ArgumentCount, "ArgumentCount", mf::ArgumentMagic, "argument record");
            f.parents = texts(rf::ParentProcessCount, "ParentProcessCount", mf::ParentProcessMagic,
                              "parent process record");
            return f;
        }
        f.patterns = texts(rf::PatternCount, "FilterPatternCount", mf::PatternMagic, "filter pattern record");
        f.actor_processes =
            texts(rf::ActorProcessCount, "ActorProcessCount", mf::ActorProcessMagic, "actor process record");
        f.usernames = words(rf::ActorUsernameCount, "ActorUsernameCount", mf::ActorUsernameMagic, "actor username record");
        return f;
    }

    void Filters(uint64_t &cursor, uint64_t limit, uint32_t category, uint64_t count_at, const char *count_name,
                 std::vector<Filter> &filters) {
        const uint32_t count = U32(count_at);
        for (uint32_t i = 0; i < count; ++i)
            filters.push_back(
                ReadFilter(cursor, limit, category, i == 0, count_at, std::string(count_name) + " " + Num(count)));
    }

    // Reads the record at `at`, not past `limit`; gives the end of what it holds.
    uint64_t ReadRule(uint64_t at, uint64_t limit, Rule &r) {
        namespace rr = mf::RuleRecord;
        const uint64_t context_magic_at = at + rr::Contexts + mf::ContextHeader::Magic, count_at = at + rr::ContextCount;
        r.category = U32(at + rr::RuleCategory);
        r.type = U32(at + rr::RuleType);
        if (U32(context_magic_at) != mf::ContextMagic)
            Fatal(context_magic_at,
                  "RuleContext magic " + Hex(U32(context_magic_at)) + ", expected " + Hex(mf::ContextMagic));
        const uint32_t count = U32(count_at);
        if (count == 0) Refused(count_at, "context count 0: the parser refuses a rule without a context");
        uint64_t cursor = at + rr::Size;
        for (uint32_t i = 0; i < count; ++i) {
            Need(cursor, mf::ContextEntry::Size, limit, count_at, "context count " + Num(count));
            Context c;
            c.list = U32(cursor + mf::ContextEntry::RuleList);
            const auto id = bytes_.begin() + int64_t(cursor + mf::ContextEntry::RuleId);
            std::copy(id, id + sizeof c.id, c.id);
            r.contexts.push_back(c);
            cursor += mf::ContextEntry::Size;
        }
        if (count && r.category != kWhiteList && r.contexts[0].list != mf::ListFim && r.contexts[0].list != mf::ListEdr)
            Warn(at + rr::FirstRuleList, "RuleList " + Num(r.contexts[0].list) + " is neither FIM (" +
                                             Num(mf::ListFim) + ") nor EDR (" + Num(mf::ListEdr) +
                                             "): both list passes skip the rule");

        const uint64_t body = cursor;
        const std::string name = kCategories[r.category].name;
        Need(body, kCategories[r.category].body_size, limit, body, "the " + name + " rule body");
        // Every body has its magic first.
        static_assert(mf::FileBody::Magic == 0 && mf::RegistryBody::Magic == 0 && mf::ProcessBody::Magic == 0 &&
                      mf::WhiteListBody::Magic == 0 && mf::NetworkBody::Magic == 0);
        if (U32(body) != kCategories[r.category].body_magic)
            Fatal(body, name + " rule body magic " + Hex(U32(body)) + ", expected " +
                            Hex(kCategories[r.category].body_magic));
        const uint64_t type_at = at + rr::RuleType;
        uint64_t includes_at = 0, excludes_at = 0;
        switch (r.category) {
            case kFile: {
                namespace b = mf::FileBody;
                r.flags = U32(body + b::RuleFlags);
                r.depth = int32_t(U32(body + b::Depth));
                includes_at = body + b::IncludeCount, excludes_at = body + b::ExcludeCount;
                r.operations = U32(body + b::OperationMask), r.operations2 = U32(body + b::OperationMask2);
                r.path = String(body + b::Path, body + b::Size, limit);
                cursor = body + b::Size + r.path.max_length;
                const uint32_t file = mf::FileRuleTypeFile, directory = mf::FileRuleTypeDirectory;
                if (r.type == file && !(r.operations & mf::FileOperations))
                    Refused(body + b::OperationMask, "a file rule of type " + Num(file) + " needs a bit of " +
                                                         Hex(mf::FileOperations) + " in OperationMask " +
                                                         Hex(r.operations));
                else if (r.type == directory && !(r.operations & mf::FileOperations) &&
                         !(r.operations2 & mf::DirectoryOperations2))
                    Refused(body + b::OperationMask, "a file rule of type " + Num(directory) + " needs a bit of " +
                                                         Hex(mf::FileOperations) + " in OperationMask or of " +
                                                         Hex(mf::DirectoryOperations2) + " in OperationMask2");
                else if (r.type != file && r.type != directory)
                    Warn(type_at, "file rule type " + Num(r.type) +
                                      ": the file matcher ends its walk with an error at this rule");
                break;
            }
            case kRegistry: {
                namespace b = mf::RegistryBody;
                r.depth = int32_t(U32(body + b::Depth));
                includes_at = body + b::IncludeCount, excludes_at = body + b::ExcludeCount;
                r.operations = U32(body + b::OperationMask), r.operations2 = U32(body + b::OperationMask2);
                r.path = String(body + b::Path, body + b::Size, limit);
                r.value_name = String(body + b::ValueName, body + b::Size + r.path.max_length, limit, false);
                cursor = body + b::Size + r.path.max_length + r.value_name.max_length;
                static_assert(mf::RegistryOperations == 0xFF, "the message below names the low byte");
                if (((r.operations | r.operations2) & mf::RegistryOperations) == 0)
                    Refused(body + b::OperationMask,
                            "a registry rule needs a bit in the low byte of OperationMask or OperationMask2");
                if (r.type != mf::RegistryRuleTypeKey && r.type != mf::RegistryRuleTypeValue)
                    Warn(type_at, "registry rule type " + Num(r.type) + ": the registry matcher skips it");
                break;
            }
            case kProcess:
            case kSystem: {
                // One layout for both.
                namespace b = mf::ProcessBody;
                r.depth = int32_t(U32(body + b::Depth));
                includes_at = body + b::IncludeCount, excludes_at = body + b::ExcludeCount;
                r.operations = U32(body + b::OperationMask);
                r.path = String(body + b::Path, body + b::Size, limit);
                cursor = body + b::Size + r.path.max_length;
                if (r.category == kProcess && !(r.operations & mf::ProcessOperations))
                    Refused(body + b::OperationMask, "a process rule needs a bit of " + Hex(mf::ProcessOperations) +
                                                         " in OperationMask " + Hex(r.operations));
                if (r.category == kSystem && !(r.operations & mf::SystemOperations))
                    Refused(body + b::OperationMask, "a system rule needs bit " + Hex(mf::SystemOperations) +
                                                         " in OperationMask " + Hex(r.operations));
                if (r.category == kSystem && in_.U16(body + b::Path + mf::StringHeader::Length) == 0)
                    Refused(body + b::Path, "a system rule needs a path");
                break;
            }
            case kWhiteList: {
                namespace b = mf::WhiteListBody;
                includes_at = body + b::IncludeCount;
                r.operations = U32(body + b::OperationMask);
                r.path = String(body + b::Path, body + b::Size, limit);
                cursor = body + b::Size + r.path.max_length;
                if (r.type != mf::WhiteListRuleTypeEdr && r.type != mf::WhiteListRuleTypeFim)
                    Warn(type_at, "whitelist rule type " + Num(r.type) + ": it grants nothing");
                break;
            }
            case kNetwork: {
                namespace b = mf::NetworkBody;
                includes_at = body + b::IncludeCount, excludes_at = body + b::ExcludeCount;
                r.operations = U32(body + b::OperationMask);
                cursor = body + b::Size;
                if (!(r.operations & mf::NetworkOperations))
                    Refused(body + b::OperationMask, "a network rule needs a bit of " + Hex(mf::NetworkOperations) +
                                                         " in OperationMask " + Hex(r.operations));
                break;
            }
        }
        Filters(cursor, limit, r.category, includes_at, "IncludeCount", r.include);
        if (excludes_at) Filters(cursor, limit, r.category, excludes_at, "ExcludeCount", r.exclude);
        return cursor;
    }
};

// ---- Printing sources ----

template <class T, class F>
std::string Flow(const std::vector<T> &items, F print) {
    std::string out = "[";
    for (const auto &item : items) out += (out.size() > 1 ? ", " : "") + print(item);
    return out + "]";
}

std::string Words(const std::vector<uint32_t> &words) {
    return Flow(words, [](uint32_t w) { return Num(w); });
}

std::string NameOf(uint32_t value, std::span<const Name> names) {
    for (const auto &n : names)
        if (n.value == value) return n.name;
    return Num(value);
}

// Names for the bits that have one, a number for the rest.
std::string ConditionsText(uint32_t bits, uint32_t category) {
    std::vector<std::string> parts;
    for (const auto &n : ConditionNames(category))
        if (bits & n.value) parts.push_back(n.name), bits &= ~n.value;
    if (bits) parts.push_back(Hex(bits));
    return Flow(parts, [](const std::string &p) { return p; });
}

// A word with bits beyond the three parts is printed whole, so that it
// compiles back to itself.
std::string TimeText(uint64_t word) {
    constexpr uint64_t kParts = uint64_t(mf::TimePartMask) << mf::TimeHourShift |
                                uint64_t(mf::TimePartMask) << mf::TimeMinuteShift |
                                uint64_t(mf::TimePartMask) << mf::TimeSecondShift;
    if (word & ~kParts) return Hex(word);
    char buf[16];
    std::snprintf(buf, sizeof buf, "'%02u:%02u:%02u'", unsigned(word >> mf::TimeHourShift & mf::TimePartMask),
                  unsigned(word >> mf::TimeMinuteShift & mf::TimePartMask),
                  unsigned(word >> mf::TimeSecondShift & mf::TimePartMask));
    return buf;
}

void PrintFilters(std::ostringstream &out, const char *key, uint32_t category, const std::vector<Filter> &filters) {
    out << "      " << key << ":" << (filters.empty() ? " []\n" : "\n");
    for (const auto &f : filters) {
        const char *pad = "          ";
        out << "        - conditions: " << ConditionsText(f.conditions, category) << "\n";
        if (category == kNetwork) out << pad << "protocol: " << Hex(f.object_kind) << "\n";
        if (category == kFile || category == kRegistry) out << pad << "object_kind: " << Hex(f.object_kind) << "\n";
        if (category == kFile) {
            out << pad << "attributes: " << Hex(f.attributes) << "\n";
            const std::string op =
                f.size_op >= 1 && f.size_op <= 5 ? "'" + NameOf(f.size_op, kSizeOperators) + "'" : Num(f.size_op);
            out << pad << "size: {op: " << op << ", value: " << f.size_value << "}\n";
        }
        if (category == kProcess) out << pad << "value: " << Hex(f.value) << "\n";
        if (category == kWhiteList) {
            out << pad << "arguments: " << TextList(f.arguments) << "\n";
            out << pad << "parents: " << TextList(f.parents) << "\n";
            continue;
        }
        if (category != kNetwork) out << pad << "patterns: " << TextList(f.patterns) << "\n";
        out << pad << "actor_processes: " << TextList(f.actor_processes) << "\n";
        out << pad << "actor_usernames: " << Words(f.usernames) << "\n";
        if (category == kNetwork) {
            const char *names[2] = {"local", "remote"};
            for (int g = 0; g < 2; ++g) {
                const auto &group = f.groups[g];
                out << pad << names[g] << ": {addresses: " << TextList(group.addresses)
                    << ", ports: " << Words(group.ports) << ", port_ranges: "
                    << Flow(group.ranges, [](const auto &r) { return "[" + Num(r.first) + ", " + Num(r.second) + "]"; })
                    << "}\n";
            }
        }
        out << pad << "time: {start: " << TimeText(f.start) << ", end: " << TimeText(f.end) << "}\n";
    }
}

std::string Print(const Policy &p) {
    std::ostringstream out;
    out << "monitor:\n";
    out << "  whitelist_capacity: " << p.whitelist_capacity << "\n";
    out << "  rules:" << (p.rules.empty() ? " []\n" : "\n");
    for (const auto &r : p.rules) {
        out << "    - category: " << kCategories[r.category].name << "\n";
        out << "      type: " << r.type << "\n";
        if (!r.contexts.empty()) out << "      list: " << NameOf(r.contexts[0].list, kLists) << "\n";
        out << "      contexts:" << (r.contexts.empty() ? " []\n" : "\n");
        for (const auto &c : r.contexts)
            out << "        - {id: " << RuleIdText(c.id) << ", list: " << NameOf(c.list, kLists) << "}\n";
        if (r.record_size) out << "      record_size: " << *r.record_size << "\n";
        if (r.category == kFile) out << "      flags: " << Hex(r.flags) << "\n";
        if (HasPath(r.category)) out << "      path: " << Item(r.path) << "\n";
        if (r.category == kRegistry) out << "      value_name: " << Item(r.value_name) << "\n";
        if (HasDepth(r.category))
            out << "      depth: " << DepthText(r.depth, mf::DepthAny) << "\n";
        out << "      operations: " << Hex(r.operations) << "\n";
        if (r.category == kFile || r.category == kRegistry) out << "      operations2: " << Hex(r.operations2) << "\n";
        PrintFilters(out, "include", r.category, r.include);
        if (HasExclude(r.category)) PrintFilters(out, "exclude", r.category, r.exclude);
    }
    return out.str();
}

}  // namespace

Bytes CompileMonitor(const YAML::Node &body, const std::string &source_name) {
    return Encode(SourceReader(source_name).Read(body));
}

std::string DumpMonitor(const Bytes &binary) {
    FileReader reader(binary, true);
    const std::string text = Print(reader.Read());
    ProveDump(binary, text, mf::PolicyHeader::BodyChecksum);
    return text;
}

std::vector<Finding> CheckMonitor(const Bytes &binary) {
    FileReader reader(binary, false);
    reader.Read();
    return reader.findings;
}

}  // namespace detail
}  // namespace tpol
