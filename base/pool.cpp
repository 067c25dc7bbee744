// Pool allocation.
#include "base/pool.h"

namespace {

// The default pool is picked by build number: NonPagedPoolNx from Windows 8
// (build 9200) on. Every supported system is at least that, so the word is
// fixed and the first branch is the one that runs.
constexpr ULONG NoExecutePoolMinimumBuild = 9200;
const ULONG PoolSelectionBuild = 9200;

POOL_TYPE DefaultPoolType() {
    return PoolSelectionBuild >= NoExecutePoolMinimumBuild ? NonPagedPoolNx : NonPagedPool;
}

}  // namespace

PVOID PoolAlloc(ULONG PoolType, ULONG Size, ULONG Tag) {
    if (Size == 0) return nullptr;
    const POOL_TYPE Type = PoolType == DefaultPool ? DefaultPoolType() : (POOL_TYPE)PoolType;
    return ExAllocatePoolWithTag(Type, Size, Tag);
}

VOID PoolFree(PVOID Pointer) {
    // Tag 0: one free serves every tag the library allocates with.
    if (Pointer != nullptr) ExFreePoolWithTag(Pointer, 0);
}
