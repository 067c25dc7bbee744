// What the policy fuzzers share: the machine they run on, the image the file
// reader would make of an input, and the leak check after each input.
#pragma once

#include "base/strings.h"
#include "diagnostics/eventlog.h"
#include "policy/policyfile.h"

#include <hk/hk.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fuzz_support {

inline void InitializeMachine() {
    hk::SetVerifierFatal(true);
    // A header may announce any number of rules; the pool refuses what it
    // cannot hold, as a real one would, instead of the fuzzer paging.
    hk::SetPoolLimit(size_t(32) << 20);
    InitializeEventLog();
    MonitorObjects[PreferredMonitorObject] = hk::CreateDriverObject("\\Driver\\tmon");
}

// The reader's image of an input: the magic it insists on, a length of at
// most 64 KiB (a larger one only adds pool-filled tail), what the input
// does not supply left as the pool gave it, and the checksum re-sealed over
// the record area so that the fuzzer spends its time behind it. Null when
// the input is shorter than the header or the pool refuses.
inline PUCHAR PolicyImage(const uint8_t *data, size_t size, ULONG magic, ULONG header_size, ULONG tag) {
    constexpr ULONG kMaxBody = 64 << 10;
    if (size < header_size) return nullptr;
    ULONG length;
    std::memcpy(&length, data + 8, sizeof(length));
    if (length > kMaxBody) length = ULONG(size > PolicyFileReadExtra ? size - PolicyFileReadExtra : 0);
    const ULONG image_size = length + PolicyFileReadExtra;
    auto *image = static_cast<PUCHAR>(PoolAlloc(PagedPool, image_size, tag));
    if (image == nullptr) return nullptr;
    std::memcpy(image, data, size < image_size ? size : image_size);
    const ULONG checksum = ComputePolicyChecksum(image + header_size, length);
    std::memcpy(image, &magic, 4);
    std::memcpy(image + 4, &checksum, 4);
    std::memcpy(image + 8, &length, 4);
    return image;
}

inline void ExpectNothingLeft(NTSTATUS status) {
    hk::ClearEventLog();
    if (hk::OutstandingPoolCount() != 0) {
        std::fprintf(stderr, "leak after a parse with status 0x%08X:\n%s", unsigned(status), hk::LeakReport().c_str());
        std::abort();
    }
}

}  // namespace fuzz_support
