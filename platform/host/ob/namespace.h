// The object manager's namespace as the I/O manager needs it: object
// directories, symbolic links and the device objects of volumes, looked up
// name by name from the root. Shared by ob/namespace.cpp and io/files.cpp.
#pragma once

#include "internal.h"

#include <memory>
#include <string>

namespace hk::detail {

struct Volume;  // io/files.cpp

// Where a name led.
struct NameLookup {
    enum class Kind { Directory, SymbolicLink, Device };
    Kind kind = Kind::Directory;
    void *link = nullptr;            // SymbolicLink: the registered link object
    std::shared_ptr<Volume> volume;  // Device
    // Device: the rest of the name once the device was reached, as its
    // parse routine sees it: empty (the device itself) or starting with '\'.
    std::u16string remainder;
};

// Looks an absolute name up from the root, substituting symbolic links
// wherever they occur except a link that is the last component when
// `open_link` is set (ZwOpenSymbolicLinkObject opens the link itself).
// Lookups stop at a device object, whose parse routine gets the remainder.
// Without `case_insensitive` every component must match exactly.
NTSTATUS LookupObjectName(const std::u16string &name, bool case_insensitive, bool open_link, NameLookup *out);

// Inserts a volume's device object, creating missing object directories;
// false if the name is taken or not absolute.
bool InsertDevice(const std::u16string &name, std::shared_ptr<Volume> volume);

// The object manager's checks on OBJECT_ATTRIBUTES before any lookup: the
// structure's size, the attribute bits, and a name of whole characters.
NTSTATUS CaptureObjectName(const OBJECT_ATTRIBUTES *attributes, std::u16string *name);

// The link target of a registered link object.
std::u16string SymbolicLinkTarget(void *link);

}  // namespace hk::detail
