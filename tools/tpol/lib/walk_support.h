// Walking a binary policy as its loader does, for `check` and for `dump` at
// once: the two commands must agree on what a file holds, so they share one
// walk, and differ only in what they do with a problem.
#pragma once

#include "text_support.h"
#include "tpol.h"
#include "yaml_support.h"

#include <string>
#include <vector>

namespace tpol::detail {

// Thrown after a finding that leaves the rest of a record unreadable.
struct Stop {};

// For `check` a walker gathers findings and goes on where it can; for `dump`
// it throws at the first problem, naming its offset.
class Walker {
public:
    std::vector<Finding> findings;

protected:
    Walker(const Bytes &bytes, bool dumping) : bytes_(bytes), in_{bytes}, dumping_(dumping) {}

    const Bytes &bytes_;
    Reader in_;
    bool dumping_;
    std::string past_;  // what a read that goes too far runs past

    uint32_t U32(uint64_t at) const { return in_.U32(at); }

    // The loader refuses it, or its layout cannot be followed: named by both commands.
    void Error(uint64_t at, const std::string &m) {
        if (dumping_) throw std::runtime_error("offset " + Hex(at) + ": " + m);
        findings.push_back({Finding::Error, at, m});
    }
    [[noreturn]] void Fatal(uint64_t at, const std::string &m) {
        Error(at, m);
        throw Stop{};
    }
    // The loader refuses it, yet a source can say it: check names it, dump prints it.
    void Refused(uint64_t at, const std::string &m) {
        if (!dumping_) findings.push_back({Finding::Error, at, m});
    }
    void Warn(uint64_t at, const std::string &m) {
        if (!dumping_) findings.push_back({Finding::Warning, at, m});
    }
    // The loader takes it, and no source says it.
    void Inexpressible(uint64_t at, const std::string &m) {
        if (dumping_) throw std::runtime_error("offset " + Hex(at) + ": " + m);
    }

    void Need(uint64_t at, uint64_t size, uint64_t limit, uint64_t blame, const std::string &what) {
        if (at > limit || size > limit - at) Fatal(blame, what + " runs past " + past_);
    }

    // A string header at `header` with its text at `text`. A loader that
    // looks at an empty text only when its Length is not 0 passes
    // `always_read` false, and such a text needs no NUL.
    Text String(uint64_t header, uint64_t text, uint64_t limit, StringHeaderOffsets offsets, bool always_read = true) {
        const uint64_t max_at = header + offsets.maximum_length;
        const uint32_t length = in_.U16(header + offsets.length), max = in_.U16(max_at);
        Need(text, max, limit, max_at, "MaximumLength " + Num(max));
        Text t;
        t.max_length = max;
        t.at = text;
        const uint32_t nul = (length + 1) & ~1u;  // the first whole character behind the text
        if (max < length)
            Error(max_at, "MaximumLength " + Num(max) + " is less than Length " + Num(length));
        else if ((always_read || length) && (max < nul + 2 || in_.U16(text + nul) != 0))
            Error(header, "the text of Length " + Num(length) + " has no NUL behind it within MaximumLength " + Num(max));
        if (length & 1) {
            Warn(header, "odd Length " + Num(length) + ": the text ends in half a character");
            Inexpressible(header, "odd Length " + Num(length) + " cannot be written as text");
        }
        for (uint32_t i = 0; i + 1 < std::min(length, max); i += 2) t.units += char16_t(in_.U16(text + i));
        return t;
    }
};

// A dump is proven by compiling its text again: what the walk does not keep
// (reserved words, text reference slots, padding) must be zero, as a writer
// leaves it. Throws naming the first offset where the two differ, the
// checksum at `checksum_at` only when nothing else does.
void ProveDump(const Bytes &binary, const std::string &text, uint32_t checksum_at);

}  // namespace tpol::detail
