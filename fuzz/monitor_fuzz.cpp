// Fuzzes the monitor policy loader the way the file reader feeds it: an
// image of BodyLength + 40 bytes, re-sealed over the input. A policy that
// loads is installed into the store (which rebuilds the masks from every
// rule), counted, matched against one event of every kind, and removed
// again: whatever rules a file produced, matching them must not fault.
#include "fuzz_support.h"
#include "include/texprt.h"
#include "policy/monitor.h"
#include "rules/store.h"

namespace {

struct Text {
    UNICODE_STRING string;
    explicit Text(const char16_t *text) {
        USHORT length = 0;
        while (text[length / 2] != 0) length += 2;
        string = {length, length, const_cast<PWCH>(reinterpret_cast<const WCHAR *>(text))};
    }
};

// An actor whose image path has a backslash-free last component and a
// wildcard-worthy name.
struct Actor {
    ActorInformation head;
    char16_t image[40];
};

void MatchEveryKind() {
    static Actor actor = {{}, u"\\DEVICE\\HARDDISKVOLUME2\\TOOLS\\COPY.EXE"};
    actor.head.ImageFileNameLength = USHORT(std::char_traits<char16_t>::length(actor.image) * 2);
    const ULONG actor_size = ULONG(sizeof(ActorInformation) + actor.head.ImageFileNameLength);
    WhiteListState state{};
    // Every operation bit at once, so that every rule's own tests run on.
    const USHORT all = 0xFFFF;
    const ULONG time_low = 0x12345678, time_high = 0x01DC0000;
    for (ULONG type : {ULONG(TEXPRT_OBJECT_FILE), ULONG(TEXPRT_OBJECT_DIRECTORY)}) {
        Text name(u"\\Device\\HarddiskVolume2\\Users\\Bob\\Src\\Main.c");
        FileObject object{};
        FilterResult result{};
        if (NT_SUCCESS(TcTFeInitializeFileObject(&object, &name.string, 46, type, 0x21, 5000, 0)) &&
            NT_SUCCESS(TcTFeAddFileEventInfo(&object, time_low, time_high, &actor.head, actor_size, all)))
            TcTFeMatchesMonitorFileRuleSet(&object, &state, &result);
        TcTFeCleanupResult(&result);
        TcTFeCleanupFileObject(&object);
    }
    {
        Text key(u"\\REGISTRY\\MACHINE\\SOFTWARE\\MICROSOFT\\WINDOWS\\RUN"), value(u"Updater");
        RegistryObject object{};
        FilterResult result{};
        if (NT_SUCCESS(TcTFeInitializeRegistryObject(&object, &key.string, &value.string, TEXPRT_OBJECT_REGISTRY_VALUE)) &&
            NT_SUCCESS(TcTFeAddRegistryEventInfo(&object, time_low, time_high, &actor.head, actor_size, all)))
            TcTFeMatchesMonitorRegistryRuleSet(&object, &state, &result);
        TcTFeCleanupResult(&result);
        TcTFeCleanupRegistryObject(&object);
    }
    for (USHORT code : {USHORT(0), USHORT(5)}) {
        Text name(u"\\Device\\HarddiskVolume2\\Windows\\System32\\cmd.exe");
        ProcessObject object{};
        FilterResult result{};
        if (NT_SUCCESS(TcTFeInitializeProcessObject(&object, &name.string)) &&
            NT_SUCCESS(TcTFeAddProcessEventInfo(&object, time_low, time_high, &actor.head, actor_size, all))) {
            object.ProcessCode = code;
            TcTFeMatchesMonitorProcessRuleSet(&object, &state, &result);
        }
        TcTFeCleanupResult(&result);
        TcTFeCleanupProcessObject(&object);
    }
    {
        Text name(u"DriverLoad\\Device\\HarddiskVolume2\\x.sys");
        SystemObject object{};
        FilterResult result{};
        if (NT_SUCCESS(TcTFeInitializeSystemObject(&object, &name.string)) &&
            NT_SUCCESS(TcTFeAddSystemEventInfo(&object, time_low, time_high, &actor.head, actor_size)))
            TcTFeMatchesMonitorSystemRuleSet(&object, &state, &result);
        TcTFeCleanupResult(&result);
        TcTFeCleanupSystemObject(&object);
    }
    for (USHORT operation : {USHORT(1), USHORT(2), USHORT(4)}) {
        Text local(u"192.168.1.20"), remote(u"10.1.2.3");
        NetworkObject object{};
        FilterResult result{};
        if (NT_SUCCESS(TcTFeInitializeNetworkObject(&object, 50123, 443, &local.string, &remote.string)) &&
            NT_SUCCESS(TcTFeAddNetworkEventInfo(&object, time_low, time_high, &actor.head, actor_size, operation))) {
            object.ProtocolBits = 1;
            TcTFeMatchesMonitorNetworkRuleSet(&object, &state, &result);
        }
        TcTFeCleanupResult(&result);
        TcTFeCleanupNetworkObject(&object);
    }
    TcTFeIsMonitorFileRuleSetHasUNCRule();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_support::InitializeMachine();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    PUCHAR image = fuzz_support::PolicyImage(data, size, MonitorPolicyMagic, MonitorPolicyHeaderSize, TagPolicy);
    if (image == nullptr) return 0;
    MonitorRuleSets edr{}, fim{};
    MonitorWhiteListRuleSet *whitelist = nullptr;
    const NTSTATUS status = ParseMonitorPolicy(image, &edr, &fim, &whitelist);
    PoolFree(image);
    if (NT_SUCCESS(status) && InstallMonitorRuleSets(&edr, &fim, whitelist) == STATUS_SUCCESS) {
        ULONG counts[3];
        CountMonitorRules(&counts[0], &counts[1], &counts[2]);
        MatchEveryKind();
        RemoveMonitorRuleSets();
    }
    fuzz_support::ExpectNothingLeft(status);
    return 0;
}
