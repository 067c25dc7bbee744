// The I/O error log: packets are captured as the system's error log thread
// receives them, and rendered with the registered message tables the way
// the event viewer shows them.
#include "internal.h"

#include <hk/hk.h>

#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <unordered_map>

namespace hk::detail {
namespace {

constexpr ULONG kErrorLogTag = hk::MakeTag("IoEr");

struct PendingPacket {
    size_t size;
    std::string source;
};

struct ErrorLogState {
    std::mutex lock;
    std::unordered_map<const void *, PendingPacket> pending;
    std::vector<EventLogEntry> log;
    std::map<std::string, std::map<uint32_t, std::u16string>> tables;
    std::list<std::pair<DRIVER_OBJECT *, std::u16string>> drivers;
};

ErrorLogState &State() {
    static ErrorLogState *state = [] {
        auto *s = new ErrorLogState;
        RegisterReset([s] {
            std::lock_guard guard(s->lock);
            s->log.clear();
            for (auto &[driver, name] : s->drivers) delete driver;
            s->drivers.clear();
        });
        return s;
    }();
    return *state;
}

std::string SourceOf(PVOID io_object) {
    const auto *device = static_cast<const DEVICE_OBJECT *>(io_object);
    const DRIVER_OBJECT *driver = nullptr;
    if (device->Type == IO_TYPE_DEVICE) driver = device->DriverObject;
    else if (device->Type == IO_TYPE_DRIVER) driver = static_cast<const DRIVER_OBJECT *>(io_object);
    if (driver == nullptr) return {};
    std::u16string name = FromUnicodeString(&driver->DriverName);
    const size_t slash = name.rfind(u'\\');
    return ToUtf8(slash == std::u16string::npos ? name : name.substr(slash + 1));
}

}  // namespace
}  // namespace hk::detail

using namespace hk::detail;

extern "C" {

PVOID NTAPI IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize) {
    CheckIrql(DISPATCH_LEVEL, "IoAllocateErrorLogEntry");
    if (IoObject == nullptr) return nullptr;
    if (EntrySize > ERROR_LOG_MAXIMUM_SIZE || EntrySize < sizeof(IO_ERROR_LOG_PACKET)) return nullptr;
    void *packet = PoolAllocate(NonPagedPoolNx, EntrySize, kErrorLogTag);
    if (packet == nullptr) return nullptr;
    auto &state = State();
    std::lock_guard guard(state.lock);
    state.pending[packet] = {EntrySize, SourceOf(IoObject)};
    return packet;
}

VOID NTAPI IoFreeErrorLogEntry(PVOID ElEntry) {
    auto &state = State();
    {
        std::lock_guard guard(state.lock);
        if (!state.pending.erase(ElEntry)) {
            Complain("IoFreeErrorLogEntry of a packet that IoAllocateErrorLogEntry did not give");
            return;
        }
    }
    PoolFree(ElEntry, kErrorLogTag, "IoFreeErrorLogEntry");
}

