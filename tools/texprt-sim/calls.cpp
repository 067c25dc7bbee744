// Call steps: one for every export in include/texprt_exports.inc, built
// from the export's type in include/texprt.h and its parameter names in the
// list. A scenario names each argument after its parameter (PrefixLength:
// prefix_length), and a converter chosen by the parameter's C type turns
// the argument into the value passed. A parameter type without a converter
// does not compile, so a new export cannot bind an argument by guesswork.
//
//   - call: TcTFeInitializeFileObject
//     args: {object: f1, name: '\Device\HarddiskVolume2\a.txt', prefix_length: 46,
//            object_type: 0x1, attributes: 0, size_low: 0, size_high: 0}
//     expect: {status: STATUS_SUCCESS, result: {f1: {Name: '\DEVICE\HARDDISKVOLUME2\A.TXT'}}}
#include "records.h"

#include "tools/tpol/lib/tpol.h"

#include <algorithm>
#include <tuple>
#include <type_traits>
#include <utility>

namespace sim {

namespace {

// ---------------------------------------------------------------- parameters

enum class Unit { Elements, Bytes };

// Count and size parameters that only restate the length of a list
// argument of the same export: left out, they take that length.
struct Restatement {
    std::string_view count, list;
    Unit unit;
};
constexpr Restatement kRestatements[] = {
    {"StringCount", "Strings", Unit::Elements},
    {"DumpSize", "DumpData", Unit::Bytes},
    {"ActorSize", "Actor", Unit::Bytes},
    {"Size", "Entries", Unit::Bytes},
};

// Pointer parameters that texprt.h lets a monitor pass as null: left out,
// they are null.
constexpr std::string_view kMayBeLeftOut[] = {
    "IoObject", "Strings", "DumpData", "ValueName", "RemoteAddress", "CommandLine", "ParentImagePath",
};

// Byte strings the library reads a fixed number of bytes from.
struct FixedBytes {
    std::string_view name;
    size_t bytes;
    const char *what;
};
constexpr FixedBytes kFixedBytes[] = {
    {"Digest", 32, "a SHA-256 digest: 64 hexadecimal digits"},
};

struct Parameter {
    std::string c_name;  // as texprt.h spells it
    std::string name;    // as a scenario spells it
    std::optional<size_t> restates;  // the list whose length this restates
    Unit unit = Unit::Elements;
    bool may_be_left_out = false;
};

// The names in "DriverObject, Preferred".
constexpr size_t CountNames(std::string_view list) {
    size_t count = 0;
    bool in_name = false;
    for (char c : list) {
        if (c == ',') in_name = false;
        else if (c != ' ' && c != '\t' && !in_name) {
            in_name = true;
            ++count;
        }
    }
    return count;
}

std::vector<std::string> SplitNames(std::string_view list) {
    std::vector<std::string> names;
    std::string current;
    for (char c : list) {
        if (c == ',') {
            names.push_back(current);
            current.clear();
        } else if (c != ' ' && c != '\t') {
            current += c;
        }
    }
    if (!current.empty()) names.push_back(current);
    return names;
}

template <typename Fn>
struct Arity;
template <typename R, typename... A>
struct Arity<R(A...)> : std::integral_constant<size_t, sizeof...(A)> {};

// ---------------------------------------------------------------- bound arguments

struct Call;

// One argument as the call passes it, with the memory it lives in until
// the call returns.
struct Bound {
    virtual ~Bound() = default;
    // A list's length, for a count or size parameter that restates it.
    virtual uint64_t Length(Unit) const { return 0; }
    // A count or size claimed above the list's own length: the list grows
    // with zeros, so that the library reads the runner's memory, not past it.
    virtual void Cover(uint64_t, Unit) {}
    // A number's value, for the claim above.
    virtual std::optional<uint64_t> Count() const { return std::nullopt; }
    // What the library wrote into it, printed after the call (and what it
    // handed out through it, freed once printed, as a monitor frees it).
    virtual void Report(Call &, json &) {}
};

template <typename T>
struct BoundAs : Bound {
    virtual T Pass() = 0;
};

// A value that needs no memory of its own (a handle, a null pointer).
template <typename T>
struct Fixed : BoundAs<T> {
    T value;
    explicit Fixed(T v) : value(v) {}
    T Pass() override { return value; }
};

template <typename T>
struct Integer : Fixed<T> {
    using Fixed<T>::Fixed;
    std::optional<uint64_t> Count() const override { return uint64_t(this->value); }
};

// What a call step is working on: the step and the arguments bound so far,
// by parameter position.
struct Call {
    StepContext &step;
    const std::vector<Parameter> &parameters;
    std::vector<Bound *> bound;
    std::string_view export_name;

