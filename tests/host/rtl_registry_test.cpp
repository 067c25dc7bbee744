// The Rtl string routines, _vsnwprintf, the registry's information classes
// and overflow statuses, the error log and the pool's verifier.
#include "host_test.h"

#include <cstring>

using host_test::ExpectComplaint;
using host_test::MachineTest;
using texprt_test::Wide;

namespace {

class RtlTest : public MachineTest {};

std::u16string Format(const char16_t *format, ...) {
    char16_t buffer[64];
    va_list args;
    va_start(args, format);
    const int n = _vsnwprintf(buffer, 63, format, args);
    va_end(args);
    return n < 0 ? u"<overflow>" : std::u16string(buffer, n);
}

TEST_F(RtlTest, FormatsAsTheKernelDoes) {
    EXPECT_EQ(Format(u"%I64d|%I64u", int64_t(-9000000000), uint64_t(18000000000u)), u"-9000000000|18000000000");
    EXPECT_EQ(Format(u"%u|%d|0x%X|%x", 4294967295u, -7, 0xC000003Eu, 0xABu), u"4294967295|-7|0xC000003E|ab");
    EXPECT_EQ(Format(u"%08X|%-4d|%4d|%+d", 0x1Fu, 5, 5, 5), u"0000001F|5   |   5|+5");
    EXPECT_EQ(Format(u"%s|%ws|%hs|%S", u"wide", u"ws", "narrow", "S"), u"wide|ws|narrow|S");
    EXPECT_EQ(Format(u"%.3s|%c|%%", u"abcdef", u'z'), u"abc|z|%");
    EXPECT_EQ(Format(u"%lu", 3000000000u), u"3000000000");  // "l" is 32 bits
}

TEST_F(RtlTest, VsnwprintfTruncationAndTerminator) {
    char16_t buffer[8];
    auto run = [&](size_t count, const char16_t *text) {
        std::fill(std::begin(buffer), std::end(buffer), u'#');
        va_list none{};
        return _vsnwprintf(buffer, count, text, none);
    };
    EXPECT_EQ(run(4, u"abc"), 3);  // room left: terminated
    EXPECT_EQ(buffer[3], 0);
    EXPECT_EQ(run(3, u"abc"), 3);  // exactly full: no terminator
    EXPECT_EQ(buffer[3], u'#');
    EXPECT_EQ(run(2, u"abc"), -1);  // too long: Count characters, no terminator
    EXPECT_EQ(std::u16string(buffer, 3), u"ab#");
}

TEST_F(RtlTest, UpcaseCoversLettersBeyondAscii) {
    struct Case {
        char16_t in, out;
    } cases[] = {
        {u'a', u'A'}, {u'z', u'Z'}, {u'1', u'1'}, {u'\u00e9', u'\u00c9'}, {u'\u00ff', u'\u0178'},
        {u'\u00df', u'\u00df'},  // sharp s has no one-character capital
        {u'\u0101', u'\u0100'}, {u'\u03c9', u'\u03a9'}, {u'\u0436', u'\u0416'}, {u'\u0561', u'\u0531'},
        {u'\uff41', u'\uff21'}, {u'\u00c9', u'\u00c9'},
    };
    for (auto c : cases) EXPECT_EQ(RtlUpcaseUnicodeChar(c.in), c.out) << std::hex << int(c.in);

    Wide source("\xc3\xa9t\xc3\xa9");  // "été"
    WCHAR room[2];
    UNICODE_STRING small{0, sizeof(room), room};
    EXPECT_EQ(RtlUpcaseUnicodeString(&small, &source.us, FALSE), STATUS_BUFFER_OVERFLOW);
    UNICODE_STRING allocated{};
    ASSERT_EQ(RtlUpcaseUnicodeString(&allocated, &source.us, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(allocated.Buffer, allocated.Length / 2), u"\u00c9T\u00c9");
    RtlFreeUnicodeString(&allocated);
}

TEST_F(RtlTest, CompareCopyAndAppend) {
    Wide a("ABC"), b("abd"), prefix("AB");
    EXPECT_LT(RtlCompareUnicodeString(&a.us, &b.us, TRUE), 0);
    EXPECT_LT(RtlCompareUnicodeString(&a.us, &b.us, FALSE), 0);  // 'A' < 'a'
    EXPECT_GT(RtlCompareUnicodeString(&a.us, &prefix.us, FALSE), 0);
    EXPECT_TRUE(RtlPrefixUnicodeString(&prefix.us, &a.us, FALSE));

    WCHAR room[4];
    UNICODE_STRING dest{0, sizeof(room), room};
    RtlCopyUnicodeString(&dest, &a.us);
    EXPECT_EQ(dest.Length, 6);
    EXPECT_EQ(room[3], 0);  // terminated: there was room
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &prefix.us), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(dest.Length, 6);
    dest.Length = 2;
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &prefix.us), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(room, 3), u"AAB");
}

