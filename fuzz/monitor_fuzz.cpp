// Fuzzes the monitor policy loader the way the file reader feeds it: an
// image of BodyLength + 40 bytes. The checksum is re-sealed over the input,
// so the fuzzer spends its time behind it; a policy that loads is installed
// into the store (which rebuilds the masks from every rule), counted, and
// removed again.
#include "frame/frame.h"
#include "frame/helpers.h"
#include "policy/monitor.h"
#include "rules/store.h"

#include <hk/hk.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kMaxImage = 64 << 10;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    hk::SetVerifierFatal(true);
    // A header may announce any whitelist capacity; the pool refuses what it
    // cannot hold, as a real one would.
    hk::SetPoolLimit(size_t(32) << 20);
    ExInitializeFastMutex(&MonitorObjectLock);
    MonitorObjects[PreferredMonitorObject] = hk::CreateDriverObject("\\Driver\\tmon");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < sizeof(MonitorPolicyHeader)) return 0;
    MonitorPolicyHeader header;
    std::memcpy(&header, data, sizeof(header));
    // The reader refuses any other magic before allocating.
    header.Magic = MonitorPolicyMagic;
    if (header.BodyLength > kMaxImage) header.BodyLength = uint32_t(size > 40 ? size - 40 : 0);
    const uint32_t image_size = header.BodyLength + MonitorPolicyReadExtra;
    auto *image = static_cast<PUCHAR>(PoolAlloc(PagedPool, image_size, TagPolicy));
    if (image == nullptr) return 0;
    // What the file did not supply stays as the pool gave it.
    std::memcpy(image, data, size < image_size ? size : image_size);
    header.BodyChecksum = ComputePolicyChecksum(image + MonitorPolicyHeaderSize, header.BodyLength);
    std::memcpy(image, &header, sizeof(header));

    MonitorRuleSets edr{}, fim{};
    MonitorWhiteListRuleSet *whitelist = nullptr;
    const NTSTATUS status = ParseMonitorPolicy(image, &edr, &fim, &whitelist);
    PoolFree(image);
    if (NT_SUCCESS(status)) {
        if (InstallMonitorRuleSets(&edr, &fim, whitelist) == STATUS_SUCCESS) {
            ULONG counts[3];
            CountMonitorRules(&counts[0], &counts[1], &counts[2]);
            RemoveMonitorRuleSets();
        }
    }
    hk::ClearEventLog();
    if (hk::OutstandingPoolCount() != 0) {
        std::fprintf(stderr, "leak after a load with status 0x%08X:\n%s", unsigned(status), hk::LeakReport().c_str());
        std::abort();
    }
    return 0;
}
