// The file system run-time library's name routines: splitting a path into
// its first component and the rest, spotting wildcards, and matching a name
// against a wildcard expression with the rules the file systems apply to
// directory queries (including the DOS forms <, > and ").
#include "internal.h"

#include <memory>

using hk::detail::CheckIrql;

namespace {

constexpr WCHAR kBackslash = u'\\';
constexpr WCHAR kPeriod = u'.';

bool IsWildcard(WCHAR c) { return c == u'*' || c == u'?' || c == DOS_STAR || c == DOS_QM || c == DOS_DOT; }

// The kernel looks for wildcards from the end of the text back to the last
// backslash only: a pattern is the final component of a path, and what comes
// before it names directories. Callers that hand over a whole text with
// backslashes in it see wildcards in earlier components ignored.
bool FinalComponentHasWildcards(const WCHAR *text, size_t length) {
    for (size_t i = length; i-- > 0;) {
        if (text[i] == kBackslash) return false;
        if (IsWildcard(text[i])) return true;
    }
    return false;
}

// A name character as the comparison sees it. With IgnoreCase the caller has
// already upcased the expression, so only the name is folded here; a
// lowercase letter left in the expression then never matches a letter.
struct NameReader {
    const WCHAR *text;
    bool ignore_case;
    const WCHAR *upcase_table;  // null: the system's table
    WCHAR operator[](size_t i) const {
        const WCHAR c = text[i];
        if (!ignore_case) return c;
        return upcase_table != nullptr ? upcase_table[c] : hk::detail::UpcaseChar(c);
    }
};

// "*X" with no wildcard in X's final component is by far the most common
// query after "*" itself, and the kernel answers it by comparing the name's
// tail with X. X is compared literally even where it holds a wildcard before
// a backslash, which is what that check overlooks; matching that keeps the
// host's answers the kernel's for path-like expressions too.
bool TailEquals(const NameReader &name, size_t name_length, const WCHAR *tail, size_t tail_length) {
    if (name_length < tail_length) return false;
    const size_t start = name_length - tail_length;
    for (size_t i = 0; i < tail_length; ++i)
        if (name[start + i] != tail[i]) return false;
    return true;
}

// The expression as a nondeterministic automaton whose states are positions
// in the expression (0: nothing matched yet; the length: all of it). The walk
// keeps the set of live positions before each name character and computes
// the set after it, so no input makes it backtrack: time is bounded by name
// length times expression length, memory by two rows of positions.
//
// From position p, with the next name character c:
//   *          stays at p consuming c, or moves on without consuming.
//   ?          consumes any c.
//   DOS_STAR   like *, except that the name's last period can only be the
//              last character of its run: there it either moves on without
//              consuming, so that "<.txt" sees the extension after the final
//              period, or consumes the period and moves on at once. That is
//              how Windows answers: "ab<exe" takes "ab.exe" and "abcd.exe",
//              "a<" takes "a." but not "a.b".
//   DOS_QM     consumes any c but a period; at a period or the end of the
//              name it moves on without consuming, so a run of them matches
//              up to as many characters as it has.
//   DOS_DOT    consumes a period, or moves on at the end of the name.
//   otherwise  consumes c when it is the same character.
// Moving on past the expression's last character while c waits takes c as
// well: Windows counts the expression used up on that character. Only a run
// of DOS_QM at a period shows it (every other move on has consumed c
// already), and only on the name's last character, since nothing leaves the
// end position: "a>" and ">>" take "a.", ">" takes ".", but ">" not "a.".
// The name matches when, with all of it consumed, the end position is live.
class ExpressionWalk {
public:
    ExpressionWalk(const WCHAR *expression, size_t expression_length, const NameReader &name, size_t name_length)
        : expression_(expression), length_(expression_length), name_(name), name_length_(name_length) {
        last_period_ = name_length;
        for (size_t i = name_length; i-- > 0;) {
            if (name_.text[i] == kPeriod) {
                last_period_ = i;
                break;
            }
        }
    }

