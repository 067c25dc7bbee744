// The object manager's part that hostkernel needs: reference counts on
// kernel objects and the kernel handle table. Handles are encoded as Windows
// encodes kernel handles (the high bit of a 32-bit handle set, multiples of
// 4) and are never reused, so that a stale handle is caught rather than
// finding someone else's object. Objects and handles outlive hk::Reset, so
// that a leaked handle or reference shows up in OpenHandleCount afterwards.
#include "ke/dispatcher.h"

namespace hk::detail {
namespace {

struct ObjectEntry {
    ObjectKind kind;
    long references;
    std::function<void(void *)> destroy;
};

struct HandleEntry {
    void *object = nullptr;
    ObjectKind kind = ObjectKind::Thread;
    ACCESS_MASK access = 0;
    std::function<void()> on_close;
    bool referenced = false;  // false when the object was unknown at open
};

struct ObState {
    std::mutex lock;
    std::unordered_map<void *, ObjectEntry> objects;
    std::unordered_map<ULONG_PTR, HandleEntry> handles;
    ULONG_PTR next_handle = 1;
};

// Never freed: threads may drop references while the process exits.
ObState &Ob() {
    static ObState *state = new ObState;
    return *state;
}

// Kernel handles are sign-extended 32-bit values with bit 31 set.
constexpr ULONG_PTR kKernelHandleBit = ULONG_PTR(intptr_t(INT32_MIN));
const HANDLE kCurrentProcess = reinterpret_cast<HANDLE>(intptr_t(-1));
const HANDLE kCurrentThread = reinterpret_cast<HANDLE>(intptr_t(-2));

// Takes a reference with the lock held; false when the object is unknown.
bool ReferenceLocked(ObState &ob, void *object) {
    auto it = ob.objects.find(object);
    if (it == ob.objects.end()) return false;
    ++it->second.references;
    return true;
}

}  // namespace

const char *ObjectKindName(ObjectKind kind) {
    switch (kind) {
    case ObjectKind::Thread: return "Thread";
    case ObjectKind::Process: return "Process";
    case ObjectKind::Token: return "Token";
    case ObjectKind::Key: return "Key";
    case ObjectKind::File: return "File";
    case ObjectKind::SymbolicLink: return "SymbolicLink";
    case ObjectKind::Directory: return "Directory";
    case ObjectKind::Event: return "Event";
    case ObjectKind::Device: return "Device";
    case ObjectKind::Driver: return "Driver";
    }
    return "?";
}

void ObjectCreated(void *object, ObjectKind kind, std::function<void(void *)> destroy) {
    ObState &ob = Ob();
    std::lock_guard guard(ob.lock);
    auto [it, inserted] = ob.objects.try_emplace(object, ObjectEntry{kind, 1, std::move(destroy)});
    if (!inserted)
        Complainf("%s object %p created at the address of a live %s object", ObjectKindName(kind), object,
                  ObjectKindName(it->second.kind));
}

long ObjectReference(void *object) {
    ObState &ob = Ob();
    std::lock_guard guard(ob.lock);
    auto it = ob.objects.find(object);
    if (it == ob.objects.end()) {
        Complainf("reference to %p, which is not a live object", object);
        return 0;
    }
    return ++it->second.references;
}

long ObjectDereference(void *object) {
    ObState &ob = Ob();
    std::function<void(void *)> destroy;
    {
        std::lock_guard guard(ob.lock);
        auto it = ob.objects.find(object);
        if (it == ob.objects.end()) {
            Complainf("dereference of %p, which is not a live object", object);
            return 0;
        }
        if (--it->second.references > 0) return it->second.references;
        destroy = std::move(it->second.destroy);
        ob.objects.erase(it);
    }
    // Outside the lock: destroying may close handles or drop other references.
    if (destroy) destroy(object);
    return 0;
}

bool ObjectTryReference(void *object) {
    ObState &ob = Ob();
    std::lock_guard guard(ob.lock);
    return ReferenceLocked(ob, object);
}

bool ObjectKnown(void *object, ObjectKind *kind) {
    ObState &ob = Ob();
    std::lock_guard guard(ob.lock);
    auto it = ob.objects.find(object);
    if (it == ob.objects.end()) return false;
    if (kind != nullptr) *kind = it->second.kind;
    return true;
}

HANDLE HandleCreate(void *object, ObjectKind kind, ACCESS_MASK access, std::function<void()> on_close) {
    ObState &ob = Ob();
    std::lock_guard guard(ob.lock);
    auto it = ob.objects.find(object);
    bool referenced = false;
    if (it == ob.objects.end()) {
        Complainf("handle opened to %p, which is not a live %s object", object, ObjectKindName(kind));
    } else {
        if (it->second.kind != kind)
            Complainf("handle opened to %s object %p as a %s", ObjectKindName(it->second.kind), object,
                      ObjectKindName(kind));
        ++it->second.references;
        referenced = true;
    }
    const ULONG_PTR value = kKernelHandleBit | (ob.next_handle++ * 4);
    ob.handles.emplace(value, HandleEntry{object, kind, access, std::move(on_close), referenced});
    return reinterpret_cast<HANDLE>(value);
}

void *HandleLookup(HANDLE handle, ObjectKind kind, NTSTATUS *status) {
    ObState &ob = Ob();
    std::lock_guard guard(ob.lock);
    auto it = ob.handles.find(reinterpret_cast<ULONG_PTR>(handle));
    NTSTATUS result = STATUS_SUCCESS;
    void *object = nullptr;
    if (it == ob.handles.end())
        result = STATUS_INVALID_HANDLE;
    else if (it->second.kind != kind)
        result = STATUS_OBJECT_TYPE_MISMATCH;
    else
        object = it->second.object;
    if (status != nullptr) *status = result;
    return object;
}

size_t OpenHandleCount() {
    ObState &ob = Ob();
    std::lock_guard guard(ob.lock);
    return ob.handles.size();
}

}  // namespace hk::detail

