// Event log reporting through the I/O error log.
#include "diagnostics/eventlog.h"

#include "base/exports.h"
#include "base/locks.h"
#include "base/strings.h"

TEXPRT_ASSERT_LAYOUT32(sizeof(IO_ERROR_LOG_PACKET) == EventPacketFixedSize);
TEXPRT_ASSERT_LAYOUT32(FIELD_OFFSET(IO_ERROR_LOG_PACKET, DumpData) == EventPacketDumpOffset);

namespace {

// Numbers are formatted into buffers of this many characters.
constexpr ULONG NumberTextChars = 16;

ULONG StringBytes(PCWSTR String) {
    if (String == nullptr || String[0] == 0) return 0;
    return (ULONG)(PlatformWcslen(String) + 1) * sizeof(WCHAR);
}

// The internal writers' common path: the preferred monitor's driver object
// names the source while it is registered.
VOID WriteUnderMonitorLock(ULONG Id, NTSTATUS FinalStatus, USHORT Slots, PCWSTR *Strings) {
    FastMutexGuard Guard(&MonitorObjectLock);
    PDRIVER_OBJECT Object = MonitorObjects[PreferredMonitorObject] != nullptr
                                ? MonitorObjects[PreferredMonitorObject]
                                : MonitorObjects[OtherMonitorObject];
    WriteEventLogEntry(Id, (ULONG)FinalStatus, Slots, Strings, nullptr, 0, Object);
}

VOID ReportStatus(ULONG Id, NTSTATUS Status, BOOLEAN SkipWhenEmpty) {
    WCHAR Text[NumberTextChars];
    FormatWide(Text, NumberTextChars, WIDE("0x%X"), (ULONG)Status);
    PCWSTR Strings[1] = {Text};
    if (SkipWhenEmpty && Text[0] == 0) return;
    WriteUnderMonitorLock(Id, 0, 1, Strings);
}

}  // namespace

VOID InitializeEventLog() {
    ExInitializeFastMutex(&MonitorObjectLock);
    PlatformRankLock(&MonitorObjectLock, LockRankMonitorObject, "MonitorObjectLock");
}

VOID SetMonitorObject(BOOLEAN Preferred, PDRIVER_OBJECT Object) {
    FastMutexGuard Guard(&MonitorObjectLock);
    MonitorObjects[Preferred ? PreferredMonitorObject : OtherMonitorObject] = Object;
}

VOID WriteEventLogEntry(ULONG Id, ULONG FinalStatus, USHORT Slots, PCWSTR *Strings, PVOID Dump, ULONG DumpSize,
                        PVOID Object) {
    ULONG TextBytes = 0;
    for (USHORT Slot = 0; Slot < Slots; ++Slot) TextBytes += StringBytes(Strings != nullptr ? Strings[Slot] : nullptr);
    const ULONG Size = (DumpSize & 0xFFFF) + EventPacketFixedSize + TextBytes;
    if (Size > EventPacketMaximumSize) return;

    PIO_ERROR_LOG_PACKET Packet = (PIO_ERROR_LOG_PACKET)IoAllocateErrorLogEntry(Object, (UCHAR)Size);
    if (Packet == nullptr) return;
    RtlZeroMemory(Packet, Size);
    Packet->ErrorCode = (NTSTATUS)Id;
    Packet->FinalStatus = (NTSTATUS)FinalStatus;
    Packet->DumpDataSize = (USHORT)DumpSize;
    // NumberOfStrings keeps the slot count even when some slots were empty
    // and added nothing: that is the packet the log receives.
    Packet->NumberOfStrings = Slots;
    Packet->StringOffset = (USHORT)(DumpSize + EventPacketDumpOffset);
    if (Dump != nullptr) RtlCopyMemory((PUCHAR)Packet + EventPacketDumpOffset, Dump, DumpSize);
    PUCHAR Cursor = (PUCHAR)Packet + EventPacketDumpOffset + DumpSize;
    for (USHORT Slot = 0; Slot < Slots; ++Slot) {
        PCWSTR String = Strings != nullptr ? Strings[Slot] : nullptr;
        const ULONG Bytes = StringBytes(String);
        if (Bytes == 0) continue;
        RtlCopyMemory(Cursor, String, Bytes);
        Cursor += Bytes;
    }
    IoWriteErrorLogEntry(Packet);
}

