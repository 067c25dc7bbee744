// The security reference monitor's part that the library sees: SIDs, a
// process's primary token and its queries, and the security descriptor of
// a process object.
//
// Layouts and protocols are Windows' own: TOKEN_USER and
// TOKEN_MANDATORY_LABEL are followed by the SID they point to, in the
// caller's buffer; a token query whose buffer is short fails with
// STATUS_BUFFER_TOO_SMALL and says in ReturnLength how much it needs, for
// the fixed-size classes too; ZwQuerySecurityObject answers a self-relative
// descriptor with the parts asked for, or STATUS_BUFFER_TOO_SMALL and the
// length needed, returning nothing.
#include "ps/ps.h"

#include <cstring>
#include <stdexcept>

namespace hk::detail {
namespace {

constexpr ULONG kSidHeader = 8;  // revision, count, authority
constexpr UCHAR kAccessAllowedAceType = 0;
constexpr UCHAR kAclRevision = 2;

ULONG SidLength(const uint8_t *sid) { return kSidHeader + 4 * ULONG(sid[1]); }

// A SID at `offset` of `bytes` that fits in them.
bool SidFits(const std::vector<uint8_t> &bytes, ULONG offset) {
    if (offset < sizeof(SECURITY_DESCRIPTOR_RELATIVE) || size_t(offset) + kSidHeader > bytes.size()) return false;
    const uint8_t *sid = bytes.data() + offset;
    return sid[0] == SID_REVISION && sid[1] <= SID_MAX_SUB_AUTHORITIES && size_t(offset) + SidLength(sid) <= bytes.size();
}

// An ACL at `offset` of `bytes` that fits in them, with ACEs that fit in it.
bool AclFits(const std::vector<uint8_t> &bytes, ULONG offset) {
    if (offset < sizeof(SECURITY_DESCRIPTOR_RELATIVE) || size_t(offset) + sizeof(ACL) > bytes.size()) return false;
    ACL acl;
    std::memcpy(&acl, bytes.data() + offset, sizeof acl);
    if (acl.AclRevision < 2 || acl.AclRevision > 4 || acl.AclSize < sizeof(ACL) ||
        size_t(offset) + acl.AclSize > bytes.size())
        return false;
    ULONG at = sizeof(ACL);
    for (USHORT i = 0; i < acl.AceCount; ++i) {
        if (at + 4 > acl.AclSize) return false;
        USHORT ace_size;
        std::memcpy(&ace_size, bytes.data() + offset + at + 2, sizeof ace_size);
        if (ace_size < 4 || at + ace_size > acl.AclSize) return false;
        at += ace_size;
    }
    return true;
}

SECURITY_DESCRIPTOR_RELATIVE HeaderOf(const std::vector<uint8_t> &bytes) {
    SECURITY_DESCRIPTOR_RELATIVE header;
    std::memcpy(&header, bytes.data(), sizeof header);
    return header;
}

ULONG PartLength(const std::vector<uint8_t> &bytes, ULONG offset, bool acl) {
    if (acl) {
        USHORT size;
        std::memcpy(&size, bytes.data() + offset + 2, sizeof size);
        return size;
    }
    return SidLength(bytes.data() + offset);
}

void Append(std::vector<uint8_t> &out, const void *data, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    out.insert(out.end(), bytes, bytes + size);
}

// A descriptor with only the parts `information` asks for: as stored when
// that is all of them, else rebuilt from the header and the parts kept, in
// the order owner, group, SACL, DACL.
std::vector<uint8_t> DescriptorParts(const std::vector<uint8_t> &stored, SECURITY_INFORMATION information) {
    const SECURITY_DESCRIPTOR_RELATIVE header = HeaderOf(stored);
    const bool sacl = (header.Control & SE_SACL_PRESENT) != 0 && header.Sacl != 0;
    const bool dacl = (header.Control & SE_DACL_PRESENT) != 0 && header.Dacl != 0;
    const bool keep_owner = (information & OWNER_SECURITY_INFORMATION) != 0;
    const bool keep_group = (information & GROUP_SECURITY_INFORMATION) != 0;
    const bool keep_sacl = (information & SACL_SECURITY_INFORMATION) != 0;
    const bool keep_dacl = (information & DACL_SECURITY_INFORMATION) != 0;
    const bool everything = (header.Owner == 0 || keep_owner) && (header.Group == 0 || keep_group) &&
                            ((header.Control & SE_SACL_PRESENT) == 0 || keep_sacl) &&
                            ((header.Control & SE_DACL_PRESENT) == 0 || keep_dacl);
    if (everything) return stored;
    SECURITY_DESCRIPTOR_RELATIVE out_header{};
    out_header.Revision = SECURITY_DESCRIPTOR_REVISION;
    out_header.Control = SE_SELF_RELATIVE;
    std::vector<uint8_t> out(sizeof out_header);
    auto copy = [&](ULONG offset, bool acl, ULONG *out_offset) {
        *out_offset = ULONG(out.size());
        Append(out, stored.data() + offset, PartLength(stored, offset, acl));
    };
    if (keep_owner) {
        out_header.Control |= header.Control & SE_OWNER_DEFAULTED;
        if (header.Owner != 0) copy(header.Owner, false, &out_header.Owner);
    }
    if (keep_group) {
        out_header.Control |= header.Control & SE_GROUP_DEFAULTED;
        if (header.Group != 0) copy(header.Group, false, &out_header.Group);
    }
    if (keep_sacl) {
        out_header.Control |= header.Control & (SE_SACL_PRESENT | SE_SACL_DEFAULTED);
        if (sacl) copy(header.Sacl, true, &out_header.Sacl);
    }
    if (keep_dacl) {
        out_header.Control |= header.Control & (SE_DACL_PRESENT | SE_DACL_DEFAULTED);
        if (dacl) copy(header.Dacl, true, &out_header.Dacl);
    }
    std::memcpy(out.data(), &out_header, sizeof out_header);
    return out;
}

// A token object: what ZwOpenProcessTokenEx hands out a handle to.
struct HostToken {
    std::shared_ptr<TokenState> state;
};

NTSTATUS TokenFailure(const TokenState &token, TOKEN_INFORMATION_CLASS key) {
    auto it = token.query_failures.find(key);
    return it == token.query_failures.end() ? STATUS_SUCCESS : it->second;
}

std::string SidText(const uint8_t *sid) {
    uint64_t authority = 0;
    for (int i = 2; i < 8; ++i) authority = authority << 8 | sid[i];
    char part[32];
    // Authorities that do not fit 32 bits are written in hex, as Windows
    // writes them.
    if (authority >> 32)
        snprintf(part, sizeof part, "0x%012llX", static_cast<unsigned long long>(authority));
    else
        snprintf(part, sizeof part, "%llu", static_cast<unsigned long long>(authority));
    std::string text = "S-" + std::to_string(sid[0]) + "-" + part;
    for (int i = 0; i < sid[1]; ++i) {
        ULONG sub;
        std::memcpy(&sub, sid + kSidHeader + 4 * i, sizeof sub);
        text += "-" + std::to_string(sub);
    }
    return text;
}

}  // namespace

std::vector<uint8_t> SidFromText(const std::string &text) {
    // S-1-<authority>-<sub authority>...; the authority in decimal or 0x hex.
    if (text.size() < 4 || (text[0] != 'S' && text[0] != 's') || text[1] != '-') return {};
    std::vector<uint64_t> fields;
    size_t at = 2;
    while (true) {
        size_t end = text.find('-', at);
        const std::string field = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        if (field.empty()) return {};
        const bool hex = field.size() > 2 && field[0] == '0' && (field[1] == 'x' || field[1] == 'X');
        const std::string digits = hex ? field.substr(2) : field;
        if (digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos ||
            digits.size() > 16)
            return {};
        fields.push_back(std::stoull(digits, nullptr, hex ? 16 : 10));
        if (end == std::string::npos) break;
        at = end + 1;
    }
    if (fields.size() < 2 || fields[0] != SID_REVISION || fields[1] >> 48 ||
        fields.size() - 2 > SID_MAX_SUB_AUTHORITIES)
        return {};
    std::vector<uint8_t> sid(kSidHeader + 4 * (fields.size() - 2));
    sid[0] = SID_REVISION;
    sid[1] = uint8_t(fields.size() - 2);
    for (int i = 0; i < 6; ++i) sid[2 + i] = uint8_t(fields[1] >> (8 * (5 - i)));
    for (size_t i = 2; i < fields.size(); ++i) {
        if (fields[i] > 0xFFFFFFFFu) return {};
        const ULONG sub = ULONG(fields[i]);
        std::memcpy(sid.data() + kSidHeader + 4 * (i - 2), &sub, sizeof sub);
    }
    return sid;
}

bool ValidSelfRelativeDescriptor(const std::vector<uint8_t> &descriptor) {
    if (descriptor.size() < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) return false;
    const SECURITY_DESCRIPTOR_RELATIVE header = HeaderOf(descriptor);
    if (header.Revision != SECURITY_DESCRIPTOR_REVISION || (header.Control & SE_SELF_RELATIVE) == 0) return false;
    if (header.Owner != 0 && !SidFits(descriptor, header.Owner)) return false;
    if (header.Group != 0 && !SidFits(descriptor, header.Group)) return false;
    if ((header.Control & SE_SACL_PRESENT) && header.Sacl != 0 && !AclFits(descriptor, header.Sacl)) return false;
    if ((header.Control & SE_DACL_PRESENT) && header.Dacl != 0 && !AclFits(descriptor, header.Dacl)) return false;
    return true;
}

std::vector<uint8_t> DefaultProcessDescriptor(const std::vector<uint8_t> &user_sid) {
    // Owned by the token's user; the user and SYSTEM have full access.
    const std::vector<uint8_t> system_sid = SidFromText("S-1-5-18");
    std::vector<uint8_t> aces;
    USHORT ace_count = 0;
    for (const std::vector<uint8_t> *sid : {&user_sid, &system_sid}) {
        const USHORT ace_size = USHORT(8 + sid->size());
        const ACCESS_MASK mask = PROCESS_ALL_ACCESS;
        aces.push_back(kAccessAllowedAceType);
        aces.push_back(0);
        Append(aces, &ace_size, sizeof ace_size);
        Append(aces, &mask, sizeof mask);
        Append(aces, sid->data(), sid->size());
        ++ace_count;
    }
    ACL acl{kAclRevision, 0, USHORT(sizeof(ACL) + aces.size()), ace_count, 0};
    SECURITY_DESCRIPTOR_RELATIVE header{};
    header.Revision = SECURITY_DESCRIPTOR_REVISION;
    header.Control = SE_SELF_RELATIVE | SE_DACL_PRESENT;
    std::vector<uint8_t> out(sizeof header);
    header.Owner = ULONG(out.size());
    Append(out, user_sid.data(), user_sid.size());
    header.Group = ULONG(out.size());
    Append(out, user_sid.data(), user_sid.size());
    header.Dacl = ULONG(out.size());
    Append(out, &acl, sizeof acl);
    Append(out, aces.data(), aces.size());
    std::memcpy(out.data(), &header, sizeof header);
    return out;
}

std::shared_ptr<TokenState> MakeTokenState(const hk::TokenSpec &spec) {
    auto token = std::make_shared<TokenState>();
    token->user_sid = SidFromText(spec.user_sid);
    if (token->user_sid.empty()) throw std::invalid_argument("hk: '" + spec.user_sid + "' is not a SID");
    token->integrity_sid = SidFromText(spec.integrity_level_sid);
    if (token->integrity_sid.empty())
        throw std::invalid_argument("hk: '" + spec.integrity_level_sid + "' is not a SID");
    token->statistics = spec.statistics;
    token->virtualization_enabled = spec.virtualization_enabled;
    token->elevated = spec.elevated;
    token->elevation_type = spec.elevation_type;
    token->open_status = spec.open_status;
    token->query_failures = spec.query_failures;
    return token;
}

}  // namespace hk::detail

