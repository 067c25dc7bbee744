// A process's token and security descriptor as a driver reads them: the
// DDK's layouts, the two-step length protocols, and failures injected from
// the machine model.
#include "process_helpers.h"

#include <cstring>
#include <stdexcept>

using namespace host_test;

namespace {

class Tokens : public MachineTest {};

constexpr const char *kUser = "S-1-5-21-1004336348-1177238915-682003330-1001";

hk::ProcessSpec UserProcess() {
    hk::ProcessSpec spec;
    spec.image_file_name = "\\Device\\HarddiskVolume2\\Windows\\explorer.exe";
    spec.token.user_sid = kUser;
    spec.token.integrity_level_sid = "S-1-16-8192";
    spec.token.elevated = false;
    spec.token.elevation_type = TokenElevationTypeLimited;
    spec.token.virtualization_enabled = true;
    spec.token.statistics.TokenId = {0x1234, 0};
    spec.token.statistics.AuthenticationId = {0x5678, 0};
    spec.token.statistics.GroupCount = 14;
    spec.token.statistics.PrivilegeCount = 5;
    return spec;
}

HANDLE OpenToken(HANDLE process, NTSTATUS expected = STATUS_SUCCESS) {
    HANDLE token = nullptr;
    EXPECT_EQ(ZwOpenProcessTokenEx(process, TOKEN_READ, OBJ_KERNEL_HANDLE, &token), expected);
    return token;
}

std::string SidText(PSID sid) {
    UNICODE_STRING text{};
    EXPECT_EQ(RtlConvertSidToUnicodeString(&text, sid, TRUE), STATUS_SUCCESS);
    const std::string utf8 = texprt_test::Text(&text);
    RtlFreeUnicodeString(&text);
    return utf8;
}

// The two steps: the length, then the answer.
std::vector<uint64_t> QueryToken(HANDLE token, TOKEN_INFORMATION_CLASS information_class, ULONG *length) {
    *length = 0;
    EXPECT_EQ(ZwQueryInformationToken(token, information_class, nullptr, 0, length), STATUS_BUFFER_TOO_SMALL);
    std::vector<uint64_t> buffer(*length / 8 + 1);
    ULONG returned = 0;
    EXPECT_EQ(ZwQueryInformationToken(token, information_class, buffer.data(), *length, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, *length);
    return buffer;
}

TEST_F(Tokens, TheUserComesAfterItsStructureInTheCallersBuffer) {
    ProcessHandle process(hk::CreateProcess(UserProcess()));
    HANDLE token = OpenToken(process.get());
    ULONG length = 0;
    auto buffer = QueryToken(token, TokenUser, &length);
    auto *user = reinterpret_cast<TOKEN_USER *>(buffer.data());
    EXPECT_EQ(user->User.Sid, reinterpret_cast<PUCHAR>(buffer.data()) + sizeof(TOKEN_USER));
    EXPECT_EQ(user->User.Attributes, 0u);
    EXPECT_TRUE(RtlValidSid(user->User.Sid));
    EXPECT_EQ(length, sizeof(TOKEN_USER) + RtlLengthSid(user->User.Sid));
    EXPECT_EQ(RtlLengthSid(user->User.Sid), 8u + 4 * 5);
    EXPECT_EQ(SidText(user->User.Sid), kUser);
    ULONG short_length = 0;
    EXPECT_EQ(ZwQueryInformationToken(token, TokenUser, buffer.data(), length - 1, &short_length),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(short_length, length);
    ZwClose(token);
}

TEST_F(Tokens, TheIntegrityLevelIsALabelWithItsAttributes) {
    ProcessHandle process(hk::CreateProcess(UserProcess()));
    HANDLE token = OpenToken(process.get());
    ULONG length = 0;
    auto buffer = QueryToken(token, TokenIntegrityLevel, &length);
    auto *label = reinterpret_cast<TOKEN_MANDATORY_LABEL *>(buffer.data());
    EXPECT_EQ(label->Label.Attributes, ULONG(SE_GROUP_INTEGRITY | SE_GROUP_INTEGRITY_ENABLED));
    EXPECT_EQ(SidText(label->Label.Sid), "S-1-16-8192");
    EXPECT_EQ(length, sizeof(TOKEN_MANDATORY_LABEL) + 12);
    ZwClose(token);
}

// The fixed-size classes follow the same protocol: too short a buffer is
// STATUS_BUFFER_TOO_SMALL with the length needed.
TEST_F(Tokens, FixedSizeClassesAnswerWhatTheSpecSaid) {
    ProcessHandle process(hk::CreateProcess(UserProcess()));
    HANDLE token = OpenToken(process.get());
    ULONG length = 0;
    auto statistics = QueryToken(token, TokenStatistics, &length);
    EXPECT_EQ(length, 56u);
    auto *s = reinterpret_cast<TOKEN_STATISTICS *>(statistics.data());
    EXPECT_EQ(s->TokenId.LowPart, 0x1234u);
    EXPECT_EQ(s->AuthenticationId.LowPart, 0x5678u);
    EXPECT_EQ(s->TokenType, TokenPrimary);
    EXPECT_EQ(s->GroupCount, 14u);
    EXPECT_EQ(s->PrivilegeCount, 5u);
    const struct {
        TOKEN_INFORMATION_CLASS information_class;
        ULONG value;
    } cases[] = {{TokenVirtualizationEnabled, 1}, {TokenElevation, 0}, {TokenElevationType, TokenElevationTypeLimited}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.information_class);
        auto answer = QueryToken(token, c.information_class, &length);
        EXPECT_EQ(length, sizeof(ULONG));
        ULONG value;
        std::memcpy(&value, answer.data(), sizeof value);
        EXPECT_EQ(value, c.value);
        EXPECT_EQ(ZwQueryInformationToken(token, c.information_class, answer.data(), 3, &length),
                  STATUS_BUFFER_TOO_SMALL);
    }
    EXPECT_EQ(ZwQueryInformationToken(token, MaxTokenInfoClass, nullptr, 0, &length), STATUS_INVALID_INFO_CLASS);
    ZwClose(token);
}

// System's token: the system account, elevated, at system integrity.
TEST_F(Tokens, SystemsTokenIsTheSystemAccount) {
    ProcessHandle process(4);
    HANDLE token = OpenToken(process.get());
    ULONG length = 0;
    auto user = QueryToken(token, TokenUser, &length);
    EXPECT_EQ(SidText(reinterpret_cast<TOKEN_USER *>(user.data())->User.Sid), "S-1-5-18");
    auto label = QueryToken(token, TokenIntegrityLevel, &length);
    EXPECT_EQ(SidText(reinterpret_cast<TOKEN_MANDATORY_LABEL *>(label.data())->Label.Sid), "S-1-16-16384");
    auto elevation = QueryToken(token, TokenElevation, &length);
    EXPECT_EQ(reinterpret_cast<TOKEN_ELEVATION *>(elevation.data())->TokenIsElevated, 1u);
    ZwClose(token);
}

// Opening the token and each query fail as injected, from the spec or
// later, also on a token opened before; the rest still answer.
TEST_F(Tokens, OpeningAndEachQueryCanBeMadeToFail) {
    const TOKEN_INFORMATION_CLASS classes[] = {TokenUser,      TokenStatistics,   TokenVirtualizationEnabled,
                                               TokenIntegrityLevel, TokenElevation, TokenElevationType};
    for (TOKEN_INFORMATION_CLASS failing : classes) {
        SCOPED_TRACE(failing);
        hk::ProcessSpec spec = UserProcess();
        spec.token.query_failures[failing] = STATUS_ACCESS_DENIED;
        const uint32_t id = hk::CreateProcess(spec);
        ProcessHandle process(id);
        HANDLE token = OpenToken(process.get());
        for (TOKEN_INFORMATION_CLASS c : classes) {
            ULONG length = 0;
            EXPECT_EQ(ZwQueryInformationToken(token, c, nullptr, 0, &length),
                      c == failing ? STATUS_ACCESS_DENIED : STATUS_BUFFER_TOO_SMALL);
        }
        hk::FailTokenQuery(id, failing, STATUS_SUCCESS);
        hk::FailTokenQuery(id, TokenUser, STATUS_NO_MEMORY);
        ULONG length = 0;
        EXPECT_EQ(ZwQueryInformationToken(token, TokenUser, nullptr, 0, &length), STATUS_NO_MEMORY)
            << "a failure injected later reaches a token already open";
        ZwClose(token);
    }
    hk::ProcessSpec spec = UserProcess();
    spec.token.open_status = STATUS_NO_TOKEN;
    const uint32_t id = hk::CreateProcess(spec);
    ProcessHandle process(id);
    EXPECT_EQ(OpenToken(process.get(), STATUS_NO_TOKEN), nullptr);
    hk::FailTokenOpen(id, STATUS_SUCCESS);
    HANDLE token = OpenToken(process.get());
    EXPECT_NE(token, nullptr);
    ZwClose(token);
}

TEST_F(Tokens, ATokenQueryOnAHandleThatIsNoTokenFails) {
    ProcessHandle process(hk::CreateProcess(UserProcess()));
    ULONG length = 0;
    EXPECT_EQ(ZwQueryInformationToken(process.get(), TokenUser, nullptr, 0, &length), STATUS_OBJECT_TYPE_MISMATCH);
    HANDLE token = nullptr;
    EXPECT_EQ(ZwOpenProcessTokenEx(nullptr, TOKEN_READ, OBJ_KERNEL_HANDLE, &token), STATUS_INVALID_HANDLE);
}

// ------------------------------------------------------------ SIDs

TEST_F(Tokens, SidsConvertToTextAsWindowsWritesThem) {
    const struct {
        const char *text;
        ULONG length;
    } cases[] = {
        {"S-1-5-18", 12},
        {"S-1-0", 8},
        {"S-1-16-12288", 12},
        {kUser, 28},
        {"S-1-0x123456789ABC-1", 12},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        hk::ProcessSpec spec = UserProcess();
        spec.token.user_sid = c.text;
        ProcessHandle process(hk::CreateProcess(spec));
        HANDLE token = OpenToken(process.get());
        ULONG length = 0;
        auto user = QueryToken(token, TokenUser, &length);
        PSID sid = reinterpret_cast<TOKEN_USER *>(user.data())->User.Sid;
        EXPECT_EQ(RtlLengthSid(sid), c.length);
        EXPECT_EQ(SidText(sid), c.text);
        std::vector<uint8_t> copy(c.length);
        EXPECT_EQ(RtlCopySid(c.length - 1, copy.data(), sid), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(RtlCopySid(c.length, copy.data(), sid), STATUS_SUCCESS);
        EXPECT_TRUE(RtlEqualSid(copy.data(), sid));
        ZwClose(token);
    }
    for (const char *bad : {"S-1", "S-2-5-18", "S-1-5-", "X-1-5-18", "S-1-5-4294967296",
                            "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"}) {
        SCOPED_TRACE(bad);
        hk::ProcessSpec spec = UserProcess();
        spec.token.user_sid = bad;
        EXPECT_THROW(hk::CreateProcess(spec), std::invalid_argument);
    }
}

// ------------------------------------------------------------ security descriptors

std::vector<uint8_t> QueryDescriptor(HANDLE handle, SECURITY_INFORMATION information) {
    ULONG needed = 0;
    EXPECT_EQ(ZwQuerySecurityObject(handle, information, nullptr, 0, &needed), STATUS_BUFFER_TOO_SMALL);
    std::vector<uint8_t> descriptor(needed);
    ULONG returned = 0;
    EXPECT_EQ(ZwQuerySecurityObject(handle, information, descriptor.data(), needed, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, needed);
    return descriptor;
}

constexpr SECURITY_INFORMATION kAll =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;

TEST_F(Tokens, AProcessHasASelfRelativeDescriptorOwnedByItsUser) {
    ProcessHandle process(hk::CreateProcess(UserProcess()));
    const std::vector<uint8_t> descriptor = QueryDescriptor(process.get(), kAll);
    ASSERT_TRUE(RtlValidRelativeSecurityDescriptor(const_cast<uint8_t *>(descriptor.data()), ULONG(descriptor.size()),
                                                   OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION));
    SECURITY_DESCRIPTOR_RELATIVE header;
    std::memcpy(&header, descriptor.data(), sizeof header);
    EXPECT_EQ(header.Revision, SECURITY_DESCRIPTOR_REVISION);
    EXPECT_TRUE(header.Control & SE_SELF_RELATIVE);
    EXPECT_TRUE(header.Control & SE_DACL_PRESENT);
    EXPECT_EQ(SidText(const_cast<uint8_t *>(descriptor.data()) + header.Owner), kUser);
    EXPECT_EQ(RtlLengthSecurityDescriptor(const_cast<uint8_t *>(descriptor.data())), descriptor.size());
}

// A descriptor given in the spec comes back as given when all its parts are
// asked for, and with only the parts asked for otherwise.
TEST_F(Tokens, TheDescriptorComesBackWithThePartsAskedFor) {
    // Owner and group S-1-5-32-544 (Administrators), a DACL of one ACE
    // granting S-1-1-0 (Everyone) PROCESS_QUERY_LIMITED_INFORMATION.
    const std::vector<uint8_t> given = {
        0x01, 0x00, 0x04, 0x80, 0x14, 0x00, 0x00, 0x00, 0x24, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x34, 0x00, 0x00, 0x00,  // header: owner 0x14, group 0x24, no SACL, DACL 0x34
        0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x20, 0x00, 0x00, 0x00, 0x20, 0x02, 0x00, 0x00,
        0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x20, 0x00, 0x00, 0x00, 0x20, 0x02, 0x00, 0x00,
        0x02, 0x00, 0x1C, 0x00, 0x01, 0x00, 0x00, 0x00,  // ACL: 28 bytes, one ACE
        0x00, 0x00, 0x14, 0x00, 0x00, 0x10, 0x00, 0x00,  // ACCESS_ALLOWED, 20 bytes, 0x1000
        0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00};
    hk::ProcessSpec spec = UserProcess();
    spec.security_descriptor = given;
    const uint32_t id = hk::CreateProcess(spec);
    ProcessHandle process(id);
    EXPECT_EQ(QueryDescriptor(process.get(), kAll), given);
    EXPECT_EQ(QueryDescriptor(process.get(), OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                                 DACL_SECURITY_INFORMATION),
              given)
        << "there is no SACL to leave out";
    const std::vector<uint8_t> owner_only = QueryDescriptor(process.get(), OWNER_SECURITY_INFORMATION);
    EXPECT_EQ(owner_only.size(), 20u + 16u);
    SECURITY_DESCRIPTOR_RELATIVE header;
    std::memcpy(&header, owner_only.data(), sizeof header);
    EXPECT_EQ(header.Owner, 20u);
    EXPECT_EQ(header.Group, 0u);
    EXPECT_EQ(header.Dacl, 0u);
    EXPECT_FALSE(header.Control & SE_DACL_PRESENT);
    EXPECT_EQ(SidText(const_cast<uint8_t *>(owner_only.data()) + header.Owner), "S-1-5-32-544");

    ULONG needed = 0;
    std::vector<uint8_t> small(10);
    EXPECT_EQ(ZwQuerySecurityObject(process.get(), kAll, small.data(), ULONG(small.size()), &needed),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(needed, given.size());
    EXPECT_EQ(small, std::vector<uint8_t>(10)) << "nothing is returned";

    hk::FailSecurityQuery(id, STATUS_ACCESS_DENIED);
    EXPECT_EQ(ZwQuerySecurityObject(process.get(), kAll, nullptr, 0, &needed), STATUS_ACCESS_DENIED);

    spec.security_descriptor = {0x01, 0x00, 0x04, 0x80, 0xFF, 0x00, 0x00, 0x00};
    EXPECT_THROW(hk::CreateProcess(spec), std::invalid_argument) << "not a descriptor";
}

}  // namespace
