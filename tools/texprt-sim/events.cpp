// Event steps: what a monitor does for one event. The `event` action builds
// a filter event object from named fields, matches it against the live rule
// sets with the process's whitelist state, prints the verdict with the ids
// of the rules it hit, and cleans up, all through the library's exports.
//
//   - action: event
//     args:
//       kind: file                 # file, registry, process, system, network, whitelist
//       name: '\Device\HarddiskVolume2\Users\Bob\report.docx'
//       volume: '\Device\HarddiskVolume2'   # or prefix_length: 46
//       operation: 0x2
//       actor_image: '\Device\HarddiskVolume2\Tools\copy.exe'
//     expect:
//       result: {matched: true, hits: [6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10]}
#include "sim.h"

#include <hk/ntkernel.h>

#include "rules/store.h"  // first: it sets up the library's export macros
#include "include/texprt.h"
#include "tools/tpol/lib/tpol.h"

#include <cstring>
#include <set>

namespace sim {

namespace {

// A counted string over text that the step keeps alive.
struct WideText {
    std::u16string text;
    UNICODE_STRING string{};

    WideText() = default;
    explicit WideText(const std::string &utf8) : text(hk::Utf16(utf8)) { Point(); }
    WideText(const WideText &) = delete;
    WideText &operator=(const WideText &) = delete;
    void Assign(const std::string &utf8) {
        text = hk::Utf16(utf8);
        Point();
    }
    void Point() {
        string.Length = USHORT(text.size() * 2);
        string.MaximumLength = USHORT(text.size() * 2);
        string.Buffer = text.data();
    }
};

// An optional string argument: absent gives a null pointer.
struct OptionalText {
    bool given = false;
    WideText wide;
    PCUNICODE_STRING Get() const { return given ? &wide.string : nullptr; }
};

void TakeText(StepContext &c, const char *name, OptionalText *out) {
    if (!c.Has(name)) return;
    out->given = true;
    out->wide.Assign(c.Text(name));
}

// 2026-11-21 13:45:00 (UTC) to system time.
int64_t ParseSystemTime(StepContext &c, const std::string &text) {
    int year, month, day, hour = 0, minute = 0, second = 0;
    char separator = ' ';
    const int fields = std::sscanf(text.c_str(), "%d-%d-%d%c%d:%d:%d", &year, &month, &day, &separator, &hour,
                                   &minute, &second);
    if ((fields != 3 && fields != 7) || (fields == 7 && separator != ' ' && separator != 'T') || month < 1 ||
        month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59)
        c.Error("time '" + text + "' is not YYYY-MM-DD HH:MM:SS (system time, UTC) or a number of ticks");
    // Days since 1601-01-01, the start of system time.
    const int y = month <= 2 ? year - 1 : year;
    const int era = (y >= 0 ? y : y - 399) / 400;
    const int yoe = y - era * 400;
    const int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const int64_t days_since_1970 = int64_t(era) * 146097 + doe - 719468;
    const int64_t days = days_since_1970 + 134774;
    return ((days * 24 + hour) * 60 + minute) * 60 * hk::kTicksPerSecond + int64_t(second) * hk::kTicksPerSecond;
}

uint64_t EventTime(StepContext &c) {
    if (!c.Has("time")) return uint64_t(hk::SystemTime());
    uint64_t ticks;
    if (AsNumber(c.Arg("time"), &ticks)) return ticks;
    return uint64_t(ParseSystemTime(c, c.Text("time")));
}

// The acting process's block: a fixed part of 32 bytes, then the two image
// paths, the security descriptor and the SID, unaligned. Held in 8-byte
// words so that the block is aligned as a pool block would be.
struct ActorBlock {
    bool given = true;
    std::vector<uint64_t> words;
    uint32_t size = 0;
    ActorInformation *Get() { return given ? reinterpret_cast<ActorInformation *>(words.data()) : nullptr; }
};

const char *kDefaultActorImage = "\\Device\\HarddiskVolume2\\Windows\\explorer.exe";

ActorBlock BuildActor(StepContext &c) {
    ActorBlock block;
    json actor = json::object();
    if (c.Has("actor")) {
        const json &given = c.Arg("actor");
        if (given.is_string() && given.get<std::string>() == "none") {
            block.given = false;
            return block;
        }
        if (!given.is_object()) c.Error("actor is a mapping (pid, tid, image, win32_path, ...) or 'none'");
        actor = given;
        static const std::set<std::string> known = {"pid",   "tid",        "security_information", "create_time",
                                                    "image", "win32_path", "descriptor",           "sid",
                                                    "size"};
        for (auto it = actor.begin(); it != actor.end(); ++it)
            if (!known.count(it.key())) c.Error("unknown actor field '" + it.key() + "'");
    }
    if (c.Has("actor_image")) {
        if (actor.contains("image")) c.Error("give the image either as actor_image or in actor, not both");
        actor["image"] = c.Text("actor_image");
    }
    auto number = [&](const char *field, uint64_t fallback) {
        if (!actor.contains(field)) return fallback;
        uint64_t value;
        if (!AsNumber(actor[field], &value)) c.Error(std::string("actor field '") + field + "' must be a number");
        return value;
    };
    auto bytes = [&](const char *field) {
        if (!actor.contains(field)) return std::vector<uint8_t>{};
        return HexBytes(actor[field].get<std::string>(), c.file, c.node);
    };
    const std::u16string win32 = hk::Utf16(actor.value("win32_path", std::string()));
    const std::u16string image = hk::Utf16(actor.value("image", std::string(kDefaultActorImage)));
    const auto descriptor = bytes("descriptor");
    const auto sid = bytes("sid");
    const size_t total = 32 + win32.size() * 2 + image.size() * 2 + descriptor.size() + sid.size();
    block.words.assign((total + 7) / 8, 0);
    auto *base = reinterpret_cast<uint8_t *>(block.words.data());
    auto *fixed = reinterpret_cast<ActorInformation *>(base);
    fixed->ProcessId = ULONG(number("pid", 1000));
    fixed->ThreadId = ULONG(number("tid", 1004));
    fixed->SecurityInformation = ULONG(number("security_information", descriptor.empty() ? 0 : 15));
    fixed->CreateTime.QuadPart = LONGLONG(number("create_time", uint64_t(hk::kDefaultBootTime)));
    fixed->Win32ImagePathLength = USHORT(win32.size() * 2);
    fixed->ImageFileNameLength = USHORT(image.size() * 2);
    fixed->SecurityDescriptorLength = ULONG(descriptor.size());
    fixed->SidLength = UCHAR(sid.size());
    size_t at = 32;
    std::memcpy(base + at, win32.data(), win32.size() * 2);
    at += win32.size() * 2;
    std::memcpy(base + at, image.data(), image.size() * 2);
    at += image.size() * 2;
    if (!descriptor.empty()) std::memcpy(base + at, descriptor.data(), descriptor.size());
    at += descriptor.size();
    if (!sid.empty()) std::memcpy(base + at, sid.data(), sid.size());
    // A size other than the block's own: the way to hand the library a
    // record that claims more, or less, than it holds.
    block.size = uint32_t(number("size", total));
    if (block.size > block.words.size() * 8) block.words.resize((block.size + 7) / 8, 0);
    return block;
}

WhiteListState BuildState(StepContext &c) {
    WhiteListState state{};
    if (!c.Has("whitelist")) return state;
    const json &given = c.Arg("whitelist");
    if (!given.is_object()) c.Error("whitelist is a mapping: header, unknown_rule_seen, exempt (four masks)");
    for (auto it = given.begin(); it != given.end(); ++it) {
        uint64_t value;
        if (it.key() == "exempt") {
            if (!it->is_array() || it->size() != 4) c.Error("whitelist.exempt lists the four exempt masks");
            for (size_t word = 0; word < 4; ++word) {
                if (!AsNumber((*it)[word], &value)) c.Error("whitelist.exempt holds numbers");
                state.ExemptMasks[word] = ULONG(value);
            }
        } else if (it.key() == "header" || it.key() == "unknown_rule_seen") {
            if (!AsNumber(*it, &value)) c.Error("whitelist." + it.key() + " must be a number");
            (it.key() == "header" ? state.WhiteListHeader : state.UnknownRuleSeen) = UCHAR(value);
        } else {
            c.Error("unknown whitelist field '" + it.key() + "' (expected header, unknown_rule_seen, exempt)");
        }
    }
    return state;
}

uint32_t ObjectTypeArg(StepContext &c, uint32_t fallback) {
    if (!c.Has("type")) return fallback;
    static const std::map<std::string, uint32_t> names = {
        {"file", TEXPRT_OBJECT_FILE},          {"directory", TEXPRT_OBJECT_DIRECTORY},
        {"key", TEXPRT_OBJECT_REGISTRY_KEY},   {"value", TEXPRT_OBJECT_REGISTRY_VALUE},
        {"process", TEXPRT_OBJECT_PROCESS},    {"system", TEXPRT_OBJECT_SYSTEM},
        {"network", TEXPRT_OBJECT_NETWORK}};
    uint64_t value;
    if (AsNumber(c.Arg("type"), &value)) return uint32_t(value);
    const auto found = names.find(c.Text("type"));
    if (found == names.end()) c.Error("type is a number or one of file, directory, key, value");
    return found->second;
}

// The arguments each kind of event takes, so that a misspelt field is an
// error rather than a silent default.
const std::map<std::string, std::set<std::string>> &KnownArguments() {
    static const std::set<std::string> common = {"kind",       "time",        "actor",           "actor_image",
                                                 "whitelist",  "operation",   "fail_allocation", "fail_float_save"};
    auto with = [](std::set<std::string> extra) {
        extra.insert(common.begin(), common.end());
        return extra;
    };
    static const std::map<std::string, std::set<std::string>> table = {
        {"file", with({"name", "volume", "prefix_length", "type", "attributes", "size"})},
        {"registry", with({"key", "value", "type"})},
        {"process", with({"name", "process_code"})},
        {"system", with({"name"})},
        {"network", with({"local", "remote", "protocol"})},
        {"whitelist", {"kind", "image", "command_line", "parent", "fail_allocation"}},
    };
    return table;
}

json ResultJson(const FilterResult &result) {
    json out;
    out["verdict"] = StatusText(result.Status);
    out["matched"] = result.Status == STATUS_SUCCESS;
    json hits = json::array();
    json contexts = json::array();
    std::set<std::string> seen;
    for (ULONG i = 0; i < result.ContextCount; ++i) {
        const MatchedContext &entry = result.Contexts[i];
        const std::string id = tpol::RuleIdText(reinterpret_cast<const uint8_t *>(entry.RuleId));
        if (seen.insert(id).second) hits.push_back(id);
        contexts.push_back({{"rule_id", id},
                            {"list", entry.RuleList == 1 ? json("fim") : entry.RuleList == 2 ? json("edr")
                                                                                              : json(entry.RuleList)},
                            {"rule_flags", HexText(entry.RuleFlags, 2)},
                            {"exclusion_seen", entry.ExclusionSeen}});
    }
    out["hits"] = hits;
    out["contexts"] = contexts;
    out["file_operations"] = HexText(result.FileOperations);
    out["directory_operations"] = HexText(result.DirectoryOperations);
    out["key_operations"] = HexText(result.KeyOperations);
    out["value_operations"] = HexText(result.ValueOperations);
    out["process_operations"] = HexText(result.ProcessOperations);
    out["system_operations"] = HexText(result.SystemOperations);
    out["network_operations"] = HexText(result.NetworkOperations);
    out["rule_flags"] = HexText(result.RuleFlags, 2);
    out["exclusion_seen"] = result.ExclusionSeen;
    return out;
}

// One run of a monitor's event path. Each stage's status is reported; the
// step's status is the first failure, STATUS_SUCCESS when there is none.
class EventRun {
public:
    explicit EventRun(StepContext &c) : c_(c) {}