using namespace hk::detail;

namespace {

// What ObReferenceObjectByHandle writes to HandleInformation.
struct ObjectHandleInformation {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
};

bool KindOfType(POBJECT_TYPE type, ObjectKind *kind) {
    if (type == *PsThreadType) *kind = ObjectKind::Thread;
    else if (type == *PsProcessType) *kind = ObjectKind::Process;
    else return false;
    return true;
}

}  // namespace

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                         KPROCESSOR_MODE AccessMode, PVOID *Object, PVOID HandleInformation) {
    CheckIrql(PASSIVE_LEVEL, "ObReferenceObjectByHandle");
    *Object = nullptr;
    void *object;
    ObjectKind kind;
    ACCESS_MASK granted;
    // The pseudo-handles NtCurrentProcess() and NtCurrentThread().
    if (Handle == kCurrentProcess || Handle == kCurrentThread) {
        object = Handle == kCurrentThread ? static_cast<void *>(KeGetCurrentThread())
                                          : static_cast<void *>(PsGetCurrentProcess());
        kind = Handle == kCurrentThread ? ObjectKind::Thread : ObjectKind::Process;
        granted = Handle == kCurrentThread ? THREAD_ALL_ACCESS : 0x1FFFFF;
    } else {
        ObState &ob = Ob();
        std::lock_guard guard(ob.lock);
        auto it = ob.handles.find(reinterpret_cast<ULONG_PTR>(Handle));
        if (it == ob.handles.end()) return STATUS_INVALID_HANDLE;
        object = it->second.object;
        kind = it->second.kind;
        granted = it->second.access;
    }
    ObjectKind wanted;
    if (ObjectType != nullptr && (!KindOfType(ObjectType, &wanted) || wanted != kind))
        return STATUS_OBJECT_TYPE_MISMATCH;
    // Kernel-mode callers are not access-checked, as on Windows.
    if (AccessMode == UserMode && (DesiredAccess & ~granted) != 0) return STATUS_ACCESS_DENIED;
    {
        ObState &ob = Ob();
        std::lock_guard guard(ob.lock);
        if (!ReferenceLocked(ob, object)) return STATUS_INVALID_HANDLE;
    }
    if (HandleInformation != nullptr) {
        auto *information = static_cast<ObjectHandleInformation *>(HandleInformation);
        information->HandleAttributes = 0;
        information->GrantedAccess = granted;
    }
    *Object = object;
    return STATUS_SUCCESS;
}

LONG_PTR FASTCALL ObfReferenceObject(PVOID Object) {
    CheckIrql(DISPATCH_LEVEL, "ObfReferenceObject");
    return ObjectReference(Object);
}

LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object) {
    CheckIrql(DISPATCH_LEVEL, "ObfDereferenceObject");
    return ObjectDereference(Object);
}

NTSTATUS NTAPI ZwClose(HANDLE Handle) {
    CheckIrql(PASSIVE_LEVEL, "ZwClose");
    ObState &ob = Ob();
    HandleEntry entry;
    {
        std::lock_guard guard(ob.lock);
        auto it = ob.handles.find(reinterpret_cast<ULONG_PTR>(Handle));
        if (it == ob.handles.end()) {
            // INVALID_KERNEL_HANDLE on Windows.
            Complainf("ZwClose: %p is not an open handle", Handle);
            return STATUS_INVALID_HANDLE;
        }
        entry = std::move(it->second);
        ob.handles.erase(it);
    }
    if (entry.on_close) entry.on_close();
    if (entry.referenced) ObjectDereference(entry.object);
    return STATUS_SUCCESS;
}