TEXPRT_EXPORT VOID NTAPI TcEventWrite(ULONG MessageId, ULONG FinalStatus, USHORT StringCount, PCWSTR *Strings,
                                      PVOID DumpData, ULONG DumpSize, PVOID IoObject) {
    EXPORT_ENTRY(TcEventWrite);
    WriteEventLogEntry(MessageId, FinalStatus, StringCount, Strings, DumpData, DumpSize, IoObject);
}

TEXPRT_EXPORT NTSTATUS NTAPI TcEventWriteDriverStart(ULONG MessageId, PCSZ VersionText, PVOID IoObject) {
    EXPORT_ENTRY(TcEventWriteDriverStart);
    if (VersionText == nullptr) return STATUS_INVALID_PARAMETER;
    // Both lengths count the terminator, so the converted text carries it.
    ANSI_STRING Ansi;
    USHORT Length = 0;
    while (VersionText[Length] != 0 && Length < 0xFFFE) ++Length;
    Ansi.Buffer = (PCHAR)VersionText;
    Ansi.Length = (USHORT)(Length + 1);
    Ansi.MaximumLength = Ansi.Length;
    UNICODE_STRING Unicode;
    const NTSTATUS Status = RtlAnsiStringToUnicodeString(&Unicode, &Ansi, TRUE);
    if (!NT_SUCCESS(Status)) return Status;
    PCWSTR Strings[1] = {Unicode.Buffer};
    WriteEventLogEntry(MessageId, 0, 1, Strings, nullptr, 0, IoObject);
    RtlFreeUnicodeString(&Unicode);
    return STATUS_SUCCESS;
}

TEXPRT_EXPORT VOID NTAPI EventWriteEventHBBWLFailure(NTSTATUS Status) {
    EXPORT_ENTRY(EventWriteEventHBBWLFailure);
    ReportStatus(MsgHbbWhiteListFailed, Status, TRUE);
}

VOID ReportEvent(ULONG Id) { WriteUnderMonitorLock(Id, 0, 0, nullptr); }

VOID ReportPolicyVersionMismatch(PCWSTR Name, USHORT Current, USHORT Expected) {
    WCHAR CurrentText[NumberTextChars], ExpectedText[NumberTextChars];
    FormatWide(CurrentText, NumberTextChars, WIDE("0x%X"), (ULONG)Current);
    FormatWide(ExpectedText, NumberTextChars, WIDE("0x%X"), (ULONG)Expected);
    PCWSTR Strings[3] = {Name, CurrentText, ExpectedText};
    WriteUnderMonitorLock(MsgPolicyVersionMismatch, 0, 3, Strings);
}

VOID ReportPolicyUpdated(ULONG Fim, ULONG Edr, ULONG WhiteList) {
    WCHAR FimText[NumberTextChars], EdrText[NumberTextChars], WhiteListText[NumberTextChars];
    FormatWide(FimText, NumberTextChars, WIDE("%u"), Fim);
    FormatWide(EdrText, NumberTextChars, WIDE("%u"), Edr);
    FormatWide(WhiteListText, NumberTextChars, WIDE("%u"), WhiteList);
    // Twelve slots, as the drop report has; the nine unused ones are null.
    PCWSTR Strings[12] = {FimText, EdrText, WhiteListText};
    WriteUnderMonitorLock(MsgProductPolicyUpdated, 0, 12, Strings);
}

VOID ReportPolicyReadFailure(NTSTATUS Status) { ReportStatus(MsgPolicyReadFailed, Status, FALSE); }

VOID ReportAppBlockingReadFailure(NTSTATUS Status) { ReportStatus(MsgAppBlockingPolicyReadFailed, Status, TRUE); }

VOID ReportDiskFull(LONG Bytes) {
    WCHAR Text[NumberTextChars];
    FormatWide(Text, NumberTextChars, WIDE("%d"), Bytes);
    PCWSTR Strings[1] = {Text};
    WriteUnderMonitorLock(MsgSystemDiskFull, 0, 1, Strings);
}

VOID ReportDataDirectoryMissing(NTSTATUS Status) { WriteUnderMonitorLock(MsgDataDirectoryNotFound, Status, 0, nullptr); }
