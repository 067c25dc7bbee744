// Common string helpers.
#include "base/strings.h"

VOID FreeUnicodeString(PUNICODE_STRING String) {
    if (String == nullptr) return;
    PoolFree(String->Buffer);
    String->Buffer = nullptr;
    String->Length = 0;
    String->MaximumLength = 0;
}

NTSTATUS ValidateUnicodeString(PCUNICODE_STRING String, ULONG MaxChars, ULONG Flags) {
    if (String == nullptr) return (Flags & ValidateAllowNull) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    if ((String->Length & 1) || (String->MaximumLength & 1) || String->Length > String->MaximumLength ||
        String->MaximumLength > MaxChars * sizeof(WCHAR))
        return STATUS_INVALID_PARAMETER;
    if (String->Buffer == nullptr && (String->Length != 0 || String->MaximumLength != 0))
        return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

NTSTATUS CopyUnicodeBounded(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    NTSTATUS Status = ValidateUnicodeString(Destination, MaxUnicodeStringChars, 0);
    if (!NT_SUCCESS(Status)) return Status;
    Status = ValidateUnicodeString(Source, MaxUnicodeStringChars, 0);
    if (!NT_SUCCESS(Status)) {
        Destination->Length = 0;
        return Status;
    }
    const USHORT SourceChars = Source->Length / sizeof(WCHAR);
    const USHORT RoomChars = Destination->MaximumLength / sizeof(WCHAR);
    USHORT Copied = 0;
    while (Copied < SourceChars && Copied < RoomChars) {
        Destination->Buffer[Copied] = Source->Buffer[Copied];
        ++Copied;
    }
    Destination->Length = (USHORT)(Copied * sizeof(WCHAR));
    return Copied < SourceChars ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS DuplicateUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source, ULONG Tag) {
    if (Destination == nullptr || Source == nullptr || Source->Length == 0 || Source->Buffer == nullptr)
        return STATUS_INVALID_PARAMETER;
    const USHORT MaximumLength = (USHORT)(Source->Length + sizeof(WCHAR));
    PWCH Buffer = (PWCH)PoolAlloc(DefaultPool, MaximumLength, Tag);
    if (Buffer == nullptr) {
        Destination->Length = 0;
        Destination->MaximumLength = 0;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(Buffer, Source->Buffer, Source->Length);
    Buffer[Source->Length / sizeof(WCHAR)] = 0;
    Destination->Buffer = Buffer;
    Destination->Length = Source->Length;
    Destination->MaximumLength = MaximumLength;
    return STATUS_SUCCESS;
}

PUNICODE_STRING NewCountedString(PCUNICODE_STRING Source, ULONG Tag) {
    if (Source == nullptr) return nullptr;
    const USHORT MaximumLength = (USHORT)(Source->Length + sizeof(WCHAR));
    PUNICODE_STRING String = (PUNICODE_STRING)PoolAlloc(DefaultPool, sizeof(UNICODE_STRING) + MaximumLength, Tag);
    if (String == nullptr) return nullptr;
    String->Length = 0;
    String->MaximumLength = MaximumLength;
    String->Buffer = (PWCH)(String + 1);
    // The copy leaves the two spare bytes as the pool gave them: callers use
    // the count, not a terminator.
    CopyUnicodeBounded(String, Source);
    return String;
}

namespace {

struct DecimalParse {
    PCUNICODE_STRING String;
    LONGLONG Value;
};

VOID NTAPI ParseDecimalGuarded(PVOID Context) {
    DecimalParse *Parse = (DecimalParse *)Context;
    const WCHAR *Text = Parse->String->Buffer;
    const ULONG Count = Parse->String->Length / sizeof(WCHAR);
    ULONG Index = 0;
    while (Index < Count && Text[Index] <= 32) ++Index;
    BOOLEAN Negative = FALSE;
    if (Index < Count && (Text[Index] == '-' || Text[Index] == '+')) {
        Negative = Text[Index] == '-';
        ++Index;
    }
    // Unsigned arithmetic: the value wraps silently on overflow.
    ULONGLONG Value = 0;
    for (; Index < Count && Text[Index] >= '0' && Text[Index] <= '9'; ++Index)
        Value = Value * 10 + (ULONGLONG)(Text[Index] - '0');
    Parse->Value = Negative ? (LONGLONG)(0 - Value) : (LONGLONG)Value;
}

}  // namespace

NTSTATUS ParseDecimalInt64(PCUNICODE_STRING String, LONGLONG *Result) {
    if (String == nullptr || Result == nullptr) return STATUS_INVALID_PARAMETER;
    // The text may come from a buffer that can fault; a fault abandons the
    // parse with the exception's code.
    DecimalParse Parse = {String, 0};
    NTSTATUS ExceptionCode = STATUS_SUCCESS;
    if (!PlatformGuardedCall(ParseDecimalGuarded, &Parse, &ExceptionCode)) return ExceptionCode;
    *Result = Parse.Value;
    return STATUS_SUCCESS;
}

NTSTATUS FormatWide(PWCHAR Buffer, ULONG SizeChars, PCWSTR Format, ...) {
    if (SizeChars == 0 || SizeChars >= 0x80000000u) {
        if (SizeChars != 0 && Buffer != nullptr) Buffer[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    Buffer[0] = 0;
    va_list Args;
    va_start(Args, Format);
    const int Written = _vsnwprintf(Buffer, SizeChars - 1, Format, Args);
    va_end(Args);
    if (Written < 0) {
        Buffer[SizeChars - 1] = 0;
        return STATUS_BUFFER_OVERFLOW;
    }
    if ((ULONG)Written == SizeChars - 1) Buffer[SizeChars - 1] = 0;
    return STATUS_SUCCESS;
}

ULONG ComputePolicyChecksum(const VOID *Data, ULONG Length) {
    // FNV-1a over Length + 1 bytes: every policy format covers the one byte
    // behind its record area, and every writer computes the same.
    const UCHAR *Bytes = (const UCHAR *)Data;
    ULONG Hash = 0x811C9DC5u;
    for (ULONGLONG Index = 0; Index <= (ULONGLONG)Length; ++Index) {
        Hash ^= Bytes[Index];
        Hash *= 0x01000193u;
    }
    return Hash;
}
