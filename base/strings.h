// Common string helpers. Counted strings are copied by these few helpers
// with one contract: they leave a terminating NUL that Length does not
// count.
#pragma once

#include "platform/nt.h"

#include "base/pool.h"

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
