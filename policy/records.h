// What every policy format shares: words read from an image at any
// alignment, extents held against the bytes that hold them, and the one walk
// over a record area. A parser trusts an image once its checksum holds, but
// the checksum proves the writer, not the counts: every count, size and
// offset is held against the record that contains it before anything behind
// it is read.
#pragma once

#include "platform/nt.h"

// Little-endian words of the image, read and written without alignment
// assumptions.
static inline ULONG PolicyUlong(const UCHAR *Bytes) {
    ULONG Value;
    RtlCopyMemory(&Value, Bytes, sizeof(Value));
    return Value;
}
static inline ULONGLONG PolicyUlonglong(const UCHAR *Bytes) {
    ULONGLONG Value;
    RtlCopyMemory(&Value, Bytes, sizeof(Value));
    return Value;
}
static inline USHORT PolicyUshort(const UCHAR *Bytes) {
    USHORT Value;
    RtlCopyMemory(&Value, Bytes, sizeof(Value));
    return Value;
}
static inline VOID PolicyWriteUlong(UCHAR *Bytes, ULONG Value) { RtlCopyMemory(Bytes, &Value, sizeof(Value)); }

// Every format's magic words carry their record's version in the low byte.
constexpr ULONG PolicyMagicVersionMask = 0xFF;

// Whether Size bytes at Offset lie inside Available bytes.
static inline BOOLEAN PolicyFits(ULONGLONG Offset, ULONGLONG Size, ULONG Available) {
    return Offset <= Available && Size <= Available - Offset;
}

// Reports a record of the wrong version through the event log: the label,
// the version the record has (its magic's low byte) and the one expected.
VOID ReportPolicyRecordMismatch(PCWSTR Label, ULONG Found, ULONG Expected);

// The walk over a record area of Length bytes, for every format. At each
// offset the record's first HeadSize bytes must lie inside the area, else
// STATUS_DATA_ERROR; its first word must be Magic, else the mismatch is
// reported under Label and the walk ends with STATUS_DATA_ERROR. Then
// Visit(Record, Offset, &Size) reads the record, holds its size against the
// area, and returns its status; the walk goes on Size bytes further while
// the visits succeed. A record that says it is empty or runs past the area
// ends the walk with STATUS_DATA_ERROR, whatever its visit said, so that a
// walk can neither stand still nor leave the area.
template <typename Visitor>
NTSTATUS WalkPolicyRecords(PUCHAR Records, ULONG Length, ULONG HeadSize, ULONG Magic, PCWSTR Label,
                           Visitor &&Visit) {
    for (ULONG Offset = 0; Offset < Length;) {
        if (!PolicyFits(Offset, HeadSize, Length)) return STATUS_DATA_ERROR;
        PUCHAR Record = Records + Offset;
        const ULONG Found = PolicyUlong(Record);
        if (Found != Magic) {
            ReportPolicyRecordMismatch(Label, Found, Magic & PolicyMagicVersionMask);
            return STATUS_DATA_ERROR;
        }
        ULONG Size = 0;
        const NTSTATUS Status = Visit(Record, Offset, &Size);
        if (!NT_SUCCESS(Status)) return Status;
        if (Size == 0 || !PolicyFits(Offset, Size, Length)) return STATUS_DATA_ERROR;
        Offset += Size;
    }
    return STATUS_SUCCESS;
}
