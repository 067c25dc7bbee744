// The pool and string helpers at their boundaries.
#include "base/strings.h"
#include "support/machine.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

using namespace texprt_test;

namespace {

class HelpersTest : public MachineTest {};

UNICODE_STRING Head(USHORT length, USHORT maximum, PWCH buffer) { return UNICODE_STRING{length, maximum, buffer}; }

TEST_F(HelpersTest, PoolAllocOfZeroBytesMakesNoPoolCall) {
    const uint64_t calls = hk::PoolAllocationCalls();
    EXPECT_EQ(PoolAlloc(DefaultPool, 0, TagFrame), nullptr);
    EXPECT_EQ(hk::PoolAllocationCalls(), calls);
    PoolFree(nullptr);  // a no-op, and no complaint
}

TEST_F(HelpersTest, PoolTypeZeroIsNonPagedNxAndOthersPassThrough) {
    for (auto [type, expected] : {std::pair{0u, 512}, {1u, 1}}) {
        void *p = PoolAlloc(type, 8, TagFrame);
        ASSERT_NE(p, nullptr);
        auto all = hk::OutstandingAllocations();
        auto it = std::find_if(all.begin(), all.end(), [&](auto &a) { return a.address == p; });
        ASSERT_NE(it, all.end());
        EXPECT_EQ(it->pool_type, expected);
        EXPECT_EQ(it->tag, TagFrame);
        PoolFree(p);
    }
}

TEST_F(HelpersTest, ValidateUnicodeString) {
    WCHAR buffer[4];
    struct Case {
        const char *what;
        bool null;
        UNICODE_STRING s;
        ULONG max_chars;
        ULONG flags;
        NTSTATUS expected;
    } cases[] = {
        {"null refused", true, {}, 10, 0, STATUS_INVALID_PARAMETER},
        {"null allowed by flag", true, {}, 10, ValidateAllowNull, STATUS_SUCCESS},
        {"odd length", false, Head(3, 8, buffer), 10, 0, STATUS_INVALID_PARAMETER},
        {"odd maximum", false, Head(2, 7, buffer), 10, 0, STATUS_INVALID_PARAMETER},
        {"length above maximum", false, Head(8, 6, buffer), 10, 0, STATUS_INVALID_PARAMETER},
        {"maximum above limit", false, Head(2, 22, buffer), 10, 0, STATUS_INVALID_PARAMETER},
        {"maximum at limit", false, Head(2, 20, buffer), 10, 0, STATUS_SUCCESS},
        {"65534 against 32767 chars", false, Head(2, 65534, buffer), 32767, 0, STATUS_SUCCESS},
        {"65534 against 32766 chars", false, Head(2, 65534, buffer), 32766, 0, STATUS_INVALID_PARAMETER},
        {"null buffer, empty", false, Head(0, 0, nullptr), 10, 0, STATUS_SUCCESS},
        {"null buffer, length", false, Head(2, 2, nullptr), 10, 0, STATUS_INVALID_PARAMETER},
        {"null buffer, maximum only", false, Head(0, 2, nullptr), 10, 0, STATUS_INVALID_PARAMETER},
    };
    for (auto &c : cases)
        EXPECT_EQ(ValidateUnicodeString(c.null ? nullptr : &c.s, c.max_chars, c.flags), c.expected) << c.what;
}

TEST_F(HelpersTest, CopyUnicodeBoundedTruncatesAndReportsOverflow) {
    Wide source("ABCDEFGHIJ");
    WCHAR room[6] = {u'x', u'x', u'x', u'x', u'x', u'x'};
    UNICODE_STRING destination = Head(0, 8, room);
    EXPECT_EQ(CopyUnicodeBounded(&destination, &source.us), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(destination.Length, 8);
    EXPECT_EQ(std::u16string(room, 5), u"ABCDx");  // nothing past the room, no terminator

    UNICODE_STRING exact = Head(0, 20, room);
    Wide five("VWXYZ");
    EXPECT_EQ(CopyUnicodeBounded(&exact, &five.us), STATUS_SUCCESS);
    EXPECT_EQ(exact.Length, 10);

    UNICODE_STRING bad_source = Head(3, 4, room);
    destination.Length = 6;
    EXPECT_EQ(CopyUnicodeBounded(&destination, &bad_source), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(destination.Length, 0);

    UNICODE_STRING bad_destination = Head(5, 8, room);
    EXPECT_EQ(CopyUnicodeBounded(&bad_destination, &five.us), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(bad_destination.Length, 5);
}

TEST_F(HelpersTest, DuplicateUnicodeString) {
    UNICODE_STRING destination = {7, 9, nullptr};
    UNICODE_STRING empty = {0, 2, const_cast<PWCH>(u"")};
    EXPECT_EQ(DuplicateUnicodeString(&destination, &empty, TagFrame), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(destination.Length, 7);  // untouched
    EXPECT_EQ(destination.MaximumLength, 9);

    Wide source("C:\\x");
    ASSERT_EQ(DuplicateUnicodeString(&destination, &source.us, TagFrame), STATUS_SUCCESS);
    EXPECT_EQ(destination.Length, 8);
    EXPECT_EQ(destination.MaximumLength, 10);
    EXPECT_EQ(destination.Buffer[4], 0);
    EXPECT_EQ(Text(&destination), "C:\\x");
    FreeUnicodeString(&destination);

    hk::FailNthAllocation(1);
    destination = {7, 9, nullptr};
    EXPECT_EQ(DuplicateUnicodeString(&destination, &source.us, TagFrame), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(destination.Length, 0);
    EXPECT_EQ(destination.MaximumLength, 0);
}

TEST_F(HelpersTest, NewCountedStringIsOneBlock) {
    Wide source("Parameters");
    PUNICODE_STRING copy = NewCountedString(&source.us, TagFrame);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->Length, 20);
    EXPECT_EQ(copy->MaximumLength, 22);
    EXPECT_EQ(reinterpret_cast<void *>(copy->Buffer), reinterpret_cast<void *>(copy + 1));
    EXPECT_EQ(Text(copy), "Parameters");
    EXPECT_EQ(hk::OutstandingPoolCount(), 1u);
    PoolFree(copy);  // one free releases head and text

    hk::FailNthAllocation(1);
    EXPECT_EQ(NewCountedString(&source.us, TagFrame), nullptr);
}

TEST_F(HelpersTest, ParseDecimalInt64) {
    struct Case {
        std::u16string text;
        LONGLONG expected;
    } cases[] = {
        {u"  -12a", -12},
        {u"+7", 7},
        {u"", 0},
        {u"abc", 0},
        {u"\t\n\x01 42", 42},
        {u"- 5", 0},
        {u"9223372036854775807", INT64_MAX},
        {u"-9223372036854775808", INT64_MIN},
        {u"18446744073709551617", 1},  // wraps silently
    };
    for (auto &c : cases) {
        UNICODE_STRING s = Head(USHORT(c.text.size() * 2), USHORT(c.text.size() * 2), c.text.data());
        LONGLONG value = 99;
        EXPECT_EQ(ParseDecimalInt64(&s, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, c.expected) << hk::Utf8(c.text);
    }
    // The count bounds the text, not a terminator.
    std::u16string digits = u"1234";
    UNICODE_STRING two = Head(4, 8, digits.data());
    LONGLONG value = 0;
    EXPECT_EQ(ParseDecimalInt64(&two, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 12);
}

TEST_F(HelpersTest, ParseDecimalInt64SurvivesAFaultingBuffer) {
    const long page = sysconf(_SC_PAGESIZE);
    auto *mapping = static_cast<char *>(mmap(nullptr, page * 2, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(mapping, MAP_FAILED);
    ASSERT_EQ(mprotect(mapping + page, page, PROT_NONE), 0);
    // Four digits at the end of the readable page, and a count that claims more.
    auto *text = reinterpret_cast<WCHAR *>(mapping + page - 8);
    for (int i = 0; i < 4; ++i) text[i] = u'7';
    UNICODE_STRING s = Head(64, 64, text);
    LONGLONG value = 5;
    EXPECT_EQ(ParseDecimalInt64(&s, &value), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(value, 5);
    munmap(mapping, page * 2);
}

TEST_F(HelpersTest, FormatWide) {
    WCHAR buffer[16];
    EXPECT_EQ(FormatWide(buffer, 16, u"%u", 4294967295u), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(buffer), u"4294967295");
    EXPECT_EQ(FormatWide(buffer, 16, u"0x%X", 0xC000003Eu), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(buffer), u"0xC000003E");
    EXPECT_EQ(FormatWide(buffer, 16, u"%I64d", -5ll), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(buffer), u"-5");
    EXPECT_EQ(FormatWide(buffer, 16, u"%d", -2147483647 - 1), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(buffer), u"-2147483648");

    // Fifteen characters and a NUL fill sixteen exactly.
    EXPECT_EQ(FormatWide(buffer, 16, u"%s", u"ABCDEFGHIJKLMNO"), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(buffer), u"ABCDEFGHIJKLMNO");
    EXPECT_EQ(FormatWide(buffer, 16, u"%s", u"ABCDEFGHIJKLMNOP"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string(buffer), u"ABCDEFGHIJKLMNO");

    buffer[0] = u'x';
    EXPECT_EQ(FormatWide(buffer, 0, u"%u", 1u), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer[0], u'x');
    EXPECT_EQ(FormatWide(buffer, 0x80000000u, u"%u", 1u), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer[0], 0);
}

TEST_F(HelpersTest, ComputePolicyChecksumTakesOneByteMore) {
    const UCHAR a[] = {'a', 'b'};
    // Length 0 folds exactly one byte: FNV-1a of "a".
    EXPECT_EQ(ComputePolicyChecksum(a, 0), 0xE40C292Cu);
    const char foobar[] = "foobar";
    EXPECT_EQ(ComputePolicyChecksum(foobar, 5), 0xBF9CF968u);
    // The byte behind the counted length is part of the sum.
    const UCHAR x[] = {1, 2, 3}, y[] = {1, 2, 4};
    EXPECT_NE(ComputePolicyChecksum(x, 2), ComputePolicyChecksum(y, 2));
}

}  // namespace
