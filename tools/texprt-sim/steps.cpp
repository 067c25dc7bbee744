// The steps a scenario can take: every export of the library, with its
// arguments by name, and the machine actions.
#include "sim.h"

#include <hk/ntkernel.h>

#include "rules/store.h"  // first: it sets up the library's export macros
#include "include/texprt.h"
#include "tools/tpol/lib/tpol.h"

namespace sim {

namespace {

StepOutcome Status(NTSTATUS status) {
    StepOutcome out;
    out.has_status = true;
    out.status = status;
    return out;
}

StepOutcome Value(const json &value) {
    StepOutcome out;
    out.result["value"] = value;
    return out;
}

json StringResult(PUNICODE_STRING s) {
    json out = json::object();
    out["Length"] = s ? s->Length : 0;
    out["MaximumLength"] = s ? s->MaximumLength : 0;
    out["Buffer"] = (s && s->Buffer) ? json(hk::Utf8(std::u16string(s->Buffer, s->Length / 2))) : json(nullptr);
    return out;
}

std::vector<uint8_t> Digest(StepContext &c) {
    const auto digest = HexBytes(c.Text("digest"), c.file, c.node);
    if (digest.size() != 32) c.Error("digest must be 64 hexadecimal digits");
    return digest;
}

// A query export taking no arguments and returning a byte.
template <typename Fn>
StepHandler ByteQuery(const char *name) {
    return [name](StepContext &c) { return Value(c.machine.Export<Fn>(name)()); };
}

// A notify query taking the operation byte.
StepHandler NotifyQuery(const char *name) {
    return [name](StepContext &c) {
        return Value(c.machine.Export<UCHAR(UCHAR)>(name)(UCHAR(c.Number("operation"))));
    };
}

PVOID IoObject(StepContext &c) { return c.Has("driver") ? c.machine.Driver(c.Text("driver")) : nullptr; }

std::map<std::string, StepHandler> MakeExports() {
    std::map<std::string, StepHandler> t;
    t["TcSystemsInitializePhase0"] = [](StepContext &c) {
        PDRIVER_OBJECT driver = c.Has("driver") ? c.machine.Driver(c.Text("driver")) : nullptr;
        return Status(c.machine.Export<decltype(TcSystemsInitializePhase0)>("TcSystemsInitializePhase0")(
            driver, c.Flag("preferred", false)));
    };
    t["TcSystemsInitializePhase1"] = [](StepContext &c) {
        return Status(c.machine.Export<decltype(TcSystemsInitializePhase1)>("TcSystemsInitializePhase1")());
    };
    t["TcNotifyDriverUnload"] = [](StepContext &c) {
        return Status(c.machine.Export<decltype(TcNotifyDriverUnload)>("TcNotifyDriverUnload")(
            c.Flag("preferred", false)));
    };
    t["TcSetMiniFilterPointer"] = [](StepContext &c) {
        // The filter is an opaque handle to the library: any non-null value.
        auto *filter = c.Flag("filter", true) ? reinterpret_cast<PFLT_FILTER>(uintptr_t(0xF17E7000)) : nullptr;
        return Status(c.machine.Export<decltype(TcSetMiniFilterPointer)>("TcSetMiniFilterPointer")(filter));
    };
    t["TcClearMiniFilterPointer"] = [](StepContext &c) {
        c.machine.Export<decltype(TcClearMiniFilterPointer)>("TcClearMiniFilterPointer")();
        return StepOutcome{};
    };
    t["TcNotifyFilterAvailabilility"] = [](StepContext &c) {
        return Value(c.machine.Export<decltype(TcNotifyFilterAvailabilility)>("TcNotifyFilterAvailabilility")(
            UCHAR(c.Number("available"))));
    };
    t["TcAcquireFilterLock"] = [](StepContext &c) {
        c.machine.Export<decltype(TcAcquireFilterLock)>("TcAcquireFilterLock")();
        return StepOutcome{};
    };
    t["TcReleaseFilterLock"] = [](StepContext &c) {
        c.machine.Export<decltype(TcReleaseFilterLock)>("TcReleaseFilterLock")();
        return StepOutcome{};
    };
    for (const char *name :
         {"TcIsSystemCaptureEnabled", "TcIsProcessCaptureEnabled", "TcIsFileSystemCaptureEnabled",
          "TcIsRegistryCaptureEnabled", "TcIsWhitelistMonitorEnabled", "TcIsNetworkCaptureEnabled",
          "TcIsDirectoryProtectionEnabled", "TcIsRegistryProtectionEnabled", "TcIsProcessProtectionEnabled",
          "TcIsDriverProtectionEnabled", "TcIsPerformanceFlagSet", "TcIsHBBProcessSHA256SupportEnabled"})
        t[name] = ByteQuery<UCHAR()>(name);
    for (const char *name : {"TcIsRegKeyNotify", "TcIsRegValNotify", "TcIsDiskRuleNotify", "TcIsNetworkRuleNotify"})
        t[name] = NotifyQuery(name);
    t["TcGetTolvexAgentExeLocation"] = [](StepContext &c) {
        StepOutcome out;
        out.result = StringResult(c.machine.Export<decltype(TcGetTolvexAgentExeLocation)>("TcGetTolvexAgentExeLocation")());
        return out;
    };
    t["TcGetSystemRootDeviceString"] = [](StepContext &c) {
        StepOutcome out;
        out.result = StringResult(c.machine.Export<decltype(TcGetSystemRootDeviceString)>("TcGetSystemRootDeviceString")());
        return out;
    };
    t["TcUpdateMaxCacheSize"] = [](StepContext &c) {
        return Status(c.machine.Export<decltype(TcUpdateMaxCacheSize)>("TcUpdateMaxCacheSize")());
    };
    t["TcEventWrite"] = [](StepContext &c) {
        std::vector<std::u16string> texts;
        std::vector<PCWSTR> slots;
        if (c.Has("strings")) {
            for (const auto &s : c.Arg("strings")) texts.push_back(s.is_null() ? u"" : hk::Utf16(s.get<std::string>()));
            for (size_t i = 0; i < texts.size(); ++i)
                slots.push_back(c.Arg("strings")[i].is_null() ? nullptr : texts[i].c_str());
        }
        c.machine.Export<decltype(TcEventWrite)>("TcEventWrite")(
            ULONG(c.Number("id")), ULONG(c.Number("final_status", 0)), USHORT(slots.size()),
            slots.empty() ? nullptr : slots.data(), nullptr, 0, IoObject(c));
        return StepOutcome{};
    };
    t["TcEventWriteDriverStart"] = [](StepContext &c) {
        const std::string text = c.Text("text");
        return Status(c.machine.Export<decltype(TcEventWriteDriverStart)>("TcEventWriteDriverStart")(
            ULONG(c.Number("id")), text.c_str(), IoObject(c)));
    };
    t["EventWriteEventHBBWLFailure"] = [](StepContext &c) {
        c.machine.Export<decltype(EventWriteEventHBBWLFailure)>("EventWriteEventHBBWLFailure")(
            NTSTATUS(c.Number("status")));
        return StepOutcome{};
    };
    t["TcUpdateEDRPolicies"] = [](StepContext &c) {
        return Status(c.machine.Export<decltype(TcUpdateEDRPolicies)>("TcUpdateEDRPolicies")());
    };
    t["TcRevokeEDRPolicies"] = [](StepContext &c) {
        c.machine.Export<decltype(TcRevokeEDRPolicies)>("TcRevokeEDRPolicies")();
        return StepOutcome{};
    };
    t["TcUpdateAppBlockingPolicy"] = [](StepContext &c) {
        return Status(c.machine.Export<decltype(TcUpdateAppBlockingPolicy)>("TcUpdateAppBlockingPolicy")());
    };
    t["TcRevokeAppBlockingPolicy"] = [](StepContext &c) {
        c.machine.Export<decltype(TcRevokeAppBlockingPolicy)>("TcRevokeAppBlockingPolicy")();
        return StepOutcome{};
    };
    t["TcTFeMatchesProcessAppBlockingRuleSet"] = [](StepContext &c) {
        const auto digest = Digest(c);
        AppBlockingResult result{};
        StepOutcome out = Status(c.machine.Export<decltype(TcTFeMatchesProcessAppBlockingRuleSet)>(
            "TcTFeMatchesProcessAppBlockingRuleSet")(digest.data(), &result));
        out.result["Matched"] = result.Matched;
        out.result["RuleSeen"] = result.RuleSeen;
        out.result["PolicyTag"] = HexText(result.PolicyTag);
        out.result["RuleId"] = tpol::RuleIdText(reinterpret_cast<const uint8_t *>(result.RuleId));
        out.result["Reserved"] = result.Reserved;
        return out;
    };
    AddEventExports(t);
    return t;
}

std::map<std::string, StepHandler> MakeActions() {
    std::map<std::string, StepHandler> t;
    t["write_file"] = [](StepContext &c) {
        c.machine.WriteFile(c.node["args"], c.file, false);
        return StepOutcome{};
    };
    t["replace_file"] = [](StepContext &c) {
        c.machine.WriteFile(c.node["args"], c.file, true);
        return StepOutcome{};
    };
    t["delete_file"] = [](StepContext &c) {
        if (!hk::DeleteFile(c.Text("path"))) c.Error("delete_file: " + c.Text("path") + " does not exist");
        return StepOutcome{};
    };
    t["patch_file"] = [](StepContext &c) {
        // Overwrites bytes at an offset: the way to make a file corrupt.
        const std::string path = c.Text("path");
        const auto contents = hk::ReadFile(path);
        if (!contents) c.Error("patch_file: " + path + " does not exist");
        auto bytes = std::make_optional(std::vector<uint8_t>(contents->begin(), contents->end()));
        const uint64_t offset = c.Number("offset");
        const auto patch = HexBytes(c.Text("hex"), c.file, c.node);
        if (offset > bytes->size() || patch.size() > bytes->size() - offset)
            c.Error("patch_file: the patch runs past the end of the file");
        std::copy(patch.begin(), patch.end(), bytes->begin() + offset);
        if (c.Flag("checksum", false)) {
            try {
                tpol::Reseal(*bytes);
            } catch (const std::exception &e) {
                c.Error(std::string("patch_file: cannot recompute the checksum: ") + e.what());
            }
        }
        hk::WriteFile(path, std::string(bytes->begin(), bytes->end()));
        return StepOutcome{};
    };
    t["set_value"] = [](StepContext &c) {
        YAML::Node values;
        values[c.Text("name")] = c.node["args"]["value"];
        if (!c.node["args"]["value"]) c.Error("set_value needs 'value', e.g. {sz: '...'} or {dword: 1}");
        c.machine.SetRegistryValue(c.Text("key"), values, c.file);
        return StepOutcome{};
    };
    t["delete_value"] = [](StepContext &c) {
        if (!hk::RegistryDeleteValue(c.Text("key"), c.Text("name")))
            c.Error("delete_value: " + c.Text("name") + " is not under " + c.Text("key"));
        return StepOutcome{};
    };
    t["store"] = [](StepContext &c) {
        // What the monitor store holds: rules per set of each family (null
        // for a set that does not exist), the whitelist set, and the masks.
        MonitorStoreSnapshot snapshot{};
        c.machine.Export<VOID NTAPI(MonitorStoreSnapshot *)>("TexprtInspectMonitorStore")(&snapshot);
        auto set = [](const MonitorSetSnapshot &s) { return s.Present ? json(s.RuleCount) : json(nullptr); };
        const char *names[5] = {"file", "registry", "process", "system", "network"};
        StepOutcome out;
        const char *families[2] = {"edr", "fim"};
        for (int f = 0; f < 2; ++f) {
            json family = json::object();
            for (int k = 0; k < 5; ++k) family[names[k]] = set(snapshot.Families[f][k]);
            out.result[families[f]] = family;
        }
        out.result["whitelist"] = snapshot.WhiteList.Present
                                      ? json{{"rules", snapshot.WhiteList.RuleCount}, {"capacity", snapshot.WhiteList.Capacity}}
                                      : json(nullptr);
        out.result["capture_mask"] = HexText(snapshot.CaptureMask, 2);
        out.result["reg_key_notify_mask"] = HexText(snapshot.RegKeyNotifyMask);
        out.result["reg_val_notify_mask"] = HexText(snapshot.RegValNotifyMask);
        out.result["disk_notify_mask"] = HexText(snapshot.DiskNotifyMask);
        out.result["network_notify_mask"] = HexText(snapshot.NetworkNotifyMask);
        return out;
    };
    t["advance_clock"] = [](StepContext &c) {
        const int64_t ticks = int64_t(c.Number("seconds", 0)) * hk::kTicksPerSecond +
                              int64_t(c.Number("milliseconds", 0)) * 10000 + int64_t(c.Number("ticks", 0));
        hk::AdvanceClock(ticks);
        return StepOutcome{};
    };
    AddEventActions(t);
    return t;
}

}  // namespace

const std::map<std::string, StepHandler> &Exports() {
    static const auto table = MakeExports();
    return table;
}

const std::map<std::string, StepHandler> &Actions() {
    static const auto table = MakeActions();
    return table;
}

}  // namespace sim
