// A message table as an image carries it: the host counterpart of the
// RT_MESSAGETABLE resource. Plain C layout, so that the generated table can
// live in the library image without any host headers.
#pragma once

#include <stdint.h>

struct HkMessageTableEntry {
    uint32_t Id;
    const char16_t *Text;  // CR LF line ends, as the message compiler stores them
};