    StepOutcome Run() {
        const std::string kind = c_.Text("kind");
        const auto known = KnownArguments().find(kind);
        if (known == KnownArguments().end())
            c_.Error("kind is one of file, registry, process, system, network, whitelist");
        for (auto it = c_.args.begin(); it != c_.args.end(); ++it)
            if (!known->second.count(it.key()))
                c_.Error("an event of kind " + kind + " takes no argument '" + it.key() + "'");

        actor_ = kind == "whitelist" ? ActorBlock{} : BuildActor(c_);
        state_ = BuildState(c_);
        time_ = EventTime(c_);
        operation_ = USHORT(c_.Number("operation", 0));
        // Injections cover the step's own calls only.
        if (c_.Has("fail_allocation")) hk::FailNthAllocation(c_.Number("fail_allocation"));
        if (c_.Has("fail_float_save")) hk::FailFloatingPointSave(NTSTATUS(c_.Number("fail_float_save")));

        if (kind == "file") File();
        else if (kind == "registry") Registry();
        else if (kind == "process") Process();
        else if (kind == "system") System();
        else if (kind == "network") Network();
        else WhiteList();

        hk::ClearAllocationFailures();
        hk::FailFloatingPointSave(STATUS_SUCCESS);
        return Finish();
    }

private:
    template <typename Fn>
    Fn *Export(const char *name) {
        return c_.machine.Export<Fn>(name);
    }