    // The argument bound to another parameter of the same export.
    Bound *Sibling(std::string_view c_name) const {
        for (size_t i = 0; i < parameters.size(); ++i)
            if (parameters[i].c_name == c_name) return bound[i];
        return nullptr;
    }
};

// ---------------------------------------------------------------- converters
//
// Converter<T> binds a parameter of C type T:
//   kWhat                        what the argument is, for messages
//   From(call, parameter, arg)   from a given argument that is not null
//   Default(call, parameter)     when left out (only where documented)
//   FromLength(call, p, n)       a number restating a list's length
//   HasDefault(parameter)        whether Default serves this parameter (when
//                                Default serves only some of a type's)
//   Check(parameter)             refuses, when the step table is built, a
//                                parameter whose name it cannot bind
// An explicit null is a null pointer for every pointer type, before any
// converter is asked.

template <typename T>
struct Converter;  // deliberately undefined: see above

template <typename T, uint64_t Maximum>
struct UnsignedConverter {
    static std::unique_ptr<BoundAs<T>> From(Call &call, const Parameter &, const Argument &arg) {
        return std::make_unique<Integer<T>>(T(call.step.NumberOf(arg, Maximum)));
    }
    static std::unique_ptr<BoundAs<T>> FromLength(Call &call, const Parameter &p, uint64_t length) {
        if (length > Maximum)
            call.step.Error(p.name + " would be " + std::to_string(length) + ", more than it can hold");
        return std::make_unique<Integer<T>>(T(length));
    }
};

// UCHAR and BOOLEAN are one type.
template <>
struct Converter<UCHAR> : UnsignedConverter<UCHAR, 0xFF> {
    static constexpr const char *kWhat = "a number from 0 to 0xFF, or true/false";
};
template <>
struct Converter<USHORT> : UnsignedConverter<USHORT, 0xFFFF> {
    static constexpr const char *kWhat = "a number from 0 to 0xFFFF";
};
template <>
struct Converter<ULONG> : UnsignedConverter<ULONG, 0xFFFFFFFF> {
    static constexpr const char *kWhat = "a number from 0 to 0xFFFFFFFF";
};
template <>
struct Converter<NTSTATUS> {
    static constexpr const char *kWhat = "a status code such as 0xC0000001";
    static std::unique_ptr<BoundAs<NTSTATUS>> From(Call &call, const Parameter &, const Argument &arg) {
        return std::make_unique<Fixed<NTSTATUS>>(NTSTATUS(uint32_t(call.step.SignedOf(arg, INT32_MIN, UINT32_MAX))));
    }
};

// A counted string over the argument's text.
template <typename T>
struct CountedText : BoundAs<T> {
    std::u16string text;
    UNICODE_STRING string{};
    T Pass() override {
        string.Length = USHORT(text.size() * 2);
        string.MaximumLength = USHORT(text.size() * 2);
        string.Buffer = text.data();
        return &string;
    }
};

template <typename T>
struct TextConverter {
    static constexpr const char *kWhat = "text";
    static std::unique_ptr<BoundAs<T>> From(Call &call, const Parameter &p, const Argument &arg) {
        auto bound = std::make_unique<CountedText<T>>();
        bound->text = hk::Utf16(call.step.TextOf(arg));
        if (bound->text.size() * 2 > 0xFFFF) call.step.ErrorAt(arg, p.name + " is longer than a counted string holds");
        return bound;
    }
};
template <>
struct Converter<PCUNICODE_STRING> : TextConverter<PCUNICODE_STRING> {};
template <>
struct Converter<PUNICODE_STRING> : TextConverter<PUNICODE_STRING> {};

template <>
struct Converter<PCSZ> {
    static constexpr const char *kWhat = "text";
    struct Narrow : BoundAs<PCSZ> {
        std::string text;
        PCSZ Pass() override { return text.c_str(); }
    };
    static std::unique_ptr<BoundAs<PCSZ>> From(Call &call, const Parameter &, const Argument &arg) {
        auto bound = std::make_unique<Narrow>();
        bound->text = call.step.TextOf(arg);
        return bound;
    }
};

// Insertion strings: a list of text, where null is an empty slot.
template <>
struct Converter<PCWSTR *> {
    static constexpr const char *kWhat = "a list of text (null for an empty slot)";
    struct Slots : BoundAs<PCWSTR *> {
        std::vector<std::optional<std::u16string>> texts;
        size_t given = 0;
        std::vector<PCWSTR> slots;
        uint64_t Length(Unit) const override { return given; }
        void Cover(uint64_t count, Unit) override {
            if (count > texts.size()) texts.resize(count);
        }
        PCWSTR *Pass() override {
            slots.assign(std::max<size_t>(texts.size(), 1), nullptr);
            for (size_t i = 0; i < texts.size(); ++i)
                if (texts[i]) slots[i] = texts[i]->c_str();
            return slots.data();
        }
    };
    static std::unique_ptr<BoundAs<PCWSTR *>> From(Call &call, const Parameter &p, const Argument &arg) {
        if (!arg.value.IsSequence()) call.step.ErrorAt(arg, p.name + " is " + kWhat);
        auto bound = std::make_unique<Slots>();
        for (size_t i = 0; i < arg.value.size(); ++i) {
            const Argument entry{p.name + "[" + std::to_string(i) + "]", arg.value[i], arg.value[i]};
            if (entry.IsNull()) bound->texts.emplace_back();
            else bound->texts.emplace_back(hk::Utf16(call.step.TextOf(entry)));
        }
        bound->given = bound->texts.size();
        return bound;
    }
};

// Bytes in hexadecimal; never an empty buffer, so that an empty list is
// still a pointer.
template <typename T>
struct ByteList : BoundAs<T> {
    std::vector<uint8_t> bytes;
    size_t given = 0;
    uint64_t Length(Unit) const override { return given; }
    void Cover(uint64_t count, Unit) override {
        if (count > bytes.size()) bytes.resize(count, 0);
    }
    T Pass() override {
        if (bytes.empty()) bytes.resize(1, 0);
        return bytes.data();
    }
};

template <>
struct Converter<const UCHAR *> {
    static constexpr const char *kWhat = "bytes in hexadecimal";
    static const FixedBytes *KnownLength(const Parameter &p) {
        for (const auto &f : kFixedBytes)
            if (f.name == p.c_name) return &f;
        return nullptr;
    }
    static void Check(const Parameter &p) {
        if (KnownLength(p) == nullptr)
            throw std::logic_error(p.c_name + ": a byte string whose length the runner does not know (kFixedBytes)");
    }
    static std::unique_ptr<BoundAs<const UCHAR *>> From(Call &call, const Parameter &p, const Argument &arg) {
        auto bound = std::make_unique<ByteList<const UCHAR *>>();
        bound->bytes = call.step.HexOf(arg);
        bound->given = bound->bytes.size();
        if (bound->bytes.size() != KnownLength(p)->bytes)
            call.step.ErrorAt(arg, p.name + " is " + KnownLength(p)->what);
        return bound;
    }
};

template <>
struct Converter<PDRIVER_OBJECT> {
    static constexpr const char *kWhat = "a driver name (system-monitor, network-monitor, or any other)";
    static std::unique_ptr<BoundAs<PDRIVER_OBJECT>> From(Call &call, const Parameter &, const Argument &arg) {
        return std::make_unique<Fixed<PDRIVER_OBJECT>>(call.step.machine.Driver(call.step.TextOf(arg)));
    }
};

template <>
struct Converter<PFLT_FILTER> {
    static constexpr const char *kWhat = "a filter name (any name stands for one minifilter handle)";
    static std::unique_ptr<BoundAs<PFLT_FILTER>> From(Call &call, const Parameter &, const Argument &arg) {
        return std::make_unique<Fixed<PFLT_FILTER>>(call.step.machine.Filter(call.step.TextOf(arg)));
    }
};

// An untyped pointer means what its parameter's name says: the I/O object
// that names an event log entry's source, dump data, a handle, or a buffer
// the library fills. HANDLE is the same type.
enum class Untyped { IoObject, DumpData, Handle, TokenStatistics, Times };
struct UntypedName {
    std::string_view name;
    Untyped kind;
};
constexpr UntypedName kUntyped[] = {
    {"IoObject", Untyped::IoObject},  {"DumpData", Untyped::DumpData},
    {"Process", Untyped::Handle},     {"Token", Untyped::Handle},
    {"Statistics", Untyped::TokenStatistics}, {"Times", Untyped::Times},
};

// A buffer the library fills, of the size it writes, zero-filled; printed
// after the call by what it holds.
template <typename Record>
struct FilledBuffer : BoundAs<PVOID> {
    std::string name;
    Record record{};
    json (*print)(const Record &) = nullptr;
    PVOID Pass() override { return &record; }
    void Report(Call &, json &result) override { result[name] = print(record); }
};

json TokenStatisticsJson(const TOKEN_STATISTICS &s) {
    auto luid = [](const LUID &l) { return HexText((uint64_t(uint32_t(l.HighPart)) << 32) | l.LowPart, 1); };
    json out;
    out["TokenId"] = luid(s.TokenId);
    out["AuthenticationId"] = luid(s.AuthenticationId);
    out["ExpirationTime"] = s.ExpirationTime.QuadPart;
    out["TokenType"] = s.TokenType == TokenPrimary ? json("primary") : json(int(s.TokenType));
    out["ImpersonationLevel"] = int(s.ImpersonationLevel);
    out["DynamicCharged"] = s.DynamicCharged;
    out["DynamicAvailable"] = s.DynamicAvailable;
    out["GroupCount"] = s.GroupCount;
    out["PrivilegeCount"] = s.PrivilegeCount;
    out["ModifiedId"] = luid(s.ModifiedId);
    return out;
}

json TimesJson(const KERNEL_USER_TIMES &t) {
    json out;
    out["CreateTime"] = TimeJson(t.CreateTime.QuadPart);
    out["ExitTime"] = TimeJson(t.ExitTime.QuadPart);
    out["KernelTime"] = t.KernelTime.QuadPart;
    out["UserTime"] = t.UserTime.QuadPart;
    return out;
}

// A handle for this call only, opened by the runner and closed after it.
struct OwnHandle : BoundAs<PVOID> {
    std::vector<HANDLE> opened;  // the process's, then its token's
    HANDLE handle = nullptr;
    ~OwnHandle() override {
        for (HANDLE h : opened) ZwClose(h);
    }
    PVOID Pass() override { return handle; }
};

template <>
struct Converter<PVOID> {
    static constexpr const char *kWhat =
        "a driver name (io objects), bytes in hexadecimal (dump data), a handle (the name of a kept one, "
        "{process_handle: PID} or {token_handle: PID}), or left out for a buffer the library fills";
    static const UntypedName *KindOf(const Parameter &p) {
        for (const auto &u : kUntyped)
            if (u.name == p.c_name) return &u;
        return nullptr;
    }
    static void Check(const Parameter &p) {
        if (KindOf(p) == nullptr)
            throw std::logic_error(p.c_name + ": an untyped pointer the runner cannot bind by its name (kUntyped)");
    }
    static bool HasDefault(const Parameter &p) {
        return KindOf(p)->kind == Untyped::TokenStatistics || KindOf(p)->kind == Untyped::Times;
    }
    static std::unique_ptr<BoundAs<PVOID>> Default(Call &, const Parameter &p) {
        if (KindOf(p)->kind == Untyped::TokenStatistics) {
            auto bound = std::make_unique<FilledBuffer<TOKEN_STATISTICS>>();
            bound->name = p.c_name;
            bound->print = TokenStatisticsJson;
            return bound;
        }
        auto bound = std::make_unique<FilledBuffer<KERNEL_USER_TIMES>>();
        bound->name = p.c_name;
        bound->print = TimesJson;
        return bound;
    }
    static std::unique_ptr<BoundAs<PVOID>> From(Call &call, const Parameter &p, const Argument &arg) {
        switch (KindOf(p)->kind) {
            case Untyped::IoObject:
                return std::make_unique<Fixed<PVOID>>(call.step.machine.Driver(call.step.TextOf(arg)));
            case Untyped::DumpData: {
                auto bound = std::make_unique<ByteList<PVOID>>();
                bound->bytes = call.step.HexOf(arg);
                bound->given = bound->bytes.size();
                return bound;
            }
            case Untyped::Handle:
                return HandleFrom(call, p, arg);
            case Untyped::TokenStatistics:
            case Untyped::Times:
                break;
        }
        call.step.ErrorAt(arg, p.name + " is the runner's own buffer, printed after the call: leave it out, or give null");
    }

