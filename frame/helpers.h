// Common pool and string helpers. Every allocation of the library goes
// through PoolAlloc/PoolFree, and counted strings are copied by these few
// helpers with one contract: they leave a terminating NUL that Length does
// not count.
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

// Flag for ValidateUnicodeString: a null string is acceptable.
constexpr ULONG ValidateAllowNull = 0x100;
constexpr ULONG MaxUnicodeStringChars = 32767;

NTSTATUS ValidateUnicodeString(PCUNICODE_STRING String, ULONG MaxChars, ULONG Flags);
NTSTATUS CopyUnicodeBounded(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSTATUS DuplicateUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source, ULONG Tag);
PUNICODE_STRING NewCountedString(PCUNICODE_STRING Source, ULONG Tag);
NTSTATUS ParseDecimalInt64(PCUNICODE_STRING String, LONGLONG *Result);
NTSTATUS FormatWide(PWCHAR Buffer, ULONG SizeChars, PCWSTR Format, ...);
ULONG ComputePolicyChecksum(const VOID *Data, ULONG Length);

// Frees a string's buffer (from DuplicateUnicodeString or the compile
// routines) and clears its head.
VOID FreeUnicodeString(PUNICODE_STRING String);

// A counted view of a NUL-terminated literal.
#define CONST_UNICODE_STRING(Literal) \
    { sizeof(Literal) - sizeof(WCHAR), sizeof(Literal), const_cast<PWCH>(Literal) }
