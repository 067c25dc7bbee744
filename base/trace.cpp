// Software tracing through ETW, bound with MmGetSystemRoutineAddress.
#include "base/trace.h"

#include "base/strings.h"

namespace {

// {6b0a4f4e-3c0f-4f51-9a8e-2d5f1c7e9b31}
const GUID TraceProviderId = {0x6b0a4f4e, 0x3c0f, 0x4f51, {0x9a, 0x8e, 0x2d, 0x5f, 0x1c, 0x7e, 0x9b, 0x31}};

constexpr UCHAR TraceLevelError = 2;
constexpr UCHAR TraceLevelInformation = 4;

struct TraceControl {
    ETW_REGISTER_ROUTINE *Register;
    ETW_UNREGISTER_ROUTINE *Unregister;
    ETW_WRITE_STRING_ROUTINE *WriteString;
    REGHANDLE Handle;
    volatile LONG Enabled;
    volatile UCHAR Level;
};

TraceControl Trace;

VOID NTAPI TraceEnableCallback(LPCGUID SourceId, ULONG ControlCode, UCHAR Level, ULONGLONG MatchAnyKeyword,
                               ULONGLONG MatchAllKeyword, PVOID FilterData, PVOID CallbackContext) {
    // Control codes: 0 disable, 1 enable, 2 capture state.
    if (ControlCode == 1) {
        Trace.Level = Level;
        Trace.Enabled = 1;
    } else if (ControlCode == 0) {
        Trace.Enabled = 0;
    }
}

PVOID Resolve(PCWSTR Name) {
    UNICODE_STRING RoutineName;
    RtlInitUnicodeString(&RoutineName, Name);
    return MmGetSystemRoutineAddress(&RoutineName);
}

VOID Write(UCHAR Level, const char *Function, const char *Text, NTSTATUS Status, BOOLEAN HasStatus) {
    if (!Trace.Enabled || Trace.WriteString == nullptr || Level > Trace.Level) return;
    WCHAR Line[160];
    if (HasStatus)
        FormatWide(Line, ARRAYSIZE_OF(Line), WIDE("%hs: status 0x%08X"), Function, (ULONG)Status);
    else
        FormatWide(Line, ARRAYSIZE_OF(Line), WIDE("%hs: %hs"), Function, Text);
    Trace.WriteString(Trace.Handle, Level, 0, nullptr, Line);
}

}  // namespace

VOID TraceInitialize() {
    RtlZeroMemory(&Trace, sizeof(Trace));
    Trace.Register = (ETW_REGISTER_ROUTINE *)Resolve(WIDE("EtwRegister"));
    Trace.Unregister = (ETW_UNREGISTER_ROUTINE *)Resolve(WIDE("EtwUnregister"));
    Trace.WriteString = (ETW_WRITE_STRING_ROUTINE *)Resolve(WIDE("EtwWriteString"));
    if (Trace.Register == nullptr || Trace.Unregister == nullptr || Trace.WriteString == nullptr) {
        Trace.WriteString = nullptr;
        return;
    }
    if (!NT_SUCCESS(Trace.Register(&TraceProviderId, TraceEnableCallback, nullptr, &Trace.Handle))) {
        Trace.Handle = 0;
        Trace.WriteString = nullptr;
    }
}

VOID TraceShutdown() {
    ETW_WRITE_STRING_ROUTINE *WriteString = Trace.WriteString;
    Trace.WriteString = nullptr;
    Trace.Enabled = 0;
    if (WriteString != nullptr && Trace.Handle != 0) Trace.Unregister(Trace.Handle);
    Trace.Handle = 0;
}

VOID TraceStatus(const char *Function, NTSTATUS Status) {
    Write(TraceLevelError, Function, nullptr, Status, TRUE);
}

VOID TraceMessage(const char *Function, const char *Text) {
    Write(TraceLevelInformation, Function, Text, 0, FALSE);
}
