// Fuzzes the app-blocking policy parser the way the file reader feeds it:
// a file image of DataSize + 40 bytes, re-sealed over the input. A set that
// loads is matched and freed.
#include "fuzz_support.h"
#include "policy/appblocking.h"
#include "rules/store.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_support::InitializeMachine();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    PUCHAR image = fuzz_support::PolicyImage(data, size, AppBlockingPolicyMagic, AppBlockingHeaderSize, TagAppBlocking);
    if (image == nullptr) return 0;
    ULONGLONG flags = 0;
    ProcessAppBlockingRuleSet *set = nullptr;
    const NTSTATUS status = ParseAppBlockingPolicy(image, &flags, &set);
    if (NT_SUCCESS(status) && set != nullptr) {
        AppBlockingResult result{};
        UCHAR digest[32] = {};
        std::memcpy(digest, data, size < 32 ? size : 32);
        MatchAppBlockingRuleSet(digest, set, &result);
        for (ULONG r = 0; r < set->RuleCount; ++r)
            if (set->Rules[r].HashCount) MatchAppBlockingRuleSet(set->Rules[r].Hashes[0], set, &result);
        FreeAppBlockingRuleSet(set);
    }
    PoolFree(image);
    fuzz_support::ExpectNothingLeft(status);
    return 0;
}
