// What the formats' walkers share (walk_support.h).
#include "walk_support.h"

namespace tpol::detail {

void ProveDump(const Bytes &binary, const std::string &text, uint32_t checksum_at) {
    const Bytes again = CompileText(text, "dump");
    if (again == binary) return;
    // The checksum differs whenever anything else does: the first other
    // difference is the one to name, and the checksum only if it is alone.
    size_t i = checksum_at + sizeof(uint32_t);
    while (i < again.size() && i < binary.size() && again[i] == binary[i]) ++i;
    if (i == again.size() && i == binary.size()) i = checksum_at;
    throw std::runtime_error("offset " + Hex(i) + ": the file holds " + (i < binary.size() ? Hex(binary[i]) : "no byte") +
                             " where a source can only put " + (i < again.size() ? Hex(again[i]) : "no byte") +
                             " (a reserved or unread field, a text reference slot or padding)");
}

}  // namespace tpol::detail
