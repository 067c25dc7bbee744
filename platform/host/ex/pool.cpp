// Pool allocation with tracking by tag, a leak report, and failure injection
// (fail the n-th allocation, or every allocation of a tag), as Driver
// Verifier's special pool and fault injection offer them.
#include "internal.h"

#include <hk/hk.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <unordered_map>
#include <unordered_set>

namespace hk::detail {
namespace {

constexpr size_t kDefaultPoolLimit = size_t(512) << 20;

struct Allocation {
    size_t size;
    ULONG tag;
    POOL_TYPE type;
};

struct PoolState {
    std::mutex lock;
    std::unordered_map<const void *, Allocation> live;
    uint64_t calls = 0;
    uint64_t fail_at = 0;  // absolute call number to fail, 0 = none
    std::unordered_set<ULONG> failing_tags;
    uint64_t injected = 0;
    // The pool is finite: an allocation that would take the outstanding
    // total past the limit is refused, as an exhausted pool refuses it.
    size_t limit = kDefaultPoolLimit;
    size_t outstanding = 0;
};

PoolState &State() {
    static PoolState *state = [] {
        auto *s = new PoolState;
        RegisterReset([s] {
            std::lock_guard guard(s->lock);
            s->fail_at = 0;
            s->failing_tags.clear();
            s->limit = kDefaultPoolLimit;
        });
        return s;
    }();
    return *state;
}

bool ValidPoolType(POOL_TYPE type) {
    switch (type) {
        case NonPagedPool:
        case PagedPool:
        case NonPagedPoolMustSucceed:
        case NonPagedPoolNx:
            return true;
    }
    return false;
}

}  // namespace

void *PoolAllocate(POOL_TYPE type, size_t size, ULONG tag) {
    auto &state = State();
    {
        std::lock_guard guard(state.lock);
        ++state.calls;
        const bool fail = (state.fail_at != 0 && state.calls == state.fail_at) || state.failing_tags.count(tag);
        if (state.fail_at != 0 && state.calls >= state.fail_at) state.fail_at = 0;
        if (fail) {
            ++state.injected;
            return nullptr;
        }
        if (size > state.limit - std::min(state.limit, state.outstanding)) return nullptr;
        state.outstanding += size;
    }
    // Fill fresh memory with a pattern: pool memory is not zeroed, and code
    // that assumes it is should fail here rather than on a real machine.
    void *p = std::malloc(size == 0 ? 1 : size);
    std::lock_guard guard(state.lock);
    if (p == nullptr) {
        state.outstanding -= size;
        return nullptr;
    }
    std::memset(p, 0xC5, size);
    state.live[p] = {size, tag, type};
    return p;
}

void PoolFree(void *p, ULONG tag, const char *routine) {
    if (p == nullptr) {
        Complain(std::string(routine) + " of a null pointer");
        return;
    }
    auto &state = State();
    {
        std::lock_guard guard(state.lock);
        auto it = state.live.find(p);
        if (it == state.live.end()) {
            Complain(std::string(routine) + " of memory that is not an outstanding pool allocation");
            return;
        }
        if (tag != 0 && tag != it->second.tag) {
            Complain(std::string(routine) + " with tag '" + hk::TagText(tag) + "' of an allocation tagged '" +
                     hk::TagText(it->second.tag) + "'");
        }
        // Scribble over freed memory so that a use after free shows.
        std::memset(p, 0xD7, it->second.size);
        state.outstanding -= it->second.size;
        state.live.erase(it);
    }
    std::free(p);
}

}  // namespace hk::detail

extern "C" PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    hk::detail::CheckIrql(PoolType == PagedPool ? APC_LEVEL : DISPATCH_LEVEL, "ExAllocatePoolWithTag");
    if (!hk::detail::ValidPoolType(PoolType)) {
        hk::detail::Complain("ExAllocatePoolWithTag with pool type " + std::to_string(PoolType));
        return nullptr;
    }
    if (NumberOfBytes == 0) hk::detail::Complain("ExAllocatePoolWithTag of zero bytes");
    if (Tag == 0) hk::detail::Complain("ExAllocatePoolWithTag with a zero tag");
    return hk::detail::PoolAllocate(PoolType, NumberOfBytes, Tag);
}

extern "C" VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) {
    hk::detail::CheckIrql(DISPATCH_LEVEL, "ExFreePoolWithTag");
    hk::detail::PoolFree(P, Tag, "ExFreePoolWithTag");
}

namespace hk {

std::string TagText(uint32_t tag) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        const char c = char((tag >> (8 * i)) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '.';
    }
    return text;
}

size_t OutstandingPoolBytes() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    size_t total = 0;
    for (auto &[p, a] : state.live) total += a.size;
    return total;
}

size_t OutstandingPoolCount() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    return state.live.size();
}

std::vector<PoolAllocation> OutstandingAllocations() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    std::vector<PoolAllocation> out;
    for (auto &[p, a] : state.live) out.push_back({p, a.size, a.tag, int(a.type)});
    return out;
}

std::string LeakReport() {
    std::map<uint32_t, std::pair<size_t, size_t>> by_tag;
    for (auto &a : OutstandingAllocations()) {
        by_tag[a.tag].first += 1;
        by_tag[a.tag].second += a.size;
    }
    std::ostringstream out;
    for (auto &[tag, counts] : by_tag)
        out << "Tag '" << TagText(tag) << "': " << counts.first << " allocation" << (counts.first == 1 ? "" : "s")
            << ", " << counts.second << " bytes\n";
    return out.str();
}

uint64_t PoolAllocationCalls() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    return state.calls;
}

void FailNthAllocation(uint64_t n) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.fail_at = n == 0 ? 0 : state.calls + n;
}

void FailAllocationsWithTag(uint32_t tag) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.failing_tags.insert(tag);
}

void ClearAllocationFailures() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.fail_at = 0;
    state.failing_tags.clear();
}

void SetPoolLimit(size_t bytes) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.limit = bytes;
}

uint64_t InjectedFailures() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    return state.injected;
}

}  // namespace hk
