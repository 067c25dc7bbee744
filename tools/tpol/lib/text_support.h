// Counted UTF-16 texts and rule depths, as every format with a string header
// holds them: read from a source, written into a file, read back from a file
// and printed as source again. One set of rules for all formats, so that a
// text means the same in a monitor policy as in a protection policy.
#pragma once

#include "tpol.h"
#include "yaml_support.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tpol::detail {

// A text as the file holds it: UTF-16 units without the NUL, and the bytes
// it occupies (MaximumLength), which by default is the text and its NUL.
struct Text {
    std::u16string units;
    uint32_t max_length = 2;
    uint64_t at = 0;  // where the text stands in a file being read
};

// Where a format's string header keeps its two lengths; the text reference
// slot is never written.
struct StringHeaderOffsets {
    uint32_t length, maximum_length;
};

std::string Num(uint64_t value);

// ---- Sources ----

bool Utf8ToUtf16(const std::string &in, std::u16string &out);

// 'TEXT' or {text: 'TEXT', max_length: N}. A max_length below the text and
// its NUL is refused, except that `empty_without_nul` lets an empty text
// take a MaximumLength of 0, where the loader never looks at an empty text.
Text ReadText(const Source &source, const YAML::Node &node, const std::string &what, bool empty_without_nul = false);

// A list of texts under `key`; none when the key is absent.
std::vector<Text> ReadTexts(const Source &source, const YAML::Node &map, const char *key);

// A list under `key`, or an empty one when the key is absent.
YAML::Node Sequence(const Source &source, const YAML::Node &map, const char *key);

// A signed depth, or `any` for `any_value`.
int32_t ReadDepth(const Source &source, const YAML::Node &node, int32_t any_value);

// ---- Files ----

void PutStringHeader(Writer &out, size_t at, const Text &t, StringHeaderOffsets offsets);
// The units, the NUL, then zeros up to MaximumLength.
void PutText(Writer &out, const Text &t);

// ---- Printing ----

// A quoted YAML scalar; throws naming the offset of a unit no source can say.
std::string Quote(const Text &t);
// The quoted text, or {text: ..., max_length: N} when its MaximumLength is
// not the default.
std::string Item(const Text &t);
// [item, item, ...]
std::string TextList(const std::vector<Text> &texts);
std::string DepthText(int32_t depth, int32_t any_value);

}  // namespace tpol::detail
