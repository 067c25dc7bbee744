// Event log reporting: what an administrator should see, written as I/O
// error log packets carrying a message id of the image's message table and
// insertion strings.
#pragma once

#include "platform/nt.h"

// Message ids (facility 6; top two bits: 0x4 information, 0x8 warning,
// 0xC error). The texts stand in diagnostics/messages.mc.
enum EventMessageId : ULONG {
    MsgSystemMonitorStarting = 0x40060001,
    MsgSystemMonitorStopping = 0x40060002,
    MsgEventBufferDropped = 0x80060003,
    MsgSystemDiskFull = 0x80060005,
    MsgDataDirectoryNotFound = 0xC0060006,
    MsgEventFileDeleted = 0x80060007,
    MsgPolicyReadFailed = 0x80060008,
    MsgProcessEnumerationStarting = 0x40060009,
    MsgProcessEnumerationCompleted = 0x4006000A,
    MsgWhiteListUpdateStarting = 0x4006000B,
    MsgWhiteListUpdateCompleted = 0x4006000C,
    MsgNetworkMonitorStarting = 0x4006000D,
    MsgNetworkMonitorStopping = 0x4006000E,
    MsgProductPolicyRevoked = 0x4006000F,
    MsgProtectionPolicyReadFailed = 0x8006000F,
    MsgPolicyVersionMismatch = 0x80060010,
    MsgProductPolicyUpdated = 0x40060011,
    MsgNetworkMonitorStartingVersion = 0x40060012,
    MsgProtectionPolicyUpdated = 0x40060013,
    MsgProtectionPolicyRevoked = 0x40060014,
    MsgAppBlockingPolicyUpdated = 0x40060015,
    MsgAppBlockingPolicyRevoked = 0x40060016,
    MsgHbbWhiteListFailed = 0x80060017,
    MsgAppBlockingPolicyReadFailed = 0x80060018,
};

// The fixed part of a packet, and where its dump data start.
constexpr ULONG EventPacketFixedSize = 48;
constexpr ULONG EventPacketDumpOffset = 40;
// The 32-bit system's ERROR_LOG_MAXIMUM_SIZE; a larger packet is dropped.
constexpr ULONG EventPacketMaximumSize = 152;

// The worker behind the TcEventWrite export: no lock; the caller names the
// I/O object.
VOID WriteEventLogEntry(ULONG Id, ULONG FinalStatus, USHORT Slots, PCWSTR *Strings, PVOID Dump, ULONG DumpSize,
                        PVOID Object);

// The monitors' driver objects. Each monitor registers its own in its
// slot at phase 0 and clears it at its stop; the internal writers name the
// preferred monitor's object as the source while it is registered.
// MonitorObjectLock guards both slots and is held across every internal
// write, so that a driver object cannot go away under a write.
enum MonitorSlot { PreferredMonitorObject = 0, OtherMonitorObject = 1 };
extern PDRIVER_OBJECT MonitorObjects[2];
extern FAST_MUTEX MonitorObjectLock;

VOID InitializeEventLog();
// Stores Object (or null) in the slot that Preferred selects.
VOID SetMonitorObject(BOOLEAN Preferred, PDRIVER_OBJECT Object);

// Internal writers: they hold MonitorObjectLock and name the preferred
// monitor's driver object, or the other one's. Not to be called before
// phase 0 has registered a monitor.
VOID ReportEvent(ULONG Id);
VOID ReportPolicyVersionMismatch(PCWSTR Name, USHORT Current, USHORT Expected);
VOID ReportPolicyUpdated(ULONG Fim, ULONG Edr, ULONG WhiteList);
VOID ReportPolicyReadFailure(NTSTATUS Status);
VOID ReportAppBlockingReadFailure(NTSTATUS Status);
VOID ReportDiskFull(LONG Bytes);
VOID ReportDataDirectoryMissing(NTSTATUS Status);
