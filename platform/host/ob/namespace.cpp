// The object namespace: a tree of object directories holding symbolic links
// and device objects, walked name by name from the root the way the object
// manager parses a name. A symbolic link met on the way is replaced by its
// target and the walk starts over from the root; a device object ends the
// walk and hands the rest of the name to its parse routine (io/files.cpp).
//
// \?? is the system process's device map, which is \GLOBAL??, so the two
// names lead to one directory. \GLOBAL??\GLOBALROOT is the empty link that
// lets a DOS-device path reach back to the root, as on Windows.
#include "ob/namespace.h"

#include <hk/hk.h>

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace hk::detail {
namespace {

struct LinkObject {
    std::u16string target;
};

struct Node {
    NameLookup::Kind kind = NameLookup::Kind::Directory;
    std::vector<std::pair<std::u16string, std::shared_ptr<Node>>> children;  // Directory
    LinkObject *link = nullptr;                                             // SymbolicLink, one reference held
    std::shared_ptr<Volume> volume;                                         // Device

    Node() = default;
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;
    // The namespace's reference goes with the name; open handles keep the
    // link object itself alive, as for a temporary object on Windows.
    ~Node() {
        if (link != nullptr) ObjectDereference(link);
    }
};

// Names longer than this many reparses are a loop.
constexpr int kMaximumReparses = 32;

constexpr ULONG kValidObjectAttributes = 0x00001FF2;

std::shared_ptr<Node> NewLink(const std::u16string &target) {
    auto node = std::make_shared<Node>();
    node->kind = NameLookup::Kind::SymbolicLink;
    node->link = new LinkObject{target};
    ObjectCreated(node->link, ObjectKind::SymbolicLink, [](void *p) { delete static_cast<LinkObject *>(p); });
    return node;
}

std::shared_ptr<Node> NewDirectory() { return std::make_shared<Node>(); }

struct NamespaceState {
    std::mutex lock;
    std::shared_ptr<Node> root;

    void Boot() {
        root = NewDirectory();
        auto global = NewDirectory();
        global->children.emplace_back(u"GLOBALROOT", NewLink(u""));
        root->children.emplace_back(u"GLOBAL??", global);
        root->children.emplace_back(u"??", global);
        root->children.emplace_back(u"Device", NewDirectory());
    }
};

NamespaceState &State() {
    static NamespaceState *state = [] {
        auto *s = new NamespaceState;
        s->Boot();
        RegisterReset([s] {
            std::shared_ptr<Node> old;
            {
                std::lock_guard guard(s->lock);
                old = std::move(s->root);
                s->Boot();
            }
            // `old` and its links go here, outside the lock.
        });
        return s;
    }();
    return *state;
}

std::shared_ptr<Node> Child(const Node &directory, const std::u16string &name, bool case_insensitive) {
    for (auto &[child_name, child] : directory.children)
        if (case_insensitive ? NamesEqualInsensitive(child_name, name) : child_name == name) return child;
    return nullptr;
}

std::vector<std::u16string> Components(const std::u16string &name) {
    std::vector<std::u16string> parts;
    size_t start = 1;
    while (start <= name.size()) {
        size_t end = name.find(u'\\', start);
        if (end == std::u16string::npos) end = name.size();
        parts.push_back(name.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

// Finds (or with `create` makes) the directory that holds the last component
// of an absolute name, for the machine-model calls. Caller holds the lock.
Node *ParentOf(NamespaceState &state, const std::u16string &name, bool create, std::u16string *leaf) {
    if (name.size() < 2 || name[0] != u'\\') return nullptr;
    auto parts = Components(name);
    Node *directory = state.root.get();
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        if (parts[i].empty()) return nullptr;
        auto child = Child(*directory, parts[i], true);
        if (!child) {
            if (!create) return nullptr;
            child = NewDirectory();
            directory->children.emplace_back(parts[i], child);
        }
        if (child->kind != NameLookup::Kind::Directory) return nullptr;
        directory = child.get();
    }
    if (parts.back().empty()) return nullptr;
    *leaf = parts.back();
    return directory;
}

}  // namespace

NTSTATUS LookupObjectName(const std::u16string &name, bool case_insensitive, bool open_link, NameLookup *out) {
    auto &state = State();
    std::lock_guard guard(state.lock);
    std::u16string path = name;
    for (int reparse = 0;; ++reparse) {
        if (reparse > kMaximumReparses) return STATUS_OBJECT_PATH_NOT_FOUND;
        if (path.empty()) path = u"\\";  // GLOBALROOT with nothing after it
        if (path[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        std::shared_ptr<Node> node = state.root;
        size_t pos = 1;
        bool reparsed = false;
        while (!reparsed) {
            if (pos == path.size() && node == state.root) {
                out->kind = NameLookup::Kind::Directory;
                return STATUS_SUCCESS;
            }
            size_t end = path.find(u'\\', pos);
            const bool last = end == std::u16string::npos;
            if (last) end = path.size();
            const std::u16string component = path.substr(pos, end - pos);
            if (component.empty()) return STATUS_OBJECT_NAME_INVALID;
            auto child = Child(*node, component, case_insensitive);
            if (!child) return last ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
            switch (child->kind) {
            case NameLookup::Kind::Directory:
                if (last) {
                    out->kind = NameLookup::Kind::Directory;
                    return STATUS_SUCCESS;
                }
                node = child;
                pos = end + 1;
                break;
            case NameLookup::Kind::SymbolicLink:
                if (last && open_link) {
                    out->kind = NameLookup::Kind::SymbolicLink;
                    out->link = child->link;
                    return STATUS_SUCCESS;
                }
                path = child->link->target + path.substr(end);
                reparsed = true;
                break;
            case NameLookup::Kind::Device:
                out->kind = NameLookup::Kind::Device;
                out->volume = child->volume;
                out->remainder = path.substr(end);
                return STATUS_SUCCESS;
            }
        }
    }
}

bool InsertDevice(const std::u16string &name, std::shared_ptr<Volume> volume) {
    auto &state = State();
    std::lock_guard guard(state.lock);
    std::u16string leaf;
    Node *directory = ParentOf(state, name, true, &leaf);
    if (directory == nullptr || Child(*directory, leaf, true)) return false;
    auto node = std::make_shared<Node>();
    node->kind = NameLookup::Kind::Device;
    node->volume = std::move(volume);
    directory->children.emplace_back(leaf, node);
    return true;
}

std::u16string SymbolicLinkTarget(void *link) { return static_cast<LinkObject *>(link)->target; }

NTSTATUS CaptureObjectName(const OBJECT_ATTRIBUTES *attributes, std::u16string *name) {
    if (attributes == nullptr || attributes->Length != sizeof(OBJECT_ATTRIBUTES)) return STATUS_INVALID_PARAMETER;
    if (attributes->Attributes & ~kValidObjectAttributes) return STATUS_INVALID_PARAMETER;
    name->clear();
    const UNICODE_STRING *s = attributes->ObjectName;
    if (s == nullptr) return STATUS_SUCCESS;
    if ((s->Length & 1) || s->Length > s->MaximumLength || (s->Length && s->Buffer == nullptr))
        return STATUS_OBJECT_NAME_INVALID;
    *name = FromUnicodeString(s);
    return STATUS_SUCCESS;
}

}  // namespace hk::detail

using namespace hk::detail;

extern "C" {

NTSTATUS NTAPI ZwOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes) {
    CheckIrql(PASSIVE_LEVEL, "ZwOpenSymbolicLinkObject");
    if (LinkHandle == nullptr) return STATUS_INVALID_PARAMETER;
    *LinkHandle = nullptr;
    std::u16string name;
    NTSTATUS status = CaptureObjectName(ObjectAttributes, &name);
    if (!NT_SUCCESS(status)) return status;
    // Relative opens need an object directory handle, which nothing here
    // hands out; whatever handle was given is the wrong kind or no handle.
    if (ObjectAttributes->RootDirectory != nullptr) {
        HandleLookup(ObjectAttributes->RootDirectory, ObjectKind::Directory, &status);
        return NT_SUCCESS(status) ? STATUS_OBJECT_TYPE_MISMATCH : status;
    }
    if (name.empty()) return STATUS_OBJECT_NAME_INVALID;
    if (name[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    NameLookup found;
    status = LookupObjectName(name, ObjectAttributes->Attributes & OBJ_CASE_INSENSITIVE, true, &found);
    if (!NT_SUCCESS(status)) return status;
    // A device's parse routine refuses to produce anything but a file.
    if (found.kind != NameLookup::Kind::SymbolicLink) return STATUS_OBJECT_TYPE_MISMATCH;
    *LinkHandle = HandleCreate(found.link, ObjectKind::SymbolicLink, DesiredAccess);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget, PULONG ReturnedLength) {
    CheckIrql(PASSIVE_LEVEL, "ZwQuerySymbolicLinkObject");
    NTSTATUS status;
    void *link = HandleLookup(LinkHandle, ObjectKind::SymbolicLink, &status);
    if (link == nullptr) return status;
    if (LinkTarget == nullptr) return STATUS_INVALID_PARAMETER;
    const std::u16string target = SymbolicLinkTarget(link);
    const ULONG length = ULONG(target.size() * sizeof(WCHAR));
    // Link targets are kept with a terminating NUL. A caller that asks for
    // the returned length is given (and must have room for) the terminated
    // string; one that does not only needs room for the characters.
    const ULONG needed = ReturnedLength != nullptr ? length + sizeof(WCHAR) : length;
    if (ReturnedLength != nullptr) *ReturnedLength = needed;
    if (LinkTarget->MaximumLength < needed) return STATUS_BUFFER_TOO_SMALL;
    if (length) std::copy(target.begin(), target.end(), LinkTarget->Buffer);
    if (needed > length) LinkTarget->Buffer[target.size()] = 0;
    LinkTarget->Length = USHORT(length);
    return STATUS_SUCCESS;
}

}  // extern "C"

namespace hk {

void CreateSymbolicLink(const std::string &link_name, const std::string &target) {
    const std::u16string name = detail::ToU16(link_name);
    const std::u16string to = detail::ToU16(target);
    if (!to.empty() && to[0] != u'\\') {
        detail::Complain("CreateSymbolicLink: target of " + link_name + " is not an absolute name: " + target);
        return;
    }
    auto &state = State();
    std::shared_ptr<Node> replaced;
    std::lock_guard guard(state.lock);
    std::u16string leaf;
    Node *directory = ParentOf(state, name, true, &leaf);
    if (directory == nullptr) {
        detail::Complain("CreateSymbolicLink: cannot place a link named " + link_name);
        return;
    }
    for (auto &[child_name, child] : directory->children) {
        if (!detail::NamesEqualInsensitive(child_name, leaf)) continue;
        if (child->kind != NameLookup::Kind::SymbolicLink) {
            detail::Complain("CreateSymbolicLink: " + link_name + " names an object that is not a link");
            return;
        }
        replaced = std::exchange(child, NewLink(to));
        child_name = leaf;
        return;
    }
    directory->children.emplace_back(leaf, NewLink(to));
}

bool DeleteSymbolicLink(const std::string &link_name) {
    auto &state = State();
    std::shared_ptr<Node> removed;
    std::lock_guard guard(state.lock);
    std::u16string leaf;
    Node *directory = ParentOf(state, detail::ToU16(link_name), false, &leaf);
    if (directory == nullptr) return false;
    auto &children = directory->children;
    for (auto it = children.begin(); it != children.end(); ++it) {
        if (it->second->kind == NameLookup::Kind::SymbolicLink && detail::NamesEqualInsensitive(it->first, leaf)) {
            removed = std::move(it->second);
            children.erase(it);
            return true;
        }
    }
    return false;
}

}  // namespace hk
