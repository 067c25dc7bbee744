// Fuzzes the app-blocking policy parser the way the file reader feeds it:
// a file image of DataSize + 40 bytes. The checksum is re-sealed over the
// input, so the fuzzer spends its time on what lies behind the checksum
// rather than on guessing it; a set that loads is matched and freed.
#include "frame/frame.h"
#include "frame/helpers.h"
#include "policy/appblocking.h"

#include <hk/hk.h>

#include <cstring>

namespace {

// Inputs are a few KiB; an image much larger than its input only adds
// pool-filled tail, which a smaller bound exercises as well.
constexpr size_t kMaxImage = 64 << 10;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    hk::SetVerifierFatal(true);
    // A header may announce any number of rules; the pool refuses what it
    // cannot hold, as a real one would, instead of the fuzzer paging.
    hk::SetPoolLimit(size_t(32) << 20);
    ExInitializeFastMutex(&MonitorObjectLock);
    MonitorObjects[PreferredMonitorObject] = hk::CreateDriverObject("\\Driver\\tmon");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < sizeof(AppBlockingFileHeader)) return 0;
    AppBlockingFileHeader header;
    std::memcpy(&header, data, sizeof(header));
    // The reader refuses any other magic before allocating.
    header.Magic = AppBlockingPolicyMagic;
    if (header.DataSize > kMaxImage) header.DataSize = uint32_t(size > 40 ? size - 40 : 0);
    const uint32_t image_size = header.DataSize + AppBlockingReadExtra;
    auto *image = static_cast<PUCHAR>(PoolAlloc(PagedPool, image_size, TagAppBlocking));
    if (image == nullptr) return 0;
    // What the file did not supply stays as the pool gave it.
    std::memcpy(image, data, size < image_size ? size : image_size);
    header.Checksum = ComputePolicyChecksum(image + AppBlockingHeaderSize, header.DataSize);
    std::memcpy(image, &header, sizeof(header));

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
    hk::ClearEventLog();
    if (hk::OutstandingPoolCount() != 0) {
        std::fprintf(stderr, "leak after a parse with status 0x%08X:\n%s", unsigned(status), hk::LeakReport().c_str());
        std::abort();
    }
    return 0;
}
