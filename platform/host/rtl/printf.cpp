// _vsnwprintf as ntoskrnl exports it: Microsoft's format language over
// 16-bit text. %s is a wide string and %hs/%S a narrow one; "l" is 32 bits
// and "I64"/"ll" 64; the result counts characters, and when the output does
// not fit, Count characters are written without a terminator and -1 returned.
#include "internal.h"

#include <cstring>
#include <string>

namespace {

void Pad(std::u16string &out, size_t n, char16_t c) { out.append(n, c); }

std::u16string Digits(uint64_t v, unsigned base, bool upper) {
    const char *set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::u16string d;
    do {
        d.insert(d.begin(), char16_t(set[v % base]));
        v /= base;
    } while (v != 0);
    return d;
}

struct FieldFormat {
    bool left = false, plus = false, space = false, alt = false, zero = false;
    int width = -1, precision = -1;
};

void EmitText(std::u16string &out, const FieldFormat &field, std::u16string text) {
    if (field.precision >= 0 && text.size() > size_t(field.precision)) text.resize(field.precision);
    const size_t width = field.width > 0 ? size_t(field.width) : 0;
    if (!field.left && text.size() < width) Pad(out, width - text.size(), u' ');
    out += text;
    if (field.left && text.size() < width) Pad(out, width - text.size(), u' ');
}

void EmitNumber(std::u16string &out, const FieldFormat &field, std::u16string digits, std::u16string prefix) {
    if (field.precision >= 0) {
        if (field.precision == 0 && digits == u"0") digits.clear();
        if (digits.size() < size_t(field.precision)) digits.insert(0, field.precision - digits.size(), u'0');
    }
    const size_t width = field.width > 0 ? size_t(field.width) : 0;
    const size_t len = prefix.size() + digits.size();
    if (field.left) {
        out += prefix + digits;
        if (len < width) Pad(out, width - len, u' ');
    } else if (field.zero && field.precision < 0) {
        out += prefix;
        if (len < width) Pad(out, width - len, u'0');
        out += digits;
    } else {
        if (len < width) Pad(out, width - len, u' ');
        out += prefix + digits;
    }
}

}  // namespace