using namespace hk::detail;

// ------------------------------------------------------------ SIDs

ULONG NTAPI RtlLengthSid(PSID Sid) { return SidLength(static_cast<const uint8_t *>(Sid)); }

BOOLEAN NTAPI RtlValidSid(PSID Sid) {
    const auto *sid = static_cast<const uint8_t *>(Sid);
    return sid != nullptr && sid[0] == SID_REVISION && sid[1] <= SID_MAX_SUB_AUTHORITIES;
}

BOOLEAN NTAPI RtlEqualSid(PSID Sid1, PSID Sid2) {
    const ULONG length = RtlLengthSid(Sid1);
    return length == RtlLengthSid(Sid2) && std::memcmp(Sid1, Sid2, length) == 0;
}

NTSTATUS NTAPI RtlCopySid(ULONG DestinationSidLength, PSID DestinationSid, PSID SourceSid) {
    const ULONG length = RtlLengthSid(SourceSid);
    if (DestinationSidLength < length) return STATUS_BUFFER_TOO_SMALL;
    std::memmove(DestinationSid, SourceSid, length);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid,
                                            BOOLEAN AllocateDestinationString) {
    CheckIrql(PASSIVE_LEVEL, "RtlConvertSidToUnicodeString");
    if (!RtlValidSid(Sid)) return STATUS_INVALID_SID;
    const std::u16string text = ToU16(SidText(static_cast<const uint8_t *>(Sid)));
    const USHORT length = USHORT(text.size() * sizeof(char16_t));
    if (AllocateDestinationString) {
        auto *buffer = static_cast<PWCH>(PoolAllocate(PagedPool, length + sizeof(char16_t), kStringTag));
        if (buffer == nullptr) return STATUS_NO_MEMORY;
        UnicodeString->Buffer = buffer;
        UnicodeString->MaximumLength = USHORT(length + sizeof(char16_t));
    } else if (length > UnicodeString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    std::memcpy(UnicodeString->Buffer, text.data(), length);
    if (length + sizeof(char16_t) <= UnicodeString->MaximumLength) UnicodeString->Buffer[text.size()] = 0;
    UnicodeString->Length = length;
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------ security descriptors

ULONG NTAPI RtlLengthSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor) {
    // The host keeps descriptors self-relative only: the header and each
    // part, each rounded up to a ULONG.
    SECURITY_DESCRIPTOR_RELATIVE header;
    std::memcpy(&header, SecurityDescriptor, sizeof header);
    const auto *bytes = static_cast<const uint8_t *>(SecurityDescriptor);
    auto round = [](ULONG n) { return (n + 3) & ~3u; };
    ULONG length = sizeof header;
    if (header.Owner != 0) length += round(SidLength(bytes + header.Owner));
    if (header.Group != 0) length += round(SidLength(bytes + header.Group));
    USHORT size;
    if ((header.Control & SE_SACL_PRESENT) && header.Sacl != 0) {
        std::memcpy(&size, bytes + header.Sacl + 2, sizeof size);
        length += round(size);
    }
    if ((header.Control & SE_DACL_PRESENT) && header.Dacl != 0) {
        std::memcpy(&size, bytes + header.Dacl + 2, sizeof size);
        length += round(size);
    }
    return length;
}

BOOLEAN NTAPI RtlValidRelativeSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptorInput,
                                                 ULONG SecurityDescriptorLength,
                                                 SECURITY_INFORMATION RequiredInformation) {
    if (SecurityDescriptorInput == nullptr) return FALSE;
    const auto *bytes = static_cast<const uint8_t *>(SecurityDescriptorInput);
    const std::vector<uint8_t> descriptor(bytes, bytes + SecurityDescriptorLength);
    if (!ValidSelfRelativeDescriptor(descriptor)) return FALSE;
    const SECURITY_DESCRIPTOR_RELATIVE header = HeaderOf(descriptor);
    if ((RequiredInformation & OWNER_SECURITY_INFORMATION) && header.Owner == 0) return FALSE;
    if ((RequiredInformation & GROUP_SECURITY_INFORMATION) && header.Group == 0) return FALSE;
    if ((RequiredInformation & DACL_SECURITY_INFORMATION) && (header.Control & SE_DACL_PRESENT) == 0) return FALSE;
    if ((RequiredInformation & SACL_SECURITY_INFORMATION) && (header.Control & SE_SACL_PRESENT) == 0) return FALSE;
    return TRUE;
}

