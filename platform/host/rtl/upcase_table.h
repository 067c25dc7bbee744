#pragma once

#include <cstddef>
#include <cstdint>

namespace hk::detail {

struct UpcaseRun {
    uint16_t first;  // first code point of the run
    uint16_t count;  // code points in the run
    uint8_t step;    // distance between the run's code points (1 or 2)
    int32_t delta;   // uppercase = code point + delta
};

extern const UpcaseRun kUpcaseRuns[];
extern const size_t kUpcaseRunCount;

}  // namespace hk::detail
