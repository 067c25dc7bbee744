// The registry: a tree of keys with case-insensitive names, opened by full
// path (\REGISTRY\MACHINE\...) or relative to an open key, with values read
// through the information classes and overflow statuses Windows gives.
#include "internal.h"

#include <hk/hk.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>

namespace hk::detail {
namespace {

constexpr NTSTATUS kStatusKeyDeleted = NTSTATUS(0xC000017C);

struct Value {
    std::u16string name;
    RegistryValue value;
};

struct Key {
    std::u16string name;
    Key *parent = nullptr;
    std::vector<std::shared_ptr<Key>> children;
    std::vector<Value> values;
    bool deleted = false;
};

struct KeyObject {
    std::shared_ptr<Key> key;
};

struct RegistryState {
    std::recursive_mutex lock;
    std::shared_ptr<Key> root;
};

RegistryState &State() {
    static RegistryState *state = [] {
        auto *s = new RegistryState;
        s->root = std::make_shared<Key>();
        s->root->name = u"REGISTRY";
        RegisterReset([s] {
            std::lock_guard guard(s->lock);
            std::function<void(Key &)> mark = [&](Key &k) {
                k.deleted = true;
                for (auto &c : k.children) mark(*c);
            };
            for (auto &c : s->root->children) mark(*c);
            s->root->children.clear();
            s->root->values.clear();
        });
        return s;
    }();
    return *state;
}

std::vector<std::u16string> SplitPath(const std::u16string &path) {
    std::vector<std::u16string> parts;
    std::u16string part;
    for (char16_t c : path) {
        if (c == u'\\') {
            if (!part.empty()) parts.push_back(part);
            part.clear();
        } else {
            part += c;
        }
    }
    if (!part.empty()) parts.push_back(part);
    return parts;
}

std::shared_ptr<Key> Child(Key &key, const std::u16string &name) {
    for (auto &c : key.children)
        if (NamesEqualInsensitive(c->name, name)) return c;
    return nullptr;
}

Value *FindValue(Key &key, const std::u16string &name) {
    for (auto &v : key.values)
        if (NamesEqualInsensitive(v.name, name)) return &v;
    return nullptr;
}

// Resolves a path from a start key. With `create`, the last component may
// be made (its parent must exist). Caller holds the lock.
NTSTATUS Walk(std::shared_ptr<Key> start, const std::vector<std::u16string> &parts, bool create,
              std::shared_ptr<Key> *out, bool *created) {
    auto key = start;
    for (size_t i = 0; i < parts.size(); ++i) {
        auto next = Child(*key, parts[i]);
        if (!next) {
            if (!create || i + 1 != parts.size()) return STATUS_OBJECT_NAME_NOT_FOUND;
            next = std::make_shared<Key>();
            next->name = parts[i];
            next->parent = key.get();
            key->children.push_back(next);
            if (created) *created = true;
        }
        key = next;
    }
    *out = key;
    return STATUS_SUCCESS;
}

// Splits a full path such as \REGISTRY\MACHINE\X into the parts below the root.
bool RootedParts(const std::u16string &path, std::vector<std::u16string> *parts) {
    auto all = SplitPath(path);
    if (path.empty() || path[0] != u'\\' || all.empty() || !NamesEqualInsensitive(all[0], u"REGISTRY"))
        return false;
    parts->assign(all.begin() + 1, all.end());
    return true;
}

NTSTATUS Open(PHANDLE handle, POBJECT_ATTRIBUTES attributes, bool create, PULONG disposition) {
    CheckIrql(PASSIVE_LEVEL, create ? "ZwCreateKey" : "ZwOpenKey");
    if (handle == nullptr || attributes == nullptr) return STATUS_INVALID_PARAMETER;
    *handle = nullptr;
    auto &state = State();
    std::lock_guard guard(state.lock);
    std::shared_ptr<Key> start;
    std::vector<std::u16string> parts;
    const std::u16string name = FromUnicodeString(attributes->ObjectName);
    if (attributes->RootDirectory != nullptr) {
        NTSTATUS status;
        auto *object = static_cast<KeyObject *>(HandleLookup(attributes->RootDirectory, ObjectKind::Key, &status));
        if (object == nullptr) return status;
        if (object->key->deleted) return kStatusKeyDeleted;
        if (!name.empty() && name[0] == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        start = object->key;
        parts = SplitPath(name);
    } else {
        if (attributes->ObjectName == nullptr) return STATUS_OBJECT_PATH_SYNTAX_BAD;
        if (!RootedParts(name, &parts)) return STATUS_OBJECT_PATH_SYNTAX_BAD;
        start = state.root;
    }
    std::shared_ptr<Key> key;
    bool created = false;
    const NTSTATUS status = Walk(start, parts, create, &key, &created);
    if (!NT_SUCCESS(status)) return status;
    if (disposition) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    auto *object = new KeyObject{key};
    ObjectCreated(object, ObjectKind::Key, [](void *p) { delete static_cast<KeyObject *>(p); });
    *handle = HandleCreate(object, ObjectKind::Key, 0);
    ObjectDereference(object);  // the handle holds it now
    return STATUS_SUCCESS;
}

NTSTATUS KeyFromHandle(HANDLE handle, std::shared_ptr<Key> *key) {
    NTSTATUS status;
    auto *object = static_cast<KeyObject *>(HandleLookup(handle, ObjectKind::Key, &status));
    if (object == nullptr) return status;
    if (object->key->deleted) return kStatusKeyDeleted;
    *key = object->key;
    return STATUS_SUCCESS;
}

std::shared_ptr<Key> KeyAtPath(const std::string &path, bool create) {
    std::vector<std::u16string> parts;
    if (!RootedParts(ToU16(path), &parts)) return nullptr;
    auto &state = State();
    auto key = state.root;
    for (auto &part : parts) {
        auto next = Child(*key, part);
        if (!next) {
            if (!create) return nullptr;
            next = std::make_shared<Key>();
            next->name = part;
            next->parent = key.get();
            key->children.push_back(next);
        }
        key = next;
    }
    return key;
}

}  // namespace
}  // namespace hk::detail

using namespace hk::detail;

extern "C" {

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
    return Open(KeyHandle, ObjectAttributes, false, nullptr);
}

NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                           ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition) {
    return Open(KeyHandle, ObjectAttributes, true, Disposition);
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                               ULONG Length, PULONG ResultLength) {
    CheckIrql(PASSIVE_LEVEL, "ZwQueryValueKey");
    if (ResultLength == nullptr) return STATUS_INVALID_PARAMETER;
    auto &state = State();
    std::lock_guard guard(state.lock);
    std::shared_ptr<Key> key;
    NTSTATUS status = KeyFromHandle(KeyHandle, &key);
    if (!NT_SUCCESS(status)) return status;
    Value *value = FindValue(*key, FromUnicodeString(ValueName));
    if (value == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    const auto &data = value->value.data;
    const ULONG data_length = ULONG(data.size());
    const ULONG name_bytes = ULONG(value->name.size() * 2);
    auto *out = static_cast<PUCHAR>(KeyValueInformation);
    auto put = [&](ULONG offset, ULONG v) { std::memcpy(out + offset, &v, 4); };

    switch (KeyValueInformationClass) {
        case KeyValuePartialInformation: {
            constexpr ULONG fixed = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
            *ResultLength = fixed + data_length;
            if (Length < fixed) return STATUS_BUFFER_TOO_SMALL;
            put(0, 0);
            put(4, value->value.type);
            put(8, data_length);
            if (Length < fixed + data_length) return STATUS_BUFFER_OVERFLOW;
            if (data_length) std::memcpy(out + fixed, data.data(), data_length);
            return STATUS_SUCCESS;
        }
        case KeyValueBasicInformation: {
            constexpr ULONG fixed = offsetof(KEY_VALUE_BASIC_INFORMATION, Name);
            *ResultLength = fixed + name_bytes;
            if (Length < fixed) return STATUS_BUFFER_TOO_SMALL;
            put(0, 0);
            put(4, value->value.type);
            put(8, name_bytes);
            if (Length < fixed + name_bytes) return STATUS_BUFFER_OVERFLOW;
            std::memcpy(out + fixed, value->name.data(), name_bytes);
            return STATUS_SUCCESS;
        }
        case KeyValueFullInformation: {
            constexpr ULONG fixed = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
            const ULONG data_offset = (fixed + name_bytes + 7) & ~7u;
            *ResultLength = data_offset + data_length;
            if (Length < fixed) return STATUS_BUFFER_TOO_SMALL;
            put(0, 0);
            put(4, value->value.type);
            put(8, data_offset);
            put(12, data_length);
            put(16, name_bytes);
            if (Length < data_offset + data_length) return STATUS_BUFFER_OVERFLOW;
            std::memcpy(out + fixed, value->name.data(), name_bytes);
            if (data_length) std::memcpy(out + data_offset, data.data(), data_length);
            return STATUS_SUCCESS;
        }
    }
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                             ULONG DataSize) {
    CheckIrql(PASSIVE_LEVEL, "ZwSetValueKey");
    auto &state = State();
    std::lock_guard guard(state.lock);
    std::shared_ptr<Key> key;
    NTSTATUS status = KeyFromHandle(KeyHandle, &key);
    if (!NT_SUCCESS(status)) return status;
    hk::RegistryValue v;
    v.type = Type;
    v.data.assign(static_cast<PUCHAR>(Data), static_cast<PUCHAR>(Data) + DataSize);
    const std::u16string name = FromUnicodeString(ValueName);
    if (Value *existing = FindValue(*key, name)) existing->value = v;
    else key->values.push_back({name, v});
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName) {
    CheckIrql(PASSIVE_LEVEL, "ZwDeleteValueKey");
    auto &state = State();
    std::lock_guard guard(state.lock);
    std::shared_ptr<Key> key;
    NTSTATUS status = KeyFromHandle(KeyHandle, &key);
    if (!NT_SUCCESS(status)) return status;
    const std::u16string name = FromUnicodeString(ValueName);
    auto it = std::find_if(key->values.begin(), key->values.end(),
                           [&](const Value &v) { return NamesEqualInsensitive(v.name, name); });
    if (it == key->values.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    key->values.erase(it);
    return STATUS_SUCCESS;
}

}  // extern "C"

namespace hk {

void RegistryCreateKey(const std::string &path) {
    std::lock_guard guard(State().lock);
    KeyAtPath(path, true);
}

bool RegistryDeleteKey(const std::string &path) {
    std::lock_guard guard(State().lock);
    auto key = KeyAtPath(path, false);
    if (!key || key->parent == nullptr) return false;
    std::function<void(Key &)> mark = [&](Key &k) {
        k.deleted = true;
        for (auto &c : k.children) mark(*c);
    };
    mark(*key);
    auto &siblings = key->parent->children;
    siblings.erase(std::remove(siblings.begin(), siblings.end(), key), siblings.end());
    return true;
}

bool RegistryKeyExists(const std::string &path) {
    std::lock_guard guard(State().lock);
    return KeyAtPath(path, false) != nullptr;
}

void RegistrySetValue(const std::string &path, const std::string &name, const RegistryValue &value) {
    std::lock_guard guard(State().lock);
    auto key = KeyAtPath(path, true);
    if (!key) {
        Complain("RegistrySetValue: not a registry path: " + path);
        return;
    }
    if (Value *existing = FindValue(*key, ToU16(name))) existing->value = value;
    else key->values.push_back({ToU16(name), value});
}

void RegistrySetDword(const std::string &path, const std::string &name, uint32_t value) {
    RegistryValue v{REG_DWORD, std::vector<uint8_t>(4)};
    std::memcpy(v.data.data(), &value, 4);
    RegistrySetValue(path, name, v);
}

void RegistrySetQword(const std::string &path, const std::string &name, uint64_t value) {
    RegistryValue v{REG_QWORD, std::vector<uint8_t>(8)};
    std::memcpy(v.data.data(), &value, 8);
    RegistrySetValue(path, name, v);
}

void RegistrySetString(const std::string &path, const std::string &name, const std::string &utf8, uint32_t type) {
    std::u16string text = ToU16(utf8);
    text.push_back(0);
    RegistryValue v{type, std::vector<uint8_t>(text.size() * 2)};
    std::memcpy(v.data.data(), text.data(), v.data.size());
    RegistrySetValue(path, name, v);
}

bool RegistryDeleteValue(const std::string &path, const std::string &name) {
    std::lock_guard guard(State().lock);
    auto key = KeyAtPath(path, false);
    if (!key) return false;
    const std::u16string n = ToU16(name);
    auto it = std::find_if(key->values.begin(), key->values.end(),
                           [&](const Value &v) { return NamesEqualInsensitive(v.name, n); });
    if (it == key->values.end()) return false;
    key->values.erase(it);
    return true;
}

std::optional<RegistryValue> RegistryGetValue(const std::string &path, const std::string &name) {
    std::lock_guard guard(State().lock);
    auto key = KeyAtPath(path, false);
    if (!key) return std::nullopt;
    if (Value *v = FindValue(*key, ToU16(name))) return v->value;
    return std::nullopt;
}

std::vector<std::string> RegistrySubkeys(const std::string &path) {
    std::lock_guard guard(State().lock);
    std::vector<std::string> out;
    if (auto key = KeyAtPath(path, false))
        for (auto &c : key->children) out.push_back(ToUtf8(c->name));
    return out;
}

std::vector<std::string> RegistryValueNames(const std::string &path) {
    std::lock_guard guard(State().lock);
    std::vector<std::string> out;
    if (auto key = KeyAtPath(path, false))
        for (auto &v : key->values) out.push_back(ToUtf8(v.name));
    return out;
}

}  // namespace hk
