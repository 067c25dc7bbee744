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
//
// The records it shares with the call steps (actor blocks, whitelist
// states, verdicts) are built and printed here too.
#include "records.h"

#include "tools/tpol/lib/tpol.h"

#include <cstring>
#include <set>

namespace sim {

// ---------------------------------------------------------------- shared records

namespace {

const char *kDefaultActorImage = "\\Device\\HarddiskVolume2\\Windows\\explorer.exe";

}  // namespace

const std::vector<std::string> &ActorFields(bool with_size) {
    static const std::vector<std::string> fields = {
        "pid", "tid", "security_information", "create_time", "image", "win32_path", "descriptor", "sid"};
    static const std::vector<std::string> with = [] {
        auto all = fields;
        all.push_back("size");
        return all;
    }();
    return with_size ? with : fields;
}

ActorBlock BuildActor(const StepContext &c, const Argument *actor, const Argument *image, bool with_size) {
    std::map<std::string, Argument> fields;
    if (actor != nullptr) fields = c.FieldsOf(*actor, ActorFields(with_size));
    if (image != nullptr) {
        if (fields.count("image")) c.ErrorAt(*image, "give the image either as actor_image or in actor, not both");
        fields.emplace("image", *image);
    }
    auto number = [&](const char *field, uint64_t maximum, uint64_t fallback) {
        return fields.count(field) ? c.NumberOf(fields.at(field), maximum) : fallback;
    };
    auto text = [&](const char *field, const std::string &fallback) {
        return fields.count(field) ? c.TextOf(fields.at(field)) : fallback;
    };
    auto bytes = [&](const char *field) {
        return fields.count(field) ? c.HexOf(fields.at(field)) : std::vector<uint8_t>{};
    };
    const std::u16string win32 = hk::Utf16(text("win32_path", ""));
    const std::u16string image_name = hk::Utf16(text("image", kDefaultActorImage));
    const auto descriptor = bytes("descriptor");
    const auto sid = bytes("sid");
    if (win32.size() * 2 > 0xFFFF || image_name.size() * 2 > 0xFFFF || sid.size() > 0xFF)
        c.ErrorAt(actor != nullptr ? *actor : *image, "an actor's texts take at most 32767 characters, its SID 255 bytes");
    const size_t total = 32 + win32.size() * 2 + image_name.size() * 2 + descriptor.size() + sid.size();
    ActorBlock block;
    block.words.assign((total + 7) / 8, 0);
    auto *base = reinterpret_cast<uint8_t *>(block.words.data());
    auto *fixed = reinterpret_cast<ActorInformation *>(base);
    fixed->ProcessId = ULONG(number("pid", 0xFFFFFFFF, 1000));
    fixed->ThreadId = ULONG(number("tid", 0xFFFFFFFF, 1004));
    fixed->SecurityInformation = ULONG(number("security_information", 0xFFFFFFFF, descriptor.empty() ? 0 : 15));
    fixed->CreateTime.QuadPart = LONGLONG(number("create_time", INT64_MAX, uint64_t(hk::kDefaultBootTime)));
    fixed->Win32ImagePathLength = USHORT(win32.size() * 2);
    fixed->ImageFileNameLength = USHORT(image_name.size() * 2);
    fixed->SecurityDescriptorLength = ULONG(descriptor.size());
    fixed->SidLength = UCHAR(sid.size());
    size_t at = 32;
    std::memcpy(base + at, win32.data(), win32.size() * 2);
    at += win32.size() * 2;
    std::memcpy(base + at, image_name.data(), image_name.size() * 2);
    at += image_name.size() * 2;
    if (!descriptor.empty()) std::memcpy(base + at, descriptor.data(), descriptor.size());
    at += descriptor.size();
    if (!sid.empty()) std::memcpy(base + at, sid.data(), sid.size());
    // A size other than the block's own: the way to hand the library a
    // record that claims more, or less, than it holds.
    block.size = uint32_t(number("size", 0xFFFFFFFF, total));
    block.Cover(block.size);
    return block;
}

WhiteListState BuildWhiteListState(const StepContext &c, const Argument &given) {
    WhiteListState state{};
    for (const auto &[name, field] : c.FieldsOf(given, {"header", "unknown_rule_seen", "exempt"})) {
        if (name == "exempt") {
            if (!field.value.IsSequence() || field.value.size() != 4)
                c.ErrorAt(field, field.name + " lists the four exempt masks, e.g. [0x4, 0, 0, 0]");
            for (size_t word = 0; word < 4; ++word)
                state.ExemptMasks[word] = ULONG(c.NumberOf(
                    Argument{field.name + "[" + std::to_string(word) + "]", field.key, field.value[word]}, 0xFFFFFFFF));
        } else {
            (name == "header" ? state.WhiteListHeader : state.UnknownRuleSeen) = UCHAR(c.NumberOf(field, 0xFF));
        }
    }
    return state;
}

json WhiteListStateJson(const WhiteListState &state) {
    json out;
    out["WhiteListHeader"] = state.WhiteListHeader;
    out["UnknownRuleSeen"] = state.UnknownRuleSeen;
    out["ExemptMasks"] = json::array();
    for (ULONG word : state.ExemptMasks) out["ExemptMasks"].push_back(HexText(word));
    return out;
}

json FilterResultJson(const FilterResult &result) {
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

void ParseRuleIdArg(const StepContext &c, const Argument &arg, ULONG (&id)[4]) {
    if (!tpol::ParseRuleId(c.TextOf(arg), reinterpret_cast<uint8_t *>(id)))
        c.ErrorAt(arg, arg.name + " must be a rule id such as 6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10");
}

// ---------------------------------------------------------------- the event action

namespace {

// A counted string over text that the step keeps alive.
struct WideText {
    std::u16string text;
    UNICODE_STRING string{};

    WideText() = default;
    explicit WideText(const std::string &utf8) { Assign(utf8); }
    WideText(const WideText &) = delete;
    WideText &operator=(const WideText &) = delete;
    void Assign(const std::string &utf8) {
        text = hk::Utf16(utf8);
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

void TakeText(const StepContext &c, const char *name, OptionalText *out) {
    if (!c.Has(name)) return;
    out->given = true;
    out->wide.Assign(c.Text(name));
}

// 2026-11-21 13:45:00 (UTC) to system time.
int64_t ParseSystemTime(const StepContext &c, const Argument &arg) {
    const std::string text = c.TextOf(arg);
    const auto time = ParseTimeText(text);
    if (!time)
        c.ErrorAt(arg, "time '" + text + "' is not YYYY-MM-DD HH:MM:SS (system time, UTC) or a number of ticks");
    return *time;
}

uint64_t EventTime(const StepContext &c) {
    if (!c.Has("time")) return uint64_t(hk::SystemTime());
    const Argument arg = c.Arg("time");
    if (ToJson(arg.value).is_number()) return c.NumberOf(arg);
    return uint64_t(ParseSystemTime(c, arg));
}

uint32_t ObjectTypeArg(const StepContext &c, uint32_t fallback) {
    if (!c.Has("type")) return fallback;
    static const std::map<std::string, uint32_t> names = {
        {"file", TEXPRT_OBJECT_FILE},          {"directory", TEXPRT_OBJECT_DIRECTORY},
        {"key", TEXPRT_OBJECT_REGISTRY_KEY},   {"value", TEXPRT_OBJECT_REGISTRY_VALUE},
        {"process", TEXPRT_OBJECT_PROCESS},    {"system", TEXPRT_OBJECT_SYSTEM},
        {"network", TEXPRT_OBJECT_NETWORK}};
    const Argument arg = c.Arg("type");
    if (ToJson(arg.value).is_number()) return uint32_t(c.NumberOf(arg, 0xFFFFFFFF));
    const auto found = names.find(c.TextOf(arg));
    if (found == names.end())
        c.ErrorAt(arg, "type is a number or one of file, directory, key, value, process, system, network");
    return found->second;
}

// The arguments each kind of event takes, so that a misspelt field is an
// error rather than a silent default.
std::vector<ArgumentSpec> EventArguments(const std::string &kind) {
    static const std::vector<std::string> common = {"kind",      "time",      "actor",           "actor_image",
                                                    "whitelist", "operation", "fail_allocation", "fail_float_save"};
    static const std::map<std::string, std::vector<std::string>> own = {
        {"file", {"name", "volume", "prefix_length", "type", "attributes", "size"}},
        {"registry", {"key", "value", "type"}},
        {"process", {"name", "process_code"}},
        {"system", {"name"}},
        {"network", {"local", "remote", "protocol"}},
        {"whitelist", {"image", "command_line", "parent"}},
    };
    // A network event may leave out its addresses: the library's answer to
    // a missing local address is worth showing.
    static const std::map<std::string, std::vector<std::string>> required = {
        {"file", {"name"}}, {"registry", {"key"}}, {"process", {"name"}}, {"system", {"name"}},
        {"network", {}}, {"whitelist", {"image"}}};
    std::vector<ArgumentSpec> specs;
    std::vector<std::string> names;
    if (kind == "whitelist") names = {"kind", "fail_allocation"};
    else if (kind == "system") names = {"kind", "time", "actor", "actor_image", "whitelist", "fail_allocation", "fail_float_save"};
    else names = common;
    names.insert(names.end(), own.at(kind).begin(), own.at(kind).end());
    const auto &needed = required.at(kind);
    for (const auto &n : names)
        specs.push_back({n, n == "kind" || std::find(needed.begin(), needed.end(), n) != needed.end()});
    return specs;
}

// One run of a monitor's event path. Each stage's status is reported; the
// step's status is the first failure, STATUS_SUCCESS when there is none.
class EventRun {
public:
    explicit EventRun(StepContext &c) : c_(c) {}

    StepOutcome Run() {
        static const std::vector<std::string> kinds = {"file", "system", "registry", "process", "network", "whitelist"};
        const Argument kind_arg = c_.Arg("kind");
        const std::string kind = c_.TextOf(kind_arg);
        if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end())
            c_.ErrorAt(kind_arg, "kind is one of file, registry, process, system, network, whitelist");
        c_.step_name = "event of kind " + kind;
        c_.CheckArguments(EventArguments(kind));

        if (kind != "whitelist") {
            // A null actor or image is one left out, as before.
            auto actor = c_.Find("actor");
            auto image = c_.Find("actor_image");
            if (actor && actor->IsNull()) actor.reset();
            if (image && image->IsNull()) image.reset();
            if (actor && actor->value.IsScalar() && ToJson(actor->value) == "none") {
                if (image) c_.ErrorAt(*image, "an event with actor: none has no actor_image");
                actor_given_ = false;
            } else {
                actor_ = BuildActor(c_, actor ? &*actor : nullptr, image ? &*image : nullptr, true);
            }
            if (c_.Has("whitelist")) state_ = BuildWhiteListState(c_, c_.Arg("whitelist"));
            time_ = EventTime(c_);
            if (c_.Has("operation")) operation_ = USHORT(c_.NumberOf(c_.Arg("operation"), 0xFFFF));
        }
        // Injections cover the step's own calls only.
        if (c_.Has("fail_allocation")) hk::FailNthAllocation(c_.Number("fail_allocation"));
        if (c_.Has("fail_float_save"))
            hk::FailFloatingPointSave(NTSTATUS(c_.SignedOf(c_.Arg("fail_float_save"), INT32_MIN, UINT32_MAX)));

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
        return c_.Export<Fn>(name);
    }

    ActorInformation *Actor() {
        return actor_given_ ? reinterpret_cast<ActorInformation *>(actor_.words.data()) : nullptr;
    }
    ULONG ActorSize() const { return actor_given_ ? actor_.size : 0; }

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
        out_.result.update(FilterResultJson(result));
        Stage("cleanup_result", Export<decltype(TcTFeCleanupResult)>("TcTFeCleanupResult")(&result));
    }

    void File() {
        WideText name(c_.Text("name"));
        USHORT prefix = USHORT(c_.Has("prefix_length") ? c_.NumberOf(c_.Arg("prefix_length"), 0xFFFF) : 0);
        if (c_.Has("volume")) {
            if (c_.Has("prefix_length")) c_.ErrorAt(c_.Arg("volume"), "give either volume or prefix_length");
            prefix = USHORT(hk::Utf16(c_.Text("volume")).size() * 2);
        }
        const uint64_t size = c_.Number("size", 0);
        const ULONG attributes = c_.Has("attributes") ? ULONG(c_.NumberOf(c_.Arg("attributes"), 0xFFFFFFFF)) : 0;
        FileObject object{};
        if (Stage("initialize", Export<decltype(TcTFeInitializeFileObject)>("TcTFeInitializeFileObject")(
                                    &object, &name.string, prefix, ObjectTypeArg(c_, TEXPRT_OBJECT_FILE), attributes,
                                    ULONG(size), ULONG(size >> 32))) &&
            Stage("add", Export<decltype(TcTFeAddFileEventInfo)>("TcTFeAddFileEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), Actor(), ActorSize(), operation_)))
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
                             &object, ULONG(time_), ULONG(time_ >> 32), Actor(), ActorSize(), operation_)))
            Match<RegistryObject, decltype(TcTFeMatchesMonitorRegistryRuleSet)>("TcTFeMatchesMonitorRegistryRuleSet",
                                                                                &object);
        Stage("cleanup", Export<decltype(TcTFeCleanupRegistryObject)>("TcTFeCleanupRegistryObject")(&object));
    }

    void Process() {
        WideText name(c_.Text("name"));
        const USHORT code = c_.Has("process_code") ? USHORT(c_.NumberOf(c_.Arg("process_code"), 0xFFFF)) : 0;
        ProcessObject object{};
        if (Stage("initialize", Export<decltype(TcTFeInitializeProcessObject)>("TcTFeInitializeProcessObject")(
                                    &object, &name.string)) &&
            Stage("add", Export<decltype(TcTFeAddProcessEventInfo)>("TcTFeAddProcessEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), Actor(), ActorSize(), operation_))) {
            // The monitor writes the code into the object itself.
            object.ProcessCode = code;
            Match<ProcessObject, decltype(TcTFeMatchesMonitorProcessRuleSet)>("TcTFeMatchesMonitorProcessRuleSet",
                                                                              &object);
        }
        Stage("cleanup", Export<decltype(TcTFeCleanupProcessObject)>("TcTFeCleanupProcessObject")(&object));
    }

    void System() {
        WideText name(c_.Text("name"));
        SystemObject object{};
        if (Stage("initialize", Export<decltype(TcTFeInitializeSystemObject)>("TcTFeInitializeSystemObject")(
                                    &object, &name.string)) &&
            Stage("add", Export<decltype(TcTFeAddSystemEventInfo)>("TcTFeAddSystemEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), Actor(), ActorSize())))
            Match<SystemObject, decltype(TcTFeMatchesMonitorSystemRuleSet)>("TcTFeMatchesMonitorSystemRuleSet",
                                                                            &object);
        Stage("cleanup", Export<decltype(TcTFeCleanupSystemObject)>("TcTFeCleanupSystemObject")(&object));
    }

    // local / remote: {address: '10.0.0.5', port: 443}; remote may be left out.
    void Network() {
        auto end = [&](const char *side, OptionalText *address, USHORT *port) {
            if (!c_.Has(side)) return;
            for (const auto &[name, field] : c_.FieldsOf(c_.Arg(side), {"address", "port"})) {
                if (name == "address") {
                    address->given = true;
                    address->wide.Assign(c_.TextOf(field));
                } else {
                    *port = USHORT(c_.NumberOf(field, 0xFFFF));
                }
            }
        };
        OptionalText local, remote;
        USHORT local_port = 0, remote_port = 0;
        end("local", &local, &local_port);
        end("remote", &remote, &remote_port);
        const USHORT protocol = c_.Has("protocol") ? USHORT(c_.NumberOf(c_.Arg("protocol"), 0xFFFF)) : 0;
        NetworkObject object{};
        if (Stage("initialize", Export<decltype(TcTFeInitializeNetworkObject)>("TcTFeInitializeNetworkObject")(
                                    &object, local_port, remote_port, local.Get(), remote.Get())) &&
            Stage("add", Export<decltype(TcTFeAddNetworkEventInfo)>("TcTFeAddNetworkEventInfo")(
                             &object, ULONG(time_), ULONG(time_ >> 32), Actor(), ActorSize(), operation_))) {
            object.ProtocolBits = protocol;
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
    bool actor_given_ = true;
    WhiteListState state_{};
    uint64_t time_ = 0;
    USHORT operation_ = 0;
    bool matched_ = false;
    NTSTATUS first_failure_ = STATUS_SUCCESS;
};

}  // namespace

void AddEventActions(std::map<std::string, Step> &actions) {
    Step event;
    event.checks_own_arguments = true;
    event.run = [](StepContext &c) { return EventRun(c).Run(); };
    actions["event"] = std::move(event);
}

}  // namespace sim