    // A kept handle by name, or one opened for this call: {process_handle:
    // PID} opens the process, {token_handle: PID} its primary token.
    static std::unique_ptr<BoundAs<PVOID>> HandleFrom(Call &call, const Parameter &p, const Argument &arg) {
        StepContext &c = call.step;
        if (arg.value.IsScalar() && ToJson(arg.value).is_string()) {
            const std::string name = c.TextOf(arg);
            if (!c.machine.HasHandle(name))
                c.ErrorAt(arg, "no handle named '" + name + "' (keep: on OpenProcess or open_thread names one; " +
                                   p.name + ": {process_handle: PID} or {token_handle: PID} opens one for this call)");
            return std::make_unique<Fixed<PVOID>>(c.machine.Handle(name));
        }
        if (!arg.value.IsMap() || arg.value.size() != 1)
            c.ErrorAt(arg, p.name + " is the name of a kept handle, {process_handle: PID} or {token_handle: PID}");
        const auto fields = c.FieldsOf(arg, {"process_handle", "token_handle"});
        const Argument &given = fields.begin()->second;
        const uint32_t pid = uint32_t(c.NumberOf(given, 0xFFFFFFFF));
        auto bound = std::make_unique<OwnHandle>();
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        CLIENT_ID client{reinterpret_cast<HANDLE>(ULONG_PTR(pid)), nullptr};
        HANDLE process = nullptr;
        NTSTATUS status = ZwOpenProcess(&process, PROCESS_ALL_ACCESS, &attributes, &client);
        if (!NT_SUCCESS(status))
            c.ErrorAt(given, "process " + std::to_string(pid) + " cannot be opened: " + StatusText(status));
        bound->opened.push_back(process);
        bound->handle = process;
        if (fields.begin()->first == "token_handle") {
            HANDLE token = nullptr;
            status = ZwOpenProcessTokenEx(process, TOKEN_READ, OBJ_KERNEL_HANDLE, &token);
            if (!NT_SUCCESS(status))
                c.ErrorAt(given, "the token of process " + std::to_string(pid) + " cannot be opened: " + StatusText(status));
            bound->opened.push_back(token);
            bound->handle = token;
        }
        return bound;
    }
};

// ULONGs the library reads or writes through a pointer: a process id it
// reads (null: the current process), a length it reads and writes, and
// values it only writes. Those it writes are printed after the call under
// their C names.
enum class Direction { In, InOut, Out };
struct UlongPointer {
    std::string_view name;
    Direction direction;
};
constexpr UlongPointer kUlongPointers[] = {
    {"ProcessId", Direction::In},        {"Length", Direction::InOut},     {"SecurityInformation", Direction::Out},
    {"Size", Direction::Out},            {"Virtualization", Direction::Out}, {"Elevation", Direction::Out},
    {"ElevationType", Direction::Out},
};

struct UlongSlot : BoundAs<PULONG> {
    std::string name;
    ULONG value = 0;
    bool printed = false;
    PULONG Pass() override { return &value; }
    void Report(Call &, json &result) override {
        if (printed) result[name] = value;
    }
};

template <>
struct Converter<PULONG> {
    static constexpr const char *kWhat = "a number (the ULONG the pointer points at), or null";
    static const UlongPointer *KindOf(const Parameter &p) {
        for (const auto &u : kUlongPointers)
            if (u.name == p.c_name) return &u;
        return nullptr;
    }
    static void Check(const Parameter &p) {
        if (KindOf(p) == nullptr)
            throw std::logic_error(p.c_name + ": a ULONG pointer the runner does not know the use of (kUlongPointers)");
    }
    // What the library only writes starts at 0 unless the scenario says.
    static bool HasDefault(const Parameter &p) { return KindOf(p)->direction == Direction::Out; }
    static std::unique_ptr<BoundAs<PULONG>> Make(const Parameter &p, ULONG value) {
        auto bound = std::make_unique<UlongSlot>();
        bound->name = p.c_name;
        bound->value = value;
        bound->printed = KindOf(p)->direction != Direction::In;
        return bound;
    }
    static std::unique_ptr<BoundAs<PULONG>> Default(Call &, const Parameter &p) { return Make(p, 0); }
    static std::unique_ptr<BoundAs<PULONG>> From(Call &call, const Parameter &p, const Argument &arg) {
        return Make(p, ULONG(call.step.NumberOf(arg, 0xFFFFFFFF)));
    }
};

// A pool block the library hands out through a pointer, printed and then
// freed as a monitor frees it, with ExFreePoolWithTag(block, 0).
template <typename T>
struct HandedOut : BoundAs<T **> {
    T *block = nullptr;
    T **Pass() override { return &block; }
    void Free() {
        if (block != nullptr) ExFreePoolWithTag(block, 0);
        block = nullptr;
    }
};

// The integrity level: a TOKEN_MANDATORY_LABEL in pool, or left as it was.
template <>
struct Converter<PVOID *> {
    static constexpr const char *kWhat = "left out (the runner's own pointer, printed after the call) or null";
    struct Label : HandedOut<VOID> {
        std::string name;
        void Report(Call &, json &result) override {
            if (block == nullptr) {
                result[name] = nullptr;
                return;
            }
            const auto *label = static_cast<const TOKEN_MANDATORY_LABEL *>(block);
            const auto *sid = static_cast<const uint8_t *>(label->Label.Sid);
            result[name] = {{"Sid", SidText(sid, sid != nullptr ? 8 + size_t(sid[1]) * 4 : 0)},
                            {"Attributes", HexText(label->Label.Attributes)}};
            Free();
        }
    };
    static void Check(const Parameter &p) {
        if (p.c_name != "IntegrityLevel")
            throw std::logic_error(p.c_name + ": a pointer to a pointer the runner does not know the use of");
    }
    static std::unique_ptr<BoundAs<PVOID *>> Default(Call &, const Parameter &p) {
        auto bound = std::make_unique<Label>();
        bound->name = p.c_name;
        return bound;
    }
    static std::unique_ptr<BoundAs<PVOID *>> From(Call &call, const Parameter &p, const Argument &arg) {
        call.step.ErrorAt(arg, p.name + " is the runner's own pointer, printed after the call: leave it out, or give null");
    }
};

// An actor block the library builds for the caller: printed with the size
// it came with, then freed.
template <>
struct Converter<ActorInformation **> {
    static constexpr const char *kWhat = "left out (the runner's own pointer, printed after the call) or null";
    struct Block : HandedOut<ActorInformation> {
        void Report(Call &call, json &result) override {
            const auto *size = dynamic_cast<const UlongSlot *>(call.Sibling("Size"));
            result["Actor"] = ActorBlockJson(block, size != nullptr ? size->value : 0);
            Free();
        }
    };
    static std::unique_ptr<BoundAs<ActorInformation **>> Default(Call &, const Parameter &) {
        return std::make_unique<Block>();
    }
    static std::unique_ptr<BoundAs<ActorInformation **>> From(Call &call, const Parameter &p, const Argument &arg) {
        call.step.ErrorAt(arg, p.name + " is the runner's own pointer, printed after the call: leave it out, or give null");
    }
};

// The entry the library hands out with a reference taken: printed field by
// field, counted as the scenario's reference, and named by keep:.
void ReportEntry(Call &call, const ProcessEntry *entry, const char *field, json &result) {
    if (entry == nullptr) {
        result[field] = nullptr;
        return;
    }
    result[field] = ProcessEntryJson(*entry, false);
    call.step.machine.EntryHandedOut(entry, entry->ProcessId, call.step.keep);
}

template <>
struct Converter<ProcessEntry **> {
    static constexpr const char *kWhat = "left out (the runner's own pointer, printed after the call) or null";
    struct Slot : BoundAs<ProcessEntry **> {
        ProcessEntry *entry = nullptr;
        ProcessEntry **Pass() override { return &entry; }
        void Report(Call &call, json &result) override { ReportEntry(call, entry, "Entry", result); }
    };
    static std::unique_ptr<BoundAs<ProcessEntry **>> Default(Call &, const Parameter &) {
        return std::make_unique<Slot>();
    }
    static std::unique_ptr<BoundAs<ProcessEntry **>> From(Call &call, const Parameter &p, const Argument &arg) {
        call.step.ErrorAt(arg, p.name + " is the runner's own pointer, printed after the call: leave it out, or give null");
    }
};

// The app-blocking verdict: the runner's own zero-filled record, printed
// field by field after the call.
template <>
struct Converter<AppBlockingResult *> {
    static constexpr const char *kWhat = "left out (the runner's own record) or null";
    struct Record : BoundAs<AppBlockingResult *> {
        AppBlockingResult record{};
        AppBlockingResult *Pass() override { return &record; }
        void Report(Call &, json &result) override {
            result["Matched"] = record.Matched;
            result["RuleSeen"] = record.RuleSeen;
            result["PolicyTag"] = HexText(record.PolicyTag);
            result["RuleId"] = tpol::RuleIdText(reinterpret_cast<const uint8_t *>(record.RuleId));
            result["Reserved"] = record.Reserved;
        }
    };
    static std::unique_ptr<BoundAs<AppBlockingResult *>> Default(Call &, const Parameter &) {
        return std::make_unique<Record>();
    }
    static std::unique_ptr<BoundAs<AppBlockingResult *>> From(Call &call, const Parameter &p, const Argument &arg) {
        call.step.ErrorAt(arg, p.name + " is the runner's own record, printed after the call: leave it out, or give null");
    }
};

// ---------------------------------------------------------------- named objects

json NameText(const UNICODE_STRING &s) {
    return s.Buffer != nullptr ? json(hk::Utf8(std::u16string(s.Buffer, s.Length / 2))) : json(nullptr);
}

json EventInfoJson(const EventInfo &e, const Machine &machine) {
    json out;
    out["EventTime"] = e.EventTime;
    out["ActorInfoSize"] = e.ActorInfoSize;
    // Which block the object points at, not where: file, registry and
    // system objects borrow the caller's, process and network objects copy it.
    out["ActorInfo"] = e.ActorInfo == nullptr          ? json(nullptr)
                       : machine.IsKept(e.ActorInfo) ? json("the caller's block")
                                                       : json("the library's copy");
    return out;
}

template <typename T>
struct Record;  // the name and the printed form of each kind of named object

template <>
struct Record<FileObject> {
    static constexpr const char *kType = "FileObject";
    static json Describe(const FileObject &o, const Machine &m) {
        json out;
        out["Name"] = NameText(o.Name);
        out["ObjectType"] = HexText(o.ObjectType, 2);
        out["Attributes"] = HexText(o.Attributes);
        out["Size"] = o.Size;
        out["EventInfo"] = EventInfoJson(o.EventInfo, m);
        out["Operation"] = HexText(o.Operation, 4);
        // The prefix is a view of Name; once the name is freed it points at
        // freed memory and only its length is shown.
        const bool readable = o.VolumePrefix.Buffer != nullptr && o.VolumePrefix.Buffer == o.Name.Buffer &&
                              o.VolumePrefix.Length <= o.Name.MaximumLength;
        out["VolumePrefix"] = {{"Length", o.VolumePrefix.Length},
                               {"Text", readable ? NameText(o.VolumePrefix) : json(nullptr)}};
        return out;
    }
};

template <>
struct Record<RegistryObject> {
    static constexpr const char *kType = "RegistryObject";
    static json Describe(const RegistryObject &o, const Machine &m) {
        json out;
        out["KeyName"] = NameText(o.KeyName);
        out["ValueName"] = NameText(o.ValueName);
        out["ObjectType"] = HexText(o.ObjectType, 2);
        out["EventInfo"] = EventInfoJson(o.EventInfo, m);
        out["Operation"] = HexText(o.Operation, 4);
        return out;
    }
};

template <>
struct Record<ProcessObject> {
    static constexpr const char *kType = "ProcessObject";
    static json Describe(const ProcessObject &o, const Machine &m) {
        json out;
        out["Name"] = NameText(o.Name);
        out["ObjectType"] = HexText(o.ObjectType, 2);
        out["EventInfo"] = EventInfoJson(o.EventInfo, m);
        out["Operation"] = HexText(o.Operation, 4);
        out["ProcessCode"] = o.ProcessCode;
        return out;
    }
};

template <>
struct Record<SystemObject> {
    static constexpr const char *kType = "SystemObject";
    static json Describe(const SystemObject &o, const Machine &m) {
        json out;
        out["Name"] = NameText(o.Name);
        out["ObjectType"] = HexText(o.ObjectType, 2);
        out["EventInfo"] = EventInfoJson(o.EventInfo, m);
        return out;
    }
};

template <>
struct Record<NetworkObject> {
    static constexpr const char *kType = "NetworkObject";
    static json Describe(const NetworkObject &o, const Machine &m) {
        json out;
        out["ObjectType"] = HexText(o.ObjectType, 2);
        out["EventInfo"] = EventInfoJson(o.EventInfo, m);
        out["Operation"] = HexText(o.Operation, 4);
        out["ProtocolBits"] = HexText(o.ProtocolBits, 4);
        out["LocalPort"] = o.LocalPort;
        out["RemotePort"] = o.RemotePort;
        out["LocalAddress"] = NameText(o.LocalAddress);
        out["RemoteAddress"] = NameText(o.RemoteAddress);
        return out;
    }
};

template <>
struct Record<WhiteListObject> {
    static constexpr const char *kType = "WhiteListObject";
    static json Describe(const WhiteListObject &o, const Machine &) {
        json out;
        out["ImagePath"] = NameText(o.ImagePath);
        out["CommandLine"] = NameText(o.CommandLine);
        out["ParentImagePath"] = NameText(o.ParentImagePath);
        return out;
    }
};

template <>
struct Record<FilterResult> {
    static constexpr const char *kType = "FilterResult";
    static json Describe(const FilterResult &o, const Machine &) { return FilterResultJson(o); }
};

template <>
struct Record<WhiteListState> {
    static constexpr const char *kType = "WhiteListState";
    static json Describe(const WhiteListState &o, const Machine &) { return WhiteListStateJson(o); }
};

// An object the machine keeps by its scenario name; printed under that
// name after every call that is given it.
template <typename T>
struct NamedObject : BoundAs<T *> {
    std::string name;
    T *object = nullptr;
    T *Pass() override { return object; }
    void Report(Call &call, json &result) override { result[name] = Record<T>::Describe(*object, call.step.machine); }
};

template <typename T>
std::unique_ptr<BoundAs<T *>> Named(Call &call, const Parameter &p, const Argument &arg) {
    const json given = arg.value.IsScalar() ? ToJson(arg.value) : json();
    if (!given.is_string())
        call.step.ErrorAt(arg, p.name + " names a " + Record<T>::kType + " (e.g. " + p.name + ": " +
                                   std::string(1, char(std::tolower(Record<T>::kType[0]))) + "1) or is null");
    auto bound = std::make_unique<NamedObject<T>>();
    bound->name = given.get<std::string>();
    std::string conflict;
    bound->object = call.step.machine.Named<T>(bound->name, Record<T>::kType, &conflict);
    if (bound->object == nullptr) call.step.ErrorAt(arg, conflict);
    return bound;
}

template <typename T>
struct NamedConverter {
    static constexpr const char *kWhat = "the name of an object the runner keeps across steps";
    static std::unique_ptr<BoundAs<T *>> From(Call &call, const Parameter &p, const Argument &arg) {
        return Named<T>(call, p, arg);
    }
};
template <>
struct Converter<FileObject *> : NamedConverter<FileObject> {};
template <>
struct Converter<RegistryObject *> : NamedConverter<RegistryObject> {};
template <>
struct Converter<ProcessObject *> : NamedConverter<ProcessObject> {};
template <>
struct Converter<SystemObject *> : NamedConverter<SystemObject> {};
template <>
struct Converter<NetworkObject *> : NamedConverter<NetworkObject> {};
template <>
struct Converter<WhiteListObject *> : NamedConverter<WhiteListObject> {};
template <>
struct Converter<FilterResult *> : NamedConverter<FilterResult> {};

// A whitelist state is named like the objects, or described in place
// ({exempt: [...]}) for this call only.
template <>
struct Converter<WhiteListState *> {
    static constexpr const char *kWhat = "the name of a kept whitelist state, or {header, unknown_rule_seen, exempt}";
    struct InPlace : BoundAs<WhiteListState *> {
        WhiteListState state{};
        WhiteListState *Pass() override { return &state; }
    };
    static std::unique_ptr<BoundAs<WhiteListState *>> From(Call &call, const Parameter &p, const Argument &arg) {
        if (!arg.value.IsMap()) return Named<WhiteListState>(call, p, arg);
        auto bound = std::make_unique<InPlace>();
        bound->state = BuildWhiteListState(call.step, arg);
        return bound;
    }
};

// The acting process, described in place as the event action's actor is.
// File, registry and system objects keep a pointer to it, so the runner
// keeps the block until the scenario ends.
template <>
struct Converter<ActorInformation *> {
    static constexpr const char *kWhat = "an actor: {pid, tid, image, win32_path, descriptor, sid, ...}";
    struct Block : BoundAs<ActorInformation *> {
        std::vector<uint64_t> *words = nullptr;
        uint32_t size = 0;
        uint64_t Length(Unit) const override { return size; }
        void Cover(uint64_t bytes, Unit) override {
            if (bytes > words->size() * 8) words->resize((bytes + 7) / 8, 0);
        }
        ActorInformation *Pass() override { return reinterpret_cast<ActorInformation *>(words->data()); }
    };
    static std::unique_ptr<BoundAs<ActorInformation *>> From(Call &call, const Parameter &, const Argument &arg) {
        ActorBlock built = BuildActor(call.step, &arg, nullptr, false);
        auto bound = std::make_unique<Block>();
        bound->size = built.size;
        bound->words = &call.step.machine.Keep(std::move(built.words));
        return bound;
    }
};

// Matched contexts handed back to the library: each a rule id (of the FIM
// list) or {rule_id, list, rule_flags, exclusion_seen}.
template <>
struct Converter<MatchedContext *> {
    static constexpr const char *kWhat = "a list of rule ids or {rule_id, list, rule_flags, exclusion_seen}";
    struct Entries : BoundAs<MatchedContext *> {
        std::vector<MatchedContext> entries;
        size_t given = 0;
        uint64_t Length(Unit unit) const override {
            return unit == Unit::Bytes ? given * sizeof(MatchedContext) : given;
        }
        void Cover(uint64_t count, Unit unit) override {
            const uint64_t needed = unit == Unit::Bytes ? (count + sizeof(MatchedContext) - 1) / sizeof(MatchedContext)
                                                        : count;
            if (needed > entries.size()) entries.resize(needed, MatchedContext{});
        }
        MatchedContext *Pass() override {
            if (entries.empty()) entries.resize(1, MatchedContext{});
            return entries.data();
        }
    };
    static std::unique_ptr<BoundAs<MatchedContext *>> From(Call &call, const Parameter &p, const Argument &arg) {
        if (!arg.value.IsSequence()) call.step.ErrorAt(arg, p.name + " is " + kWhat);
        auto bound = std::make_unique<Entries>();
        for (size_t i = 0; i < arg.value.size(); ++i) {
            const Argument item{p.name + "[" + std::to_string(i) + "]", arg.value[i], arg.value[i]};
            MatchedContext entry{};
            entry.RuleList = 1;
            if (!item.value.IsMap()) {
                ParseRuleIdArg(call.step, item, entry.RuleId);
            } else {
                const auto fields = call.step.FieldsOf(item, {"rule_id", "list", "rule_flags", "exclusion_seen"});
                if (!fields.count("rule_id")) call.step.ErrorAt(item, item.name + " needs rule_id");
                ParseRuleIdArg(call.step, fields.at("rule_id"), entry.RuleId);
                if (fields.count("list")) {
                    const Argument &list = fields.at("list");
                    const json v = ToJson(list.value);
                    if (v == "fim") entry.RuleList = 1;
                    else if (v == "edr") entry.RuleList = 2;
                    else entry.RuleList = ULONG(call.step.NumberOf(list, 0xFFFFFFFF));
                }
                if (fields.count("rule_flags")) entry.RuleFlags = UCHAR(call.step.NumberOf(fields.at("rule_flags"), 0xFF));
                if (fields.count("exclusion_seen"))
                    entry.ExclusionSeen = UCHAR(call.step.NumberOf(fields.at("exclusion_seen"), 0xFF));
            }
            bound->entries.push_back(entry);
        }
        bound->given = bound->entries.size();
        return bound;
    }
};

// ---------------------------------------------------------------- returns

template <typename R>
struct Returned;  // deliberately undefined: an export returning a new type needs its printing

template <>
struct Returned<NTSTATUS> {
    static void Record(NTSTATUS status, StepOutcome &out, Call &) {
        out.has_status = true;
        out.status = status;
    }
};

// UCHAR and BOOLEAN are one type: both print as the byte's value.
template <>
struct Returned<UCHAR> {
    static void Record(UCHAR value, StepOutcome &out, Call &) { out.result["value"] = value; }
};

template <>
struct Returned<PUNICODE_STRING> {
    static void Record(PUNICODE_STRING s, StepOutcome &out, Call &) {
        out.result["Length"] = s ? s->Length : 0;
        out.result["MaximumLength"] = s ? s->MaximumLength : 0;
        out.result["Buffer"] =
            (s && s->Buffer) ? json(hk::Utf8(std::u16string(s->Buffer, s->Length / 2))) : json(nullptr);
    }
};

template <>
struct Returned<ProcessEntry *> {
    static constexpr Step::Keeps kKeeps = Step::Keeps::May;
    static void Record(ProcessEntry *entry, StepOutcome &out, Call &call) { ReportEntry(call, entry, "entry", out.result); }
};

// An untyped result is what the export hands out: a handle the caller
// closes, or a pool block the caller frees.
enum class UntypedResult { Handle, SecurityDescriptor, TokenUser };
struct UntypedResultName {
    std::string_view export_name;
    UntypedResult kind;
};
constexpr UntypedResultName kUntypedResults[] = {
    {"OpenProcess", UntypedResult::Handle},
    {"ProcessGetSecurityDescriptor", UntypedResult::SecurityDescriptor},
    {"ProcessGetTokenInformation", UntypedResult::TokenUser},
};

template <>
struct Returned<PVOID> {
    static const UntypedResultName *KindOf(std::string_view name) {
        for (const auto &u : kUntypedResults)
            if (u.export_name == name) return &u;
        return nullptr;
    }
    static void Check(const std::string &name) {
        if (KindOf(name) == nullptr)
            throw std::logic_error(name + ": returns an untyped pointer the runner cannot print (kUntypedResults)");
    }
    static Step::Keeps Keeps(const std::string &name) {
        return KindOf(name)->kind == UntypedResult::Handle ? Step::Keeps::May : Step::Keeps::Nothing;
    }
    static void Record(PVOID value, StepOutcome &out, Call &call) {
        StepContext &c = call.step;
        switch (KindOf(call.export_name)->kind) {
            case UntypedResult::Handle:
                // Kept by name for later steps, or closed at once as a
                // monitor that only looks closes it.
                out.result["handle"] = HandleJson(value);
                if (!c.keep.empty()) {
                    if (c.machine.HasHandle(c.keep) && c.machine.Handle(c.keep) != nullptr) {
                        if (value != nullptr) ZwClose(value);
                        c.Error("handle " + c.keep + " is still open: close_handle it first");
                    }
                    c.machine.KeepHandle(c.keep, value);
                } else if (value != nullptr) {
                    ZwClose(value);
                }
                return;
            case UntypedResult::SecurityDescriptor: {
                if (value == nullptr) {
                    out.result["descriptor"] = nullptr;
                    return;
                }
                // The block is *Length bytes, as the caller learns its size.
                const auto *length = dynamic_cast<const UlongSlot *>(call.Sibling("Length"));
                out.result["descriptor"] =
                    DescriptorJson(static_cast<const uint8_t *>(value), length != nullptr ? length->value : 0);
                break;
            }
            case UntypedResult::TokenUser: {
                if (value == nullptr) {
                    out.result["user"] = nullptr;
                    return;
                }
                const auto *user = static_cast<const TOKEN_USER *>(value);
                const auto *sid = static_cast<const uint8_t *>(user->User.Sid);
                out.result["user"] = {{"Sid", SidText(sid, sid != nullptr ? 8 + size_t(sid[1]) * 4 : 0)},
                                      {"Attributes", HexText(user->User.Attributes)}};
                break;
            }
        }
        ExFreePoolWithTag(value, 0);
    }
};

// ---------------------------------------------------------------- the step of one export

// What the kernel, not a monitor, calls: DllInitialize loads the image
// afresh first, DllUnload unloads it afterwards.
enum class Lifecycle { Call, Load, Unload };

template <typename Fn>
class ExportStep;

template <typename R, typename... A>
class ExportStep<R(A...)> {
public:
    using Tuple = std::tuple<std::unique_ptr<BoundAs<A>>...>;

