// Pool allocation. Every allocation of the library goes through PoolAlloc
// and PoolFree, each allocating module with a tag of its own.
#pragma once

#include "platform/nt.h"

// Pool tags: one per allocating module. Diagnostic only; nothing depends on
// their values. Written so that pool tools show them as the text in quotes.
constexpr ULONG MakePoolTag(const char (&Text)[5]) {
    return (ULONG)(UCHAR)Text[0] | (ULONG)(UCHAR)Text[1] << 8 | (ULONG)(UCHAR)Text[2] << 16 |
           (ULONG)(UCHAR)Text[3] << 24;
}
constexpr ULONG TagFrame = MakePoolTag("TcFr");
constexpr ULONG TagConfig = MakePoolTag("TcCf");
constexpr ULONG TagWorkItem = MakePoolTag("TcWq");
constexpr ULONG TagEventLog = MakePoolTag("TcEl");
constexpr ULONG TagPolicy = MakePoolTag("TcPo");
constexpr ULONG TagAppBlocking = MakePoolTag("TcAb");
constexpr ULONG TagRules = MakePoolTag("TcRu");
constexpr ULONG TagFilter = MakePoolTag("TcFi");
constexpr ULONG TagEventObject = MakePoolTag("TcEo");

// Pool type 0 asks for the default pool.
constexpr ULONG DefaultPool = 0;

_IRQL_requires_max_(DISPATCH_LEVEL) PVOID PoolAlloc(ULONG PoolType, ULONG Size, ULONG Tag);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID PoolFree(PVOID Pointer);