NTSTATUS NTAPI ZwQuerySecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                                     PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded) {
    CheckIrql(PASSIVE_LEVEL, "ZwQuerySecurityObject");
    PVOID object = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(Handle, 0, nullptr, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    ObjectKind kind;
    if (!ObjectKnown(object, &kind) || kind != ObjectKind::Process) {
        ObjectDereference(object);
        Complainf("ZwQuerySecurityObject: only process objects' descriptors are modelled, not a %s's",
                  ObjectKindName(kind));
        return STATUS_NOT_IMPLEMENTED;
    }
    auto *process = static_cast<HostProcess *>(object);
    std::vector<uint8_t> answer;
    {
        std::lock_guard guard(Ps().lock);
        status = process->security_query_status;
        if (NT_SUCCESS(status)) answer = DescriptorParts(process->security_descriptor, SecurityInformation);
    }
    ObjectDereference(process);
    if (!NT_SUCCESS(status)) return status;
    if (LengthNeeded == nullptr) {
        Complain("ZwQuerySecurityObject: LengthNeeded is required");
        return STATUS_ACCESS_VIOLATION;
    }
    *LengthNeeded = ULONG(answer.size());
    if (Length < answer.size()) return STATUS_BUFFER_TOO_SMALL;
    if (SecurityDescriptor == nullptr) return STATUS_ACCESS_VIOLATION;
    std::memcpy(SecurityDescriptor, answer.data(), answer.size());
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------ tokens

NTSTATUS NTAPI ZwOpenProcessTokenEx(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes,
                                    PHANDLE TokenHandle) {
    CheckIrql(PASSIVE_LEVEL, "ZwOpenProcessTokenEx");
    if (TokenHandle == nullptr) {
        Complain("ZwOpenProcessTokenEx: TokenHandle is required");
        return STATUS_ACCESS_VIOLATION;
    }
    if ((HandleAttributes & OBJ_KERNEL_HANDLE) == 0 && CurrentOwnProcess() != SystemProcess())
        Complainf("ZwOpenProcessTokenEx without OBJ_KERNEL_HANDLE in the context of process %lu: the handle goes "
                  "to that process",
                  static_cast<unsigned long>(CurrentOwnProcess()->id));
    NTSTATUS status;
    HostProcess *process = ReferenceProcessByHandle(ProcessHandle, &status);
    if (process == nullptr) return status;
    std::shared_ptr<TokenState> state = process->token;
    {
        std::lock_guard guard(Ps().lock);
        status = state->open_status;
    }
    ObjectDereference(process);
    if (!NT_SUCCESS(status)) return status;
    auto *token = new HostToken{std::move(state)};
    ObjectCreated(token, ObjectKind::Token, [](void *object) { delete static_cast<HostToken *>(object); });
    const ACCESS_MASK access = (DesiredAccess & MAXIMUM_ALLOWED) != 0 ? ACCESS_MASK(TOKEN_ALL_ACCESS) : DesiredAccess;
    *TokenHandle = HandleCreate(token, ObjectKind::Token, access);
    ObjectDereference(token);  // the handle holds it now
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                       PVOID TokenInformation, ULONG Length, PULONG ResultLength) {
    CheckIrql(PASSIVE_LEVEL, "ZwQueryInformationToken");
    switch (TokenInformationClass) {
    case TokenUser:
    case TokenStatistics:
    case TokenVirtualizationEnabled:
    case TokenIntegrityLevel:
    case TokenElevation:
    case TokenElevationType:
        break;
    default:
        if (ULONG(TokenInformationClass) == 0 || ULONG(TokenInformationClass) >= ULONG(MaxTokenInfoClass))
            return STATUS_INVALID_INFO_CLASS;
        Complainf("ZwQueryInformationToken: information class %d is not modelled", int(TokenInformationClass));
        return STATUS_NOT_IMPLEMENTED;
    }
    PVOID object = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(TokenHandle, 0, nullptr, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    ObjectKind kind;
    if (!ObjectKnown(object, &kind) || kind != ObjectKind::Token) {
        ObjectDereference(object);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    const std::shared_ptr<TokenState> token = static_cast<HostToken *>(object)->state;
    ObjectDereference(object);

    // The answer, built first; SIDs follow their structure and are pointed
    // to where they land in the caller's buffer.
    std::vector<uint8_t> answer;
    const std::vector<uint8_t> *sid = nullptr;
    ULONG sid_attributes = 0;
    {
        std::lock_guard guard(Ps().lock);
        status = TokenFailure(*token, TokenInformationClass);
        if (!NT_SUCCESS(status)) return status;
        switch (TokenInformationClass) {
        case TokenUser:
            sid = &token->user_sid;
            break;
        case TokenIntegrityLevel:
            sid = &token->integrity_sid;
            sid_attributes = SE_GROUP_INTEGRITY | SE_GROUP_INTEGRITY_ENABLED;
            break;
        case TokenStatistics:
            Append(answer, &token->statistics, sizeof token->statistics);
            break;
        case TokenVirtualizationEnabled: {
            const ULONG value = token->virtualization_enabled ? 1 : 0;
            Append(answer, &value, sizeof value);
            break;
        }
        case TokenElevation: {
            const TOKEN_ELEVATION value{token->elevated ? 1u : 0u};
            Append(answer, &value, sizeof value);
            break;
        }
        default: {
            const ULONG value = ULONG(token->elevation_type);
            Append(answer, &value, sizeof value);
            break;
        }
        }
        if (sid != nullptr) {
            answer.resize(sizeof(SID_AND_ATTRIBUTES));
            Append(answer, sid->data(), sid->size());
            SID_AND_ATTRIBUTES header{nullptr, sid_attributes};
            std::memcpy(answer.data(), &header, sizeof header);
        }
    }
    if (ResultLength == nullptr) {
        Complain("ZwQueryInformationToken: ResultLength is required");
        return STATUS_ACCESS_VIOLATION;
    }
    *ResultLength = ULONG(answer.size());
    if (Length < answer.size()) return STATUS_BUFFER_TOO_SMALL;
    if (TokenInformation == nullptr) return STATUS_ACCESS_VIOLATION;
    std::memcpy(TokenInformation, answer.data(), answer.size());
    if (sid != nullptr) {
        auto *header = static_cast<SID_AND_ATTRIBUTES *>(TokenInformation);
        header->Sid = static_cast<uint8_t *>(TokenInformation) + sizeof(SID_AND_ATTRIBUTES);
    }
    return STATUS_SUCCESS;
}