    ExportStep(std::string name, std::vector<Parameter> parameters, Lifecycle lifecycle)
        : name_(std::move(name)), parameters_(std::move(parameters)), lifecycle_(lifecycle) {}

    // What the table learns before any scenario runs: the argument names,
    // which are required, and whether every parameter can be bound.
    std::vector<ArgumentSpec> Arguments() const {
        std::vector<ArgumentSpec> specs;
        Describe(specs, std::index_sequence_for<A...>{});
        return specs;
    }

    StepOutcome operator()(StepContext &c) const {
        Call call{c, parameters_, std::vector<Bound *>(sizeof...(A), nullptr), name_};
        Tuple bound;
        // Lists first, so that a count left out can take their length.
        Bind(call, bound, false, std::index_sequence_for<A...>{});
        Bind(call, bound, true, std::index_sequence_for<A...>{});
        for (size_t i = 0; i < parameters_.size(); ++i)
            if (parameters_[i].restates)
                call.bound[*parameters_[i].restates]->Cover(*call.bound[i]->Count(), parameters_[i].unit);

        if (lifecycle_ == Lifecycle::Load) {
            if (c.machine.loaded()) c.Error("the image is loaded already; a DllUnload step unloads it first");
            c.machine.LoadImage();
        }
        auto *fn = c.Export<R(A...)>(name_.c_str());
        StepOutcome out;
        if constexpr (std::is_void_v<R>) {
            std::apply([&](auto &...b) { fn(b->Pass()...); }, bound);
            c.machine.SettleLibraryWork();
        } else {
            const R value = std::apply([&](auto &...b) { return fn(b->Pass()...); }, bound);
            // Work the call queued has run before anything is read.
            c.machine.SettleLibraryWork();
            Returned<R>::Record(value, out, call);
            if constexpr (std::is_same_v<R, NTSTATUS>) {
                // A failed DllInitialize: the kernel unloads the image
                // again, without DllUnload.
                if (lifecycle_ == Lifecycle::Load && !NT_SUCCESS(value)) c.machine.UnloadImage();
                // A failed phase 1 empties the process table.
                if (name_ == "TcSystemsInitializePhase1" && !NT_SUCCESS(value))
                    c.machine.ForgetEntries("a failed phase 1 emptied the process table");
            }
        }
        for (Bound *b : call.bound) b->Report(call, out.result);
        // A reference given back, by process id as the library takes it.
        if (name_ == "DereferenceProcess") c.machine.EntryGivenBack(ULONG(*call.Sibling("ProcessId")->Count()));
        if (lifecycle_ != Lifecycle::Call) c.machine.ForgetEntries("the image was unloaded, and its process table with it");
        if (lifecycle_ == Lifecycle::Unload) {
            c.machine.UnloadImage();
            out.unloaded = true;
        }
        return out;
    }

private:
    template <size_t I>
    using Param = std::tuple_element_t<I, std::tuple<A...>>;

