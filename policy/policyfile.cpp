// The one reader of the agent's binary policy files.
#include "policy/policyfile.h"

#include "base/strings.h"
#include "policy/format/appblocking.h"
#include "policy/format/monitor.h"

namespace {

constexpr ACCESS_MASK PolicyFileAccess = 0x130089;  // FILE_GENERIC_READ | DELETE
constexpr ULONG PolicyFileShare = 1;                // FILE_SHARE_READ
constexpr ULONG PolicyFileOptions = 0x60;           // FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT
constexpr ULONG FilePositionClass = 14;              // FilePositionInformation
// Every format keeps its magic word and the length of its record area in
// the same two places.
constexpr ULONG MagicOffset = MonitorFormat::PolicyHeader::Magic;
constexpr ULONG LengthOffset = MonitorFormat::PolicyHeader::BodyLength;
static_assert(AppBlockingFormat::Header::Magic == MagicOffset && AppBlockingFormat::Header::DataSize == LengthOffset);

}  // namespace

NTSTATUS ReadPolicyFileImage(PUNICODE_STRING Path, ULONG Magic, ULONG Tag, PUCHAR *Image, ULONG *Length,
                             ULONG *FoundMagic) {
    *Image = nullptr;
    *Length = 0;
    *FoundMagic = 0;

    OBJECT_ATTRIBUTES Attributes;
    // OBJ_KERNEL_HANDLE alone: the name is case-sensitive to the object manager.
    InitializeObjectAttributes(&Attributes, Path, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE File = nullptr;
    IO_STATUS_BLOCK Io;
    NTSTATUS Status = ZwCreateFile(&File, PolicyFileAccess, &Attributes, &Io, nullptr, FILE_ATTRIBUTE_NORMAL,
                                   PolicyFileShare, FILE_OPEN, PolicyFileOptions, nullptr, 0);
    if (Status != STATUS_SUCCESS) return Status;

    PUCHAR Buffer = nullptr;
    UCHAR Header[PolicyFileReadExtra] = {};
    ULONG BodyLength = 0;
    Status = ZwReadFile(File, nullptr, nullptr, nullptr, &Io, Header, sizeof(Header), nullptr, nullptr);
    if (NT_SUCCESS(Status)) {
        ULONG Found;
        RtlCopyMemory(&Found, Header + MagicOffset, sizeof(Found));
        RtlCopyMemory(&BodyLength, Header + LengthOffset, sizeof(BodyLength));
        if (Found != Magic) {
            *FoundMagic = Found;
            Status = STATUS_FILE_INVALID;
        } else if (BodyLength > 0xFFFFFFFFu - PolicyFileReadExtra) {
            // The image size would wrap: no buffer could hold such a file.
            Status = STATUS_DATA_ERROR;
        } else {
            const ULONG Size = BodyLength + PolicyFileReadExtra;
            Buffer = (PUCHAR)PoolAlloc(PagedPool, Size, Tag);
            if (Buffer == nullptr) {
                Status = STATUS_INSUFFICIENT_RESOURCES;
            } else {
                FILE_POSITION_INFORMATION Position;
                Position.CurrentByteOffset.QuadPart = 0;
                Status = ZwSetInformationFile(File, &Io, &Position, sizeof(Position),
                                              (FILE_INFORMATION_CLASS)FilePositionClass);
                // What came is not measured: a short file leaves the tail as
                // the pool gave it, and the checksum catches that.
                if (NT_SUCCESS(Status))
                    Status = ZwReadFile(File, nullptr, nullptr, nullptr, &Io, Buffer, Size, nullptr, nullptr);
                if (!NT_SUCCESS(Status)) {
                    PoolFree(Buffer);
                    Buffer = nullptr;
                }
            }
        }
    }
    ZwClose(File);
    if (!NT_SUCCESS(Status)) return Status;
    *Image = Buffer;
    *Length = BodyLength;
    return STATUS_SUCCESS;
}
