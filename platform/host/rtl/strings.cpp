// Counted string routines with the kernel's semantics: lengths in bytes,
// terminators written only where the kernel writes them, the kernel's upcase
// table for case-insensitive work, and the ANSI code page 1252.
#include "internal.h"
#include "rtl/upcase_table.h"

#include <hk/hk.h>

#include <array>
#include <cstring>

namespace hk::detail {
namespace {

const std::array<char16_t, 0x10000> &UpcaseTable() {
    static const auto *table = [] {
        auto *t = new std::array<char16_t, 0x10000>;
        for (uint32_t c = 0; c < 0x10000; ++c) (*t)[c] = char16_t(c);
        for (size_t r = 0; r < kUpcaseRunCount; ++r) {
            const auto &run = kUpcaseRuns[r];
            for (uint32_t i = 0; i < run.count; ++i) {
                const uint32_t c = run.first + i * run.step;
                (*t)[c] = char16_t(int32_t(c) + run.delta);
            }
        }
        return t;
    }();
    return *table;
}

// Code page 1252's bytes 0x80..0x9F; the rest of the page is Latin-1.
constexpr char16_t kCp1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

}  // namespace

char16_t UpcaseChar(char16_t c) { return UpcaseTable()[c]; }

std::u16string Upcase(const std::u16string &text) {
    std::u16string out = text;
    for (auto &c : out) c = UpcaseChar(c);
    return out;
}

bool NamesEqualInsensitive(const std::u16string &a, const std::u16string &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (UpcaseChar(a[i]) != UpcaseChar(b[i])) return false;
    return true;
}

std::u16string FromUnicodeString(PCUNICODE_STRING s) {
    if (s == nullptr || s->Buffer == nullptr) return {};
    return std::u16string(s->Buffer, s->Length / 2);
}

std::u16string ToU16(const std::string &utf8) {
    std::u16string out;
    for (size_t i = 0; i < utf8.size();) {
        uint32_t c = uint8_t(utf8[i]);
        size_t extra = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
        if (extra) c &= (0x3F >> extra);
        for (size_t k = 1; k <= extra && i + k < utf8.size(); ++k) c = (c << 6) | (uint8_t(utf8[i + k]) & 0x3F);
        i += extra + 1;
        if (c >= 0x10000) {
            c -= 0x10000;
            out += char16_t(0xD800 + (c >> 10));
            out += char16_t(0xDC00 + (c & 0x3FF));
        } else {
            out += char16_t(c);
        }
    }
    return out;
}

std::string ToUtf8(const std::u16string &text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t c = text[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        }
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | (c >> 12));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | (c >> 18));
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

char16_t AnsiToUnicode(unsigned char c) { return (c >= 0x80 && c < 0xA0) ? kCp1252High[c - 0x80] : char16_t(c); }

}  // namespace hk::detail

namespace hk {
std::u16string Utf16(const std::string &utf8) { return detail::ToU16(utf8); }
std::string Utf8(const std::u16string &text) { return detail::ToUtf8(text); }
}  // namespace hk

using hk::detail::UpcaseChar;

extern "C" {

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING Destination, PCWSTR Source) {
    Destination->Buffer = const_cast<PWCH>(Source);
    if (Source == nullptr) {
        Destination->Length = Destination->MaximumLength = 0;
        return;
    }
    size_t chars = 0;
    while (Source[chars] != 0) ++chars;
    size_t bytes = chars * 2;
    if (bytes > 0xFFFC) bytes = 0xFFFC;
    Destination->Length = USHORT(bytes);
    Destination->MaximumLength = USHORT(bytes + 2);
}