    template <size_t... I>
    void Describe([[maybe_unused]] std::vector<ArgumentSpec> &specs, std::index_sequence<I...>) const {
        (DescribeOne<I>(specs), ...);
    }

    template <size_t I>
    void DescribeOne(std::vector<ArgumentSpec> &specs) const {
        using T = Param<I>;
        const Parameter &p = parameters_[I];
        if constexpr (requires { Converter<T>::Check(p); }) Converter<T>::Check(p);
        constexpr bool is_number = requires(Call &call) { Converter<T>::FromLength(call, p, uint64_t{}); };
        bool has_default = requires(Call &call) { Converter<T>::Default(call, p); };
        if constexpr (requires { Converter<T>::HasDefault(p); }) has_default = Converter<T>::HasDefault(p);
        if (p.restates && !is_number)
            throw std::logic_error(name_ + ": " + p.c_name + " restates a length but is not a number");
        if (p.may_be_left_out && !std::is_pointer_v<T>)
            throw std::logic_error(name_ + ": " + p.c_name + " may be left out as null but is not a pointer");
        specs.push_back({p.name, !p.restates && !p.may_be_left_out && !has_default});
    }

    template <size_t... I>
    void Bind(Call &call, Tuple &bound, [[maybe_unused]] bool restating, std::index_sequence<I...>) const {
        (BindOne<I>(call, bound, restating), ...);
    }

