// Reading a binary policy file: every format the agent writes has its magic
// word first and the length of its record area at offset 8, and is read
// whole, header included, into one paged buffer of that length plus 40.
#pragma once

#include "platform/nt.h"

constexpr ULONG PolicyFileReadExtra = 40;

// On success Image is the caller's, freed with PoolFree, and Length the
// record area's length as the header gives it. A magic word other than
// Magic gives STATUS_FILE_INVALID with the word found in *FoundMagic, for
// the caller to report as it reports a version mismatch.
NTSTATUS ReadPolicyFileImage(PUNICODE_STRING Path, ULONG Magic, ULONG Tag, PUCHAR *Image, ULONG *Length,
                             ULONG *FoundMagic);
