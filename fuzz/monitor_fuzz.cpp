// Fuzzes the monitor policy loader the way the file reader feeds it: an
// image of BodyLength + 40 bytes, re-sealed over the input. A policy that
// loads is installed into the store (which rebuilds the masks from every
// rule), counted, and removed again.
#include "fuzz_support.h"
#include "policy/monitor.h"
#include "rules/store.h"

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
        RemoveMonitorRuleSets();
    }
    fuzz_support::ExpectNothingLeft(status);
    return 0;
}