    template <size_t I>
    void BindOne(Call &call, Tuple &bound, bool restating) const {
        const Parameter &p = parameters_[I];
        if (p.restates.has_value() != restating) return;
        std::get<I>(bound) = Convert<Param<I>>(call, p);
        call.bound[I] = std::get<I>(bound).get();
    }

    template <typename T>
    static std::unique_ptr<BoundAs<T>> Convert(Call &call, const Parameter &p) {
        const auto arg = call.step.Find(p.name);
        if (arg && arg->IsNull()) {
            if constexpr (std::is_pointer_v<T>) return std::make_unique<Fixed<T>>(nullptr);
            else call.step.ErrorAt(*arg, p.name + " is " + Converter<T>::kWhat + "; null is for pointers only");
        }
        if (arg) return Converter<T>::From(call, p, *arg);
        if constexpr (requires { Converter<T>::FromLength(call, p, uint64_t{}); })
            if (p.restates) return Converter<T>::FromLength(call, p, call.bound[*p.restates]->Length(p.unit));
        if constexpr (std::is_pointer_v<T>)
            if (p.may_be_left_out) return std::make_unique<Fixed<T>>(nullptr);
        if constexpr (requires { Converter<T>::Default(call, p); }) {
            bool has_default = true;
            if constexpr (requires { Converter<T>::HasDefault(p); }) has_default = Converter<T>::HasDefault(p);
            if (has_default) return Converter<T>::Default(call, p);
        }
        call.step.Error("missing argument '" + p.name + "' (" + Converter<T>::kWhat + ")");
    }

