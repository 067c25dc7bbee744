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

// An actor block as the library built it: the fixed part, the two texts,
// the security descriptor in hex and the SID as S-1-... text, each read
// only where it lies within `size`, the size the library gave with it; and
// `size_check`, which says whether that size is 32 plus the four lengths.
json ActorBlockJson(const ActorInformation *block, ULONG size);
// A process entry field by field: texts as text (null for none), times as
// text and ticks, the whitelist states' words, the flags by name, the
// ancestors, and the cached actor block. `brief`: the fields the table view
// shows.
json ProcessEntryJson(const ProcessEntry &entry, bool brief);
// What a handle refers to ({process_id} for a process); null for none.
json HandleJson(HANDLE handle);
// A self-relative security descriptor: its bytes in hex and its owner.
json DescriptorJson(const uint8_t *descriptor, size_t length);

}  // namespace sim