VOID NTAPI IoWriteErrorLogEntry(PVOID ElEntry) {
    CheckIrql(DISPATCH_LEVEL, "IoWriteErrorLogEntry");
    auto &state = State();
    PendingPacket pending;
    {
        std::lock_guard guard(state.lock);
        auto it = state.pending.find(ElEntry);
        if (it == state.pending.end()) {
            Complain("IoWriteErrorLogEntry of a packet that IoAllocateErrorLogEntry did not give");
            return;
        }
        pending = it->second;
        state.pending.erase(it);
    }
    const auto *packet = static_cast<const IO_ERROR_LOG_PACKET *>(ElEntry);
    const auto *bytes = static_cast<const uint8_t *>(ElEntry);
    hk::EventLogEntry entry;
    entry.id = uint32_t(packet->ErrorCode);
    entry.final_status = packet->FinalStatus;
    entry.number_of_strings = packet->NumberOfStrings;
    entry.string_offset = packet->StringOffset;
    entry.dump_data_size = packet->DumpDataSize;
    entry.packet.assign(bytes, bytes + pending.size);
    entry.source = pending.source;
    // The log takes as many strings as the packet claims, as far as the
    // packet reaches.
    size_t offset = packet->StringOffset;
    for (USHORT i = 0; i < packet->NumberOfStrings && offset + 2 <= pending.size; ++i) {
        std::u16string s;
        while (offset + 2 <= pending.size) {
            char16_t c;
            std::memcpy(&c, bytes + offset, 2);
            offset += 2;
            if (c == 0) break;
            s += c;
        }
        entry.strings.push_back(s);
    }
    entry.text = hk::RenderMessage(entry.id, entry.strings, entry.source);
    PoolFree(ElEntry, kErrorLogTag, "IoWriteErrorLogEntry");
    std::lock_guard guard(state.lock);
    state.log.push_back(std::move(entry));
}

}  // extern "C"

namespace hk {

PDRIVER_OBJECT CreateDriverObject(const std::string &name) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    auto *driver = new DRIVER_OBJECT{};
    driver->Type = IO_TYPE_DRIVER;
    driver->Size = sizeof(DRIVER_OBJECT);
    state.drivers.emplace_back(driver, detail::ToU16(name));
    auto &text = state.drivers.back().second;
    driver->DriverName.Buffer = text.data();
    driver->DriverName.Length = USHORT(text.size() * 2);
    driver->DriverName.MaximumLength = USHORT(text.size() * 2);
    return driver;
}

void RegisterMessageTable(const std::string &source, const MessageTableEntry *entries, size_t count) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    auto &table = state.tables[source];
    for (size_t i = 0; i < count; ++i) table[entries[i].Id] = entries[i].Text;
}

std::optional<std::u16string> MessageText(uint32_t id) {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    for (auto &[source, table] : state.tables) {
        auto it = table.find(id);
        if (it != table.end()) return it->second;
    }
    return std::nullopt;
}

std::string RenderMessage(uint32_t id, const std::vector<std::u16string> &strings, const std::string &source) {
    auto text = MessageText(id);
    if (!text) {
        char buf[128];
        std::snprintf(buf, sizeof buf, "The description for Event ID 0x%08X from source %s cannot be found.", id,
                      source.c_str());
        return buf;
    }
    const std::u16string &t = *text;
    std::u16string out;
    for (size_t i = 0; i < t.size(); ++i) {
        if (t[i] != u'%' || i + 1 >= t.size()) {
            out += t[i];
            continue;
        }
        const char16_t c = t[++i];
        if (c == u'0') break;  // ends the message with no line break
        if (c >= u'1' && c <= u'9') {
            int n = c - u'0';
            if (i + 1 < t.size() && t[i + 1] >= u'0' && t[i + 1] <= u'9') n = n * 10 + (t[++i] - u'0');
            // A printf-style format after the number ("%2!s!") is skipped.
            if (i + 1 < t.size() && t[i + 1] == u'!') {
                const size_t end = t.find(u'!', i + 2);
                if (end != std::u16string::npos) i = end;
            }
            if (n == 1) out += detail::ToU16(source);
            else if (size_t(n - 2) < strings.size()) out += strings[n - 2];
            else out += u"%" + detail::ToU16(std::to_string(n));
            continue;
        }
        switch (c) {
            case u'n': out += u"\r\n"; break;
            case u'r': out += u"\r"; break;
            case u't': out += u"\t"; break;
            case u'b': out += u" "; break;
            default: out += c; break;  // %% %. %! and the like
        }
    }
    return detail::ToUtf8(out);
}

std::vector<EventLogEntry> EventLog() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    return state.log;
}

void ClearEventLog() {
    auto &state = detail::State();
    std::lock_guard guard(state.lock);
    state.log.clear();
}

}  // namespace hk