    std::string name_;
    std::vector<Parameter> parameters_;
    Lifecycle lifecycle_;
};

// What keep: may name for an export: what its result is, or an entry it
// hands out through a parameter.
template <typename Fn>
struct ExportTypes;
template <typename R, typename... A>
struct ExportTypes<R(A...)> {
    using Result = R;
    static constexpr bool kHandsOutEntry = (std::is_same_v<A, ProcessEntry **> || ...);
};

template <typename Fn>
Step::Keeps Keeps(const std::string &name) {
    using R = typename ExportTypes<Fn>::Result;
    if constexpr (!std::is_void_v<R>) {
        if constexpr (requires { Returned<R>::Check(name); }) Returned<R>::Check(name);
        if constexpr (requires { Returned<R>::Keeps(name); }) return Returned<R>::Keeps(name);
        if constexpr (requires { Returned<R>::kKeeps; }) return Returned<R>::kKeeps;
    }
    return ExportTypes<Fn>::kHandsOutEntry ? Step::Keeps::May : Step::Keeps::Nothing;
}

template <typename Fn>
void Register(std::map<std::string, Step> &table, const std::string &name, std::string_view parameter_list) {
    std::vector<Parameter> parameters;
    for (const auto &c_name : SplitNames(parameter_list)) {
        Parameter p;
        p.c_name = c_name;
        p.name = SnakeCase(c_name);
        parameters.push_back(p);
    }
    for (auto &p : parameters) {
        for (const auto &r : kRestatements) {
            if (p.c_name != r.count) continue;
            for (size_t i = 0; i < parameters.size(); ++i)
                if (parameters[i].c_name == r.list) {
                    p.restates = i;
                    p.unit = r.unit;
                }
        }
        p.may_be_left_out =
            std::find(std::begin(kMayBeLeftOut), std::end(kMayBeLeftOut), p.c_name) != std::end(kMayBeLeftOut);
    }
    const Lifecycle lifecycle = name == "DllInitialize" ? Lifecycle::Load
                                : name == "DllUnload"   ? Lifecycle::Unload
                                                        : Lifecycle::Call;
    ExportStep<Fn> step(name, std::move(parameters), lifecycle);
    Step entry;
    entry.arguments = step.Arguments();
    entry.keeps = Keeps<Fn>(name);
    entry.run = std::move(step);
    if (!table.emplace(name, std::move(entry)).second) throw std::logic_error(name + " is listed twice");
}

std::map<std::string, Step> MakeExports() {
    std::map<std::string, Step> table;
#define TEXPRT_EXPORT_ENTRY(Name, MaximumIrql, ...)                                                   \
    static_assert(CountNames(#__VA_ARGS__) == Arity<decltype(Name)>::value,                           \
                  #Name ": the export list and texprt.h give it different numbers of parameters"); \
    Register<decltype(Name)>(table, #Name, #__VA_ARGS__);
#include "include/texprt_exports.inc"
#undef TEXPRT_EXPORT_ENTRY
    return table;
}

}  // namespace

const std::map<std::string, Step> &Exports() {
    static const auto table = MakeExports();
    return table;
}

}  // namespace sim
