// Registry helpers: where the library's configuration lives (the System
// Monitor's service key, shared by both monitors) and how its keys are
// opened.
#pragma once

#include "platform/nt.h"

// The access every configuration key is opened with.
constexpr ACCESS_MASK ConfigurationKeyAccess = 0x2001F;

// "\REGISTRY\MACHINE\SYSTEM\CurrentControlSet\Services\tmon", built by the
// first phase 0 and kept until DllUnload; null before and after. Every key
// of the library is opened below it.
extern PUNICODE_STRING ServiceKeyPath;

// Builds ServiceKeyPath unless a failed phase 0 already has: the path lives
// until FreeServiceKeyPath. An allocation failure leaves it null, and the
// keys then fail to open.
VOID BuildServiceKeyPath();
VOID FreeServiceKeyPath();

// Opens the service key, or "Parameters" relative to it.
NTSTATUS OpenServiceKey(PHANDLE Handle);
NTSTATUS OpenParametersKey(HANDLE ServiceKey, PHANDLE Handle);
// Opens a subkey of Root (null: Name is a full path) with the configuration
// access.
NTSTATUS OpenConfigurationKey(PHANDLE Handle, HANDLE Root, PUNICODE_STRING Name);
