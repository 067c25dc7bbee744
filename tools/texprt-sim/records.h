// The library's boundary records as scenarios describe them and as the
// runner prints them: shared by the event action and the call steps.
#pragma once

#include "sim.h"

#include <hk/ntkernel.h>

#include "rules/store.h"  // first: it sets up the library's export macros
#include "include/texprt.h"

namespace sim {

// The acting process's block: a fixed part of 32 bytes, then the two image
// paths, the security descriptor and the SID, unaligned. Held in 8-byte
// words so that the block is aligned as a pool block would be.
struct ActorBlock {
    std::vector<uint64_t> words;
    uint32_t size = 0;  // the size handed to the library
    // Room for a claimed size above the block's own, so that the library
    // reads the runner's zeros rather than past the block.
    void Cover(uint64_t bytes) {
        if (bytes > words.size() * 8) words.resize((bytes + 7) / 8, 0);
    }
};

// The fields an actor description takes; `size` is the event action's
// way to claim another size (a call step has ActorSize for that).
const std::vector<std::string> &ActorFields(bool with_size);
// Builds an actor block from a mapping of those fields (none of them
// required: pid 1000, tid 1004, image explorer.exe, no texts besides).
// `image` replaces the mapping's image when given.
ActorBlock BuildActor(const StepContext &c, const Argument *actor, const Argument *image, bool with_size);

// A whitelist state from {header, unknown_rule_seen, exempt: [w0, w1, w2, w3]}.
WhiteListState BuildWhiteListState(const StepContext &c, const Argument &given);
json WhiteListStateJson(const WhiteListState &state);

// A match verdict: hits (rule ids in the order first matched), every
// context, the operation masks, rule_flags and exclusion_seen.
json FilterResultJson(const FilterResult &result);

// A rule id from its text; an error names the argument.
void ParseRuleIdArg(const StepContext &c, const Argument &arg, ULONG (&id)[4]);

}  // namespace sim