    // Records a stage; the stages after a failed one are not run.
    bool Stage(const char *name, NTSTATUS status) {
        out_.result["stages"][name] = StatusText(status);
        if (!NT_SUCCESS(status) && NT_SUCCESS(first_failure_)) first_failure_ = status;
        return NT_SUCCESS(status);
    }

    template <typename Object, typename MatchFn>
    void Match(const char *name, Object *object) {
        FilterResult result{};
        matched_ = true;
        Stage("match", Export<MatchFn>(name)(object, &state_, &result));
        out_.result.update(ResultJson(result));
        Stage("cleanup_result", Export<decltype(TcTFeCleanupResult)>("TcTFeCleanupResult")(&result));
    }

    void File() {
        WideText name(c_.Text("name"));
        USHORT prefix = USHORT(c_.Number("prefix_length", 0));
        if (c_.Has("volume")) {
            if (c_.Has("prefix_length")) c_.Error("give either volume or prefix_length");
            prefix = USHORT(hk::Utf16(c_.Text("volume")).size() * 2);
        }
        const uint64_t size = c_.Number("size", 0);
        FileObject object{};
        if (Stage("initialize", Export<decltype(TcTFeInitializeFileObject)>("TcTFeInitializeFileObject")(
                                    &object, &name.string, prefix, ObjectTypeArg(c_, TEXPRT_OBJECT_FILE),
                                    ULONG(c_.Number("attributes", 0)), ULONG(size), ULONG(size >> 32))) &&
            Stage("add", Export<decltype(TcTFeAddFileEventInfo)>("TcTFeAddFileEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), actor_.Get(), actor_.size, operation_)))
            Match<FileObject, decltype(TcTFeMatchesMonitorFileRuleSet)>("TcTFeMatchesMonitorFileRuleSet", &object);
        Stage("cleanup", Export<decltype(TcTFeCleanupFileObject)>("TcTFeCleanupFileObject")(&object));
    }

    void Registry() {
        WideText key(c_.Text("key"));
        OptionalText value;
        TakeText(c_, "value", &value);
        RegistryObject object{};
        const uint32_t type =
            ObjectTypeArg(c_, value.given ? TEXPRT_OBJECT_REGISTRY_VALUE : TEXPRT_OBJECT_REGISTRY_KEY);
        if (Stage("initialize", Export<decltype(TcTFeInitializeRegistryObject)>("TcTFeInitializeRegistryObject")(
                                    &object, &key.string, value.Get(), type)) &&
            Stage("add", Export<decltype(TcTFeAddRegistryEventInfo)>("TcTFeAddRegistryEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), actor_.Get(), actor_.size, operation_)))
            Match<RegistryObject, decltype(TcTFeMatchesMonitorRegistryRuleSet)>("TcTFeMatchesMonitorRegistryRuleSet",
                                                                                &object);
        Stage("cleanup", Export<decltype(TcTFeCleanupRegistryObject)>("TcTFeCleanupRegistryObject")(&object));
    }

    void Process() {
        WideText name(c_.Text("name"));
        ProcessObject object{};
        if (Stage("initialize", Export<decltype(TcTFeInitializeProcessObject)>("TcTFeInitializeProcessObject")(
                                    &object, &name.string)) &&
            Stage("add", Export<decltype(TcTFeAddProcessEventInfo)>("TcTFeAddProcessEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), actor_.Get(), actor_.size, operation_))) {
            // The monitor writes the code into the object itself.
            object.ProcessCode = USHORT(c_.Number("process_code", 0));
            Match<ProcessObject, decltype(TcTFeMatchesMonitorProcessRuleSet)>("TcTFeMatchesMonitorProcessRuleSet",
                                                                              &object);
        }
        Stage("cleanup", Export<decltype(TcTFeCleanupProcessObject)>("TcTFeCleanupProcessObject")(&object));
    }

    void System() {
        WideText name(c_.Text("name"));
        SystemObject object{};
        if (c_.Has("operation")) c_.Error("a system event has no operation");
        if (Stage("initialize", Export<decltype(TcTFeInitializeSystemObject)>("TcTFeInitializeSystemObject")(
                                    &object, &name.string)) &&
            Stage("add", Export<decltype(TcTFeAddSystemEventInfo)>("TcTFeAddSystemEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), actor_.Get(), actor_.size)))
            Match<SystemObject, decltype(TcTFeMatchesMonitorSystemRuleSet)>("TcTFeMatchesMonitorSystemRuleSet",
                                                                            &object);
        Stage("cleanup", Export<decltype(TcTFeCleanupSystemObject)>("TcTFeCleanupSystemObject")(&object));
    }

    // local / remote: {address: '10.0.0.5', port: 443}; remote may be left out.
    void Network() {
        auto end = [&](const char *side, OptionalText *address, USHORT *port) {
            if (!c_.Has(side)) return;
            const json &given = c_.Arg(side);
            if (!given.is_object()) c_.Error(std::string(side) + " is a mapping: address, port");
            for (auto it = given.begin(); it != given.end(); ++it) {
                if (it.key() == "address") {
                    address->given = true;
                    address->wide.Assign(it->is_string() ? it->get<std::string>() : it->dump());
                } else if (it.key() == "port") {
                    uint64_t value;
                    if (!AsNumber(*it, &value) || value > 0xFFFF) c_.Error(std::string(side) + ".port is 0 to 65535");
                    *port = USHORT(value);
                } else {
                    c_.Error("unknown field '" + it.key() + "' in " + side + " (expected address, port)");
                }
            }
        };
        OptionalText local, remote;
        USHORT local_port = 0, remote_port = 0;
        end("local", &local, &local_port);
        end("remote", &remote, &remote_port);
        NetworkObject object{};
        if (Stage("initialize", Export<decltype(TcTFeInitializeNetworkObject)>("TcTFeInitializeNetworkObject")(
                                    &object, local_port, remote_port, local.Get(), remote.Get())) &&
            Stage("add", Export<decltype(TcTFeAddNetworkEventInfo)>("TcTFeAddNetworkEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), actor_.Get(), actor_.size, operation_))) {
            object.ProtocolBits = USHORT(c_.Number("protocol", 0));
            Match<NetworkObject, decltype(TcTFeMatchesMonitorNetworkRuleSet)>("TcTFeMatchesMonitorNetworkRuleSet",
                                                                              &object);
        }
        Stage("cleanup", Export<decltype(TcTFeCleanupNetworkObject)>("TcTFeCleanupNetworkObject")(&object));
    }

    // The whitelist object is built and released; its matcher is a later step.
    void WhiteList() {
        WideText image(c_.Text("image"));
        OptionalText command_line, parent;
        TakeText(c_, "command_line", &command_line);
        TakeText(c_, "parent", &parent);
        WhiteListObject object{};
        Stage("initialize", Export<decltype(TcTFeInitializeWhiteListObject)>("TcTFeInitializeWhiteListObject")(
                                &object, &image.string, command_line.Get(), parent.Get()));
        out_.result["image"] = hk::Utf8(std::u16string(object.ImagePath.Buffer ? object.ImagePath.Buffer : u"",
                                                       object.ImagePath.Length / 2));
        Stage("cleanup", Export<decltype(TcTFeCleanupWhiteListObject)>("TcTFeCleanupWhiteListObject")(&object));
    }

    StepOutcome Finish() {
        out_.has_status = true;
        out_.status = first_failure_;
        if (!matched_) out_.result["matched"] = false;
        return out_;
    }

    StepContext &c_;
    StepOutcome out_;
    ActorBlock actor_;
    WhiteListState state_{};
    uint64_t time_ = 0;
    USHORT operation_ = 0;
    bool matched_ = false;
    NTSTATUS first_failure_ = STATUS_SUCCESS;
};

}  // namespace

void AddEventActions(std::map<std::string, StepHandler> &actions) {
    actions["event"] = [](StepContext &c) { return EventRun(c).Run(); };
}

void AddEventExports(std::map<std::string, StepHandler> &exports) {
    exports["TcTFeIsMonitorFileRuleSetHasUNCRule"] = [](StepContext &c) {
        StepOutcome out;
        out.result["value"] = bool(c.machine.Export<decltype(TcTFeIsMonitorFileRuleSetHasUNCRule)>(
            "TcTFeIsMonitorFileRuleSetHasUNCRule")());
        return out;
    };
    exports["TcTFeUnsetBaselineFlagFileRuleSet"] = [](StepContext &c) {
        // rule_ids: the entries' rule ids; size: the byte size passed, when
        // it is to differ from the entries' own.
        std::vector<MatchedContext> entries;
        if (c.Has("rule_ids")) {
            for (const auto &id : c.Arg("rule_ids")) {
                MatchedContext entry{};
                if (!id.is_string() || !tpol::ParseRuleId(id.get<std::string>(), reinterpret_cast<uint8_t *>(entry.RuleId)))
                    c.Error("rule_ids lists rule ids such as 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10");
                entry.RuleList = 1;
                entries.push_back(entry);
            }
        }
        const uint64_t size = c.Number("size", entries.size() * sizeof(MatchedContext));
        if (size > entries.size() * sizeof(MatchedContext)) c.Error("size runs past the listed entries");
        StepOutcome out;
        out.has_status = true;
        MatchedContext none{};
        out.status = c.machine.Export<decltype(TcTFeUnsetBaselineFlagFileRuleSet)>("TcTFeUnsetBaselineFlagFileRuleSet")(
            c.Flag("null_entries", false) ? nullptr : entries.empty() ? &none : entries.data(), ULONG(size));
        return out;
    };
    exports["TcTFeIsSubPathOfRulePath"] = [](StepContext &c) {
        WideText rule(c.Text("rule_path")), name(c.Text("name"));
        StepOutcome out;
        out.result["value"] = bool(c.machine.Export<decltype(TcTFeIsSubPathOfRulePath)>("TcTFeIsSubPathOfRulePath")(
            &rule.string, &name.string, c.Flag("ignore_case", false)));
        return out;
    };
}

}  // namespace sim