    bool Run() {
        // Positions fit 16 bits: a counted string holds at most 32767
        // characters. Short expressions, the usual case, keep both rows on
        // the stack.
        const size_t capacity = length_ + 1;
        uint16_t inline_rows[2 * kInlinePositions];
        std::unique_ptr<uint16_t[]> heap_rows;
        uint16_t *rows = inline_rows;
        if (capacity > kInlinePositions) {
            heap_rows.reset(new uint16_t[2 * capacity]);
            rows = heap_rows.get();
        }
        uint16_t *live = rows, *after = rows + capacity;
        size_t live_count = 1;
        live[0] = 0;

        for (size_t i = 0; i < name_length_; ++i) {
            const WCHAR c = name_[i];
            const bool final_period = c == kPeriod && i == last_period_;
            size_t after_count = 0;
            size_t expanded = 0;  // positions below this were reached already
            for (size_t k = 0; k < live_count; ++k) {
                size_t p = live[k];
                if (p < expanded) continue;
                const size_t from = p;
                // Positions come in increasing order and each moves to itself
                // or the next one, so the new row stays sorted and a
                // duplicate can only be the entry just written.
                for (; p < length_; ++p) {
                    const WCHAR x = expression_[p];
                    size_t target = kNoTarget;
                    bool moves_on = false;
                    switch (x) {
                    case u'*':
                        target = p;
                        moves_on = true;
                        break;
                    case DOS_STAR:
                        target = final_period ? p + 1 : p;
                        moves_on = true;
                        break;
                    case u'?':
                        target = p + 1;
                        break;
                    case DOS_QM:
                        if (c == kPeriod) moves_on = true;
                        else target = p + 1;
                        break;
                    case DOS_DOT:
                        if (c == kPeriod) target = p + 1;
                        break;
                    default:
                        if (c == x) target = p + 1;
                        break;
                    }
                    if (target != kNoTarget && (after_count == 0 || after[after_count - 1] != target))
                        after[after_count++] = uint16_t(target);
                    if (!moves_on) break;
                }
                // Moved on past the last character with c still waiting: the
                // end position takes c too. It is the highest position, so
                // the row stays sorted.
                if (p == length_ && from < length_ && (after_count == 0 || after[after_count - 1] != length_))
                    after[after_count++] = uint16_t(length_);
                expanded = p + 1;
            }
            if (after_count == 0) return false;
            uint16_t *swap = live;
            live = after;
            after = swap;
            live_count = after_count;
        }

        // The name is used up: what is left of the expression must be able
        // to match nothing.
        for (size_t k = 0; k < live_count; ++k) {
            size_t p = live[k];
            while (p < length_ && MatchesNothingAtEnd(expression_[p])) ++p;
            if (p == length_) return true;
        }
        return false;
    }

private:
    static constexpr size_t kInlinePositions = 128;
    static constexpr size_t kNoTarget = ~size_t(0);

    static bool MatchesNothingAtEnd(WCHAR x) { return x == u'*' || x == DOS_STAR || x == DOS_QM || x == DOS_DOT; }

    const WCHAR *expression_;
    size_t length_;
    const NameReader &name_;
    size_t name_length_;
    size_t last_period_;
};

}  // namespace

extern "C" {

// The first component of a path and the rest after its separator, both
// pointing into the caller's buffer. One leading backslash is skipped
// before the first name; any further backslash ends it at once, so "\\a" gives an
// empty first name and "a" as the rest. When a separator follows the first
// name the rest starts just past it, even if nothing follows (a trailing
// backslash gives an empty rest there); with no separator the rest stays the
// empty string it was cleared to.
VOID NTAPI FsRtlDissectName(UNICODE_STRING Path, PUNICODE_STRING FirstName, PUNICODE_STRING RemainingName) {
    CheckIrql(PASSIVE_LEVEL, "FsRtlDissectName");
    *FirstName = UNICODE_STRING{0, 0, nullptr};
    *RemainingName = UNICODE_STRING{0, 0, nullptr};
    const size_t length = Path.Length / sizeof(WCHAR);
    if (length == 0) return;

    const size_t first = Path.Buffer[0] == kBackslash ? 1 : 0;
    size_t end = first;
    while (end < length && Path.Buffer[end] != kBackslash) ++end;

    FirstName->Buffer = Path.Buffer + first;
    FirstName->Length = FirstName->MaximumLength = USHORT((end - first) * sizeof(WCHAR));
    if (end < length) {
        RemainingName->Buffer = Path.Buffer + end + 1;
        RemainingName->Length = RemainingName->MaximumLength = USHORT((length - end - 1) * sizeof(WCHAR));
    }
}

BOOLEAN NTAPI FsRtlDoesNameContainWildCards(PUNICODE_STRING Name) {
    CheckIrql(PASSIVE_LEVEL, "FsRtlDoesNameContainWildCards");
    return FinalComponentHasWildcards(Name->Buffer, Name->Length / sizeof(WCHAR));
}

BOOLEAN NTAPI FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name, BOOLEAN IgnoreCase,
                                      PWCH UpcaseTable) {
    CheckIrql(PASSIVE_LEVEL, "FsRtlIsNameInExpression");
    const size_t expression_length = Expression->Length / sizeof(WCHAR);
    const size_t name_length = Name->Length / sizeof(WCHAR);
    // Two empty strings match; otherwise an empty one matches nothing, not
    // even "*".
    if (expression_length == 0 || name_length == 0) return expression_length == 0 && name_length == 0;

    const WCHAR *expression = Expression->Buffer;
    const NameReader name{Name->Buffer, IgnoreCase != FALSE, UpcaseTable};
    if (expression[0] == u'*') {
        if (expression_length == 1) return TRUE;
        if (!FinalComponentHasWildcards(expression + 1, expression_length - 1))
            return TailEquals(name, name_length, expression + 1, expression_length - 1);
    }
    return ExpressionWalk(expression, expression_length, name, name_length).Run();
}

}  // extern "C"