extern "C" int _vsnwprintf(WCHAR *Buffer, size_t Count, const WCHAR *Format, va_list Args) {
    std::u16string out;
    va_list args;
    va_copy(args, Args);
    for (const WCHAR *p = Format; *p != 0; ++p) {
        if (*p != u'%') {
            out += *p;
            continue;
        }
        ++p;
        if (*p == u'%') {
            out += u'%';
            continue;
        }
        FieldFormat field;
        for (;; ++p) {
            if (*p == u'-') field.left = true;
            else if (*p == u'+') field.plus = true;
            else if (*p == u' ') field.space = true;
            else if (*p == u'#') field.alt = true;
            else if (*p == u'0') field.zero = true;
            else break;
        }
        if (*p == u'*') {
            field.width = va_arg(args, int);
            if (field.width < 0) {
                field.left = true;
                field.width = -field.width;
            }
            ++p;
        } else {
            while (*p >= u'0' && *p <= u'9') field.width = (field.width < 0 ? 0 : field.width * 10) + (*p++ - u'0');
        }
        if (*p == u'.') {
            ++p;
            field.precision = 0;
            if (*p == u'*') {
                field.precision = va_arg(args, int);
                ++p;
            } else {
                while (*p >= u'0' && *p <= u'9') field.precision = field.precision * 10 + (*p++ - u'0');
            }
        }
        enum { Default, Short, Long, Wide64 } size = Default;
        if (*p == u'h') {
            size = Short;
            ++p;
        } else if (*p == u'l' && p[1] == u'l') {
            size = Wide64;
            p += 2;
        } else if (*p == u'l' || *p == u'w') {
            size = Long;
            ++p;
        } else if (*p == u'I' && p[1] == u'6' && p[2] == u'4') {
            size = Wide64;
            p += 3;
        } else if (*p == u'I' && p[1] == u'3' && p[2] == u'2') {
            size = Long;
            p += 3;
        } else if (*p == u'I') {
            size = sizeof(void *) == 8 ? Wide64 : Long;
            ++p;
        }
        const WCHAR conv = *p;
        if (conv == 0) break;
        switch (conv) {
            case u'd':
            case u'i': {
                int64_t v = size == Wide64 ? va_arg(args, int64_t) : int64_t(va_arg(args, int));
                if (size == Short) v = int16_t(v);
                std::u16string prefix = v < 0 ? u"-" : field.plus ? u"+" : field.space ? u" " : u"";
                const uint64_t mag = v < 0 ? uint64_t(0) - uint64_t(v) : uint64_t(v);
                EmitNumber(out, field, Digits(mag, 10, false), prefix);
                break;
            }
            case u'u':
            case u'x':
            case u'X':
            case u'o': {
                uint64_t v = size == Wide64 ? va_arg(args, uint64_t) : uint64_t(va_arg(args, unsigned));
                if (size == Short) v = uint16_t(v);
                const unsigned base = conv == u'u' ? 10 : conv == u'o' ? 8 : 16;
                std::u16string prefix;
                if (field.alt && v != 0 && base == 16) prefix = conv == u'X' ? u"0X" : u"0x";
                if (field.alt && base == 8) prefix = u"0";
                EmitNumber(out, field, Digits(v, base, conv == u'X'), prefix);
                break;
            }
            case u'p': {
                const uintptr_t v = uintptr_t(va_arg(args, void *));
                std::u16string d = Digits(v, 16, true);
                d.insert(0, sizeof(void *) * 2 - d.size(), u'0');
                EmitText(out, field, d);
                break;
            }
            case u'c':
            case u'C': {
                const int v = va_arg(args, int);
                const bool narrow = conv == u'C' ? size != Long : size == Short;
                EmitText(out, field,
                         std::u16string(1, narrow ? hk::detail::AnsiToUnicode(uint8_t(v)) : char16_t(v)));
                break;
            }
            case u's':
            case u'S':
            case u'Z': {
                if (conv == u'Z') {
                    // A counted string: ANSI_STRING, or UNICODE_STRING with "w".
                    const void *s = va_arg(args, const void *);
                    std::u16string text;
                    if (s == nullptr) text = u"(null)";
                    else if (size == Long) text = hk::detail::FromUnicodeString(static_cast<PCUNICODE_STRING>(s));
                    else {
                        const auto *a = static_cast<PCANSI_STRING>(s);
                        for (USHORT i = 0; i < a->Length && a->Buffer; ++i)
                            text += hk::detail::AnsiToUnicode(uint8_t(a->Buffer[i]));
                    }
                    EmitText(out, field, text);
                    break;
                }
                const bool narrow = conv == u'S' ? size != Long : size == Short;
                std::u16string text;
                if (narrow) {
                    const char *s = va_arg(args, const char *);
                    if (s == nullptr) s = "(null)";
                    for (; *s != 0 && (field.precision < 0 || text.size() < size_t(field.precision)); ++s)
                        text += hk::detail::AnsiToUnicode(uint8_t(*s));
                } else {
                    const char16_t *s = va_arg(args, const char16_t *);
                    if (s == nullptr) s = u"(null)";
                    for (; *s != 0 && (field.precision < 0 || text.size() < size_t(field.precision)); ++s) text += *s;
                }
                EmitText(out, field, text);
                break;
            }
            default:
                // An unknown conversion is copied as it stands.
                out += conv;
                break;
        }
    }
    va_end(args);

    const size_t n = out.size();
    if (n > Count) {
        std::memcpy(Buffer, out.data(), Count * 2);
        return -1;
    }
    std::memcpy(Buffer, out.data(), n * 2);
    if (n < Count) Buffer[n] = 0;
    return int(n);
}
