// Software tracing: failures and notable steps go to an ETW provider whose
// routines are bound at run time, so that the image loads on a system where
// they are missing (tracing is then off). Tracing never changes behaviour.
#pragma once

#include "platform/nt.h"

VOID TraceInitialize();
VOID TraceShutdown();

// Traces a failed status with the function that saw it.
VOID TraceStatus(const char *Function, NTSTATUS Status);
// Traces a step, with a plain text.
VOID TraceMessage(const char *Function, const char *Text);

#define TRACE_STATUS(Status) TraceStatus(__func__, (Status))
#define TRACE_MESSAGE(Text) TraceMessage(__func__, (Text))