VOID NTAPI RtlInitAnsiString(PANSI_STRING Destination, PCSZ Source) {
    Destination->Buffer = const_cast<PCHAR>(Source);
    if (Source == nullptr) {
        Destination->Length = Destination->MaximumLength = 0;
        return;
    }
    size_t bytes = std::strlen(Source);
    if (bytes > 0xFFFE) bytes = 0xFFFE;
    Destination->Length = USHORT(bytes);
    Destination->MaximumLength = USHORT(bytes + 1);
}

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    if (Source == nullptr) {
        Destination->Length = 0;
        return;
    }
    const USHORT n = Source->Length < Destination->MaximumLength ? Source->Length : Destination->MaximumLength;
    std::memmove(Destination->Buffer, Source->Buffer, n);
    Destination->Length = n;
    if (n < Destination->MaximumLength) Destination->Buffer[n / 2] = 0;
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    const USHORT n = Source->Length;
    if (n == 0) return STATUS_SUCCESS;
    if (ULONG(Destination->Length) + n > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    std::memmove(reinterpret_cast<PUCHAR>(Destination->Buffer) + Destination->Length, Source->Buffer, n);
    Destination->Length = USHORT(Destination->Length + n);
    if (Destination->Length < Destination->MaximumLength) Destination->Buffer[Destination->Length / 2] = 0;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, Source);
    return RtlAppendUnicodeStringToString(Destination, &s);
}

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    const size_t n1 = String1->Length / 2, n2 = String2->Length / 2, n = n1 < n2 ? n1 : n2;
    // Matchers compare names that are mostly upper-cased already: equal
    // characters need no folding, and the table is looked up once.
    const char16_t *table = CaseInSensitive ? hk::detail::UpcaseTable().data() : nullptr;
    for (size_t i = 0; i < n; ++i) {
        char16_t a = String1->Buffer[i], b = String2->Buffer[i];
        if (a == b) continue;
        if (table != nullptr) {
            a = table[a];
            b = table[b];
        }
        if (a != b) return LONG(a) - LONG(b);
    }
    return LONG(String1->Length) - LONG(String2->Length);
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    if (String1->Length != String2->Length) return FALSE;
    return RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    if (String1->Length > String2->Length) return FALSE;
    UNICODE_STRING head = *String2;
    head.Length = String1->Length;
    return RtlCompareUnicodeString(String1, &head, CaseInSensitive) == 0;
}

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter) { return UpcaseChar(SourceCharacter); }

NTSTATUS NTAPI RtlUpcaseUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source,
                                      BOOLEAN AllocateDestinationString) {
    if (AllocateDestinationString) {
        hk::detail::CheckIrql(PASSIVE_LEVEL, "RtlUpcaseUnicodeString");
        Destination->MaximumLength = Source->Length;
        Destination->Buffer = Source->Length == 0
                                  ? nullptr
                                  : static_cast<PWCH>(hk::detail::PoolAllocate(PagedPool, Source->Length,
                                                                                 hk::detail::kStringTag));
        if (Source->Length != 0 && Destination->Buffer == nullptr) return STATUS_NO_MEMORY;
    } else if (Source->Length > Destination->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    const size_t n = Source->Length / 2;
    for (size_t i = 0; i < n; ++i) Destination->Buffer[i] = UpcaseChar(Source->Buffer[i]);
    Destination->Length = Source->Length;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING Destination, PCANSI_STRING Source,
                                            BOOLEAN AllocateDestinationString) {
    const ULONG size = (ULONG(Source->Length) + 1) * 2;  // room for a terminator
    if (size > 0xFFFF) return ((NTSTATUS)0xC00000F0L);   // STATUS_INVALID_PARAMETER_2
    Destination->Length = USHORT(size - 2);
    if (AllocateDestinationString) {
        hk::detail::CheckIrql(PASSIVE_LEVEL, "RtlAnsiStringToUnicodeString");
        Destination->MaximumLength = USHORT(size);
        Destination->Buffer = static_cast<PWCH>(hk::detail::PoolAllocate(PagedPool, size, hk::detail::kStringTag));
        if (Destination->Buffer == nullptr) return STATUS_NO_MEMORY;
    } else if (Destination->Length >= Destination->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < Source->Length; ++i)
        Destination->Buffer[i] = hk::detail::AnsiToUnicode(uint8_t(Source->Buffer[i]));
    Destination->Buffer[Source->Length] = 0;
    return STATUS_SUCCESS;
}

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
    if (UnicodeString->Buffer != nullptr)
        hk::detail::PoolFree(UnicodeString->Buffer, hk::detail::kStringTag, "RtlFreeUnicodeString");
    UnicodeString->Buffer = nullptr;
    UnicodeString->Length = UnicodeString->MaximumLength = 0;
}

SIZE_T NTAPI RtlCompareMemory(const VOID *Source1, const VOID *Source2, SIZE_T Length) {
    const auto *a = static_cast<const uint8_t *>(Source1);
    const auto *b = static_cast<const uint8_t *>(Source2);
    SIZE_T i = 0;
    while (i < Length && a[i] == b[i]) ++i;
    return i;
}

}  // extern "C"