TEST_F(RtlTest, AnsiConversionCountsWhatItIsGiven) {
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "v\x80 1");  // code page 1252: 0x80 is the euro sign
    UNICODE_STRING out{};
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&out, &ansi, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(out.Length, 8);
    EXPECT_EQ(out.MaximumLength, 10);
    EXPECT_EQ(std::u16string(out.Buffer, 4), u"v\u20ac 1");
    EXPECT_EQ(out.Buffer[4], 0);
    RtlFreeUnicodeString(&out);
    hk::FailNthAllocation(1);
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&out, &ansi, TRUE), STATUS_NO_MEMORY);
}

class RegistryTest : public MachineTest {
protected:
    HANDLE Open(const std::string &path, HANDLE root = nullptr, ULONG attributes = OBJ_KERNEL_HANDLE) {
        Wide name(path);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name.us, attributes, root, nullptr);
        HANDLE key = nullptr;
        status_ = ZwOpenKey(&key, KEY_READ, &oa);
        return key;
    }
    NTSTATUS status_ = STATUS_SUCCESS;
};

TEST_F(RegistryTest, OpensByPathOrRelativeAndIgnoresCase) {
    hk::RegistryCreateKey(texprt_test::kParametersKey);
    HANDLE service = Open("\\registry\\machine\\system\\currentcontrolset\\services\\TMON");
    ASSERT_EQ(status_, STATUS_SUCCESS);
    HANDLE parameters = Open("parameters", service);
    ASSERT_EQ(status_, STATUS_SUCCESS);
    Open("Missing", service);
    EXPECT_EQ(status_, STATUS_OBJECT_NAME_NOT_FOUND);
    Open("Missing\\Deeper", service);
    EXPECT_EQ(status_, STATUS_OBJECT_NAME_NOT_FOUND);
    Open("NoRegistryPrefix");
    EXPECT_EQ(status_, STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(ZwClose(parameters), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(service), STATUS_SUCCESS);
}

TEST_F(RegistryTest, PartialInformationAndItsOverflowStatuses) {
    hk::RegistrySetDword(texprt_test::kParametersKey, "Eight", 8);
    HANDLE key = Open(texprt_test::kParametersKey);
    ASSERT_EQ(status_, STATUS_SUCCESS);
    Wide name("eight");
    UCHAR buffer[32];
    ULONG length = 0;
    struct Case {
        ULONG size;
        NTSTATUS expected;
    } cases[] = {{0, STATUS_BUFFER_TOO_SMALL}, {11, STATUS_BUFFER_TOO_SMALL}, {12, STATUS_BUFFER_OVERFLOW},
                 {15, STATUS_BUFFER_OVERFLOW}, {16, STATUS_SUCCESS}, {32, STATUS_SUCCESS}};
    for (auto c : cases) {
        std::memset(buffer, 0xEE, sizeof buffer);
        EXPECT_EQ(ZwQueryValueKey(key, &name.us, KeyValuePartialInformation, c.size ? buffer : nullptr, c.size,
                                  &length),
                  c.expected)
            << c.size;
        EXPECT_EQ(length, 16u);
        if (c.expected != STATUS_BUFFER_TOO_SMALL) {
            auto *info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
            EXPECT_EQ(info->Type, ULONG(REG_DWORD));
            EXPECT_EQ(info->DataLength, 4u);
        }
    }
    EXPECT_EQ(*reinterpret_cast<ULONG *>(buffer + 12), 8u);
    Wide missing("Nine");
    EXPECT_EQ(ZwQueryValueKey(key, &missing.us, KeyValuePartialInformation, buffer, 32, &length),
              STATUS_OBJECT_NAME_NOT_FOUND);

    ULONG data = 1024;
    ASSERT_EQ(ZwSetValueKey(key, &missing.us, 0, REG_DWORD, &data, 4), STATUS_SUCCESS);
    auto written = hk::RegistryGetValue(texprt_test::kParametersKey, "NINE");
    ASSERT_TRUE(written.has_value());
    EXPECT_EQ(written->data.size(), 4u);
    ZwClose(key);
}

TEST_F(RegistryTest, AHandleOutlivesItsDeletedKey) {
    hk::RegistrySetDword(texprt_test::kParametersKey, "A", 1);
    HANDLE key = Open(texprt_test::kParametersKey);
    hk::RegistryDeleteKey(texprt_test::kParametersKey);
    Wide name("A");
    UCHAR buffer[32];
    ULONG length;
    EXPECT_EQ(ZwQueryValueKey(key, &name.us, KeyValuePartialInformation, buffer, 32, &length), NTSTATUS(0xC000017C));
    ZwClose(key);
}

class ErrorLogTest : public MachineTest {};

TEST_F(ErrorLogTest, PacketsAboveTheLimitOrWithoutObjectAreRefused) {
    PDRIVER_OBJECT driver = hk::CreateDriverObject("\\Driver\\tmon");
    EXPECT_EQ(IoAllocateErrorLogEntry(nullptr, 48), nullptr);
    EXPECT_EQ(IoAllocateErrorLogEntry(driver, 153), nullptr);
    void *packet = IoAllocateErrorLogEntry(driver, 152);
    ASSERT_NE(packet, nullptr);
    IoFreeErrorLogEntry(packet);
    EXPECT_TRUE(hk::EventLog().empty());
}

TEST_F(ErrorLogTest, RenderingPlacesInsertsAsTheViewerDoes) {
    const HkMessageTableEntry table[] = {{0x40000001, u"%1 says %2 and %3%n%%%4%0 unseen"}};
    hk::RegisterMessageTable("", table, 1);
    EXPECT_EQ(hk::RenderMessage(0x40000001, {u"one", u"two", u"three"}, "tmon"), "tmon says one and two\r\n%three");
    // A missing insert shows as itself.
    EXPECT_EQ(hk::RenderMessage(0x40000001, {u"one"}, "tmon"), "tmon says one and %3\r\n%%4");
}

class PoolTest : public MachineTest {};

TEST_F(PoolTest, VerifierCatchesMisuse) {
    void *p = ExAllocatePoolWithTag(NonPagedPoolNx, 16, hk::MakeTag("Test"));
    ASSERT_NE(p, nullptr);
    EXPECT_NE(hk::LeakReport().find("Tag 'Test': 1 allocation, 16 bytes"), std::string::npos);
    ExFreePoolWithTag(p, hk::MakeTag("Othr"));
    ExpectComplaint("with tag 'Othr'");
    ExFreePoolWithTag(p, 0);
    ExpectComplaint("not an outstanding pool allocation");  // a double free

    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    void *paged = ExAllocatePoolWithTag(PagedPool, 8, hk::MakeTag("Test"));
    KeLowerIrql(old);
    ExpectComplaint("above its maximum");
    ExFreePoolWithTag(paged, 0);
}

TEST_F(PoolTest, InjectionAndLimit) {
    const ULONG tag = hk::MakeTag("Inj1");
    const uint64_t injected = hk::InjectedFailures();
    hk::FailNthAllocation(2);
    void *first = ExAllocatePoolWithTag(NonPagedPoolNx, 8, tag);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, 8, tag), nullptr);
    void *third = ExAllocatePoolWithTag(NonPagedPoolNx, 8, tag);
    EXPECT_NE(third, nullptr);
    hk::FailAllocationsWithTag(tag);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, 8, tag), nullptr);
    EXPECT_NE(ExAllocatePoolWithTag(NonPagedPoolNx, 8, hk::MakeTag("Inj2")), nullptr);
    EXPECT_EQ(hk::InjectedFailures() - injected, 2u);
    hk::ClearAllocationFailures();
    hk::SetPoolLimit(hk::OutstandingPoolBytes() + 100);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, 101, tag), nullptr);
    void *fits = ExAllocatePoolWithTag(NonPagedPoolNx, 100, tag);
    EXPECT_NE(fits, nullptr);
    for (auto &a : hk::OutstandingAllocations()) ExFreePoolWithTag(const_cast<void *>(a.address), 0);
}

}  // namespace
