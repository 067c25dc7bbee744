// Processes: the machine block's `processes:` and the actions that start
// and end processes and threads, hold handles to them, and look at the
// process table; and the way process entries and actor blocks print, for
// these actions and for the call steps that hand them out.
//
//   machine:
//     processes:
//       - {pid: 1000, image: '\Device\HarddiskVolume2\Windows\System32\notepad.exe',
//          win32_path: 'C:\Windows\System32\notepad.exe', command_line: 'notepad.exe C:\a.txt',
//          user: S-1-5-21-1111-2222-3333-1001, threads: [1004]}
//   steps:
//     - action: exit_process
//       args: {pid: 1000, status: 0}
#include "records.h"

#include "process/inspect.h"

#include <cstring>

namespace sim {

// ---------------------------------------------------------------- records

namespace {

json StringText(const UNICODE_STRING &s) {
    if (s.Buffer == nullptr) return nullptr;
    return hk::Utf8(std::u16string(s.Buffer, s.Length / 2));
}

std::string Hex(const uint8_t *bytes, size_t length) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < length; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0xF];
    }
    return out;
}

json ProcessFlagsJson(ULONG flags) {
    json names = json::array();
    if (flags & TEXPRT_PROCESS_PROTECTED) names.push_back("protected");
    if (flags & TEXPRT_PROCESS_TRUSTED) names.push_back("trusted");
    if (const ULONG other = flags & ~ULONG(TEXPRT_PROCESS_PROTECTED | TEXPRT_PROCESS_TRUSTED))
        names.push_back(HexText(other));
    return {{"bits", HexText(flags)}, {"names", names}};
}

json AncestorImagesJson(const AncestorImageList &list) {
    json out = json::array();
    // A zero-filled list (an entry not yet made) has no links at all.
    if (list.Head.Flink == nullptr) return out;
    struct Node {  // AncestorImageNode of process/table.h
        UNICODE_STRING Image;
        LIST_ENTRY Link;
    };
    for (const LIST_ENTRY *link = list.Head.Flink; link != &list.Head; link = link->Flink)
        out.push_back(StringText(CONTAINING_RECORD(link, Node, Link)->Image));
    return out;
}

}  // namespace

json DescriptorJson(const uint8_t *descriptor, size_t length) {
    json out;
    out["hex"] = Hex(descriptor, length);
    SECURITY_DESCRIPTOR_RELATIVE header{};
    json owner = nullptr;
    if (length >= sizeof header) {
        std::memcpy(&header, descriptor, sizeof header);
        if ((header.Control & SE_SELF_RELATIVE) && header.Owner != 0 && header.Owner < length) {
            const std::string text = SidText(descriptor + header.Owner, length - header.Owner);
            if (!text.empty()) owner = text;
        }
    }
    out["owner"] = owner;
    return out;
}

json ActorBlockJson(const ActorInformation *block, ULONG size) {
    if (block == nullptr) return nullptr;
    json out;
    if (size < sizeof(ActorInformation)) {
        out["size"] = size;
        out["size_check"] = "size " + std::to_string(size) + " is less than the fixed part's 32 bytes";
        return out;
    }
    out["ProcessId"] = block->ProcessId;
    out["ThreadId"] = block->ThreadId;
    out["SecurityInformation"] = block->SecurityInformation;
    out["CreateTime"] = TimeJson(block->CreateTime.QuadPart);
    out["Win32ImagePathLength"] = block->Win32ImagePathLength;
    out["ImageFileNameLength"] = block->ImageFileNameLength;
    out["SecurityDescriptorLength"] = block->SecurityDescriptorLength;
    out["SidLength"] = block->SidLength;
    // The variable part, each piece read only where it lies inside the
    // block's size: a block that claims more than it holds is shown up to
    // where it ends.
    const auto *bytes = reinterpret_cast<const uint8_t *>(block);
    uint64_t at = sizeof(ActorInformation);
    auto piece = [&](uint64_t length) -> const uint8_t * {
        const uint8_t *start = at + length <= size ? bytes + at : nullptr;
        at += length;
        return start;
    };
    auto text = [&](USHORT length) -> json {
        const uint8_t *start = piece(length);
        if (start == nullptr) return nullptr;
        std::u16string t(length / 2, u'\0');
        std::memcpy(t.data(), start, length / 2 * 2);
        return hk::Utf8(t);
    };
    out["Win32ImagePath"] = text(block->Win32ImagePathLength);
    out["ImageFileName"] = text(block->ImageFileNameLength);
    const uint8_t *descriptor = piece(block->SecurityDescriptorLength);
    out["SecurityDescriptor"] = descriptor != nullptr ? json(Hex(descriptor, block->SecurityDescriptorLength)) : json(nullptr);
    const uint8_t *sid = piece(block->SidLength);
    if (sid == nullptr) {
        out["Sid"] = nullptr;
    } else if (block->SidLength == 0) {
        out["Sid"] = "";
    } else {
        const std::string t = SidText(sid, block->SidLength);
        out["Sid"] = t.empty() ? "not a SID: " + Hex(sid, block->SidLength) : t;
    }
    out["size"] = size;
    const uint64_t expected = sizeof(ActorInformation) + uint64_t(block->Win32ImagePathLength) +
                              block->ImageFileNameLength + block->SecurityDescriptorLength + block->SidLength;
    out["size_check"] = expected == size ? std::string("ok")
                                         : "size " + std::to_string(size) + ", but 32 + the four lengths = " +
                                               std::to_string(expected);
    return out;
}

json ProcessEntryJson(const ProcessEntry &e, bool brief) {
    json out;
    if (brief) {
        out["ProcessId"] = e.ProcessId;
        out["ReferenceCount"] = e.ReferenceCount;
        out["Terminated"] = e.Terminated;
        out["ProcessFlags"] = ProcessFlagsJson(e.ProcessFlags);
        out["ImageFileName"] = StringText(e.ImageFileName);
        out["CommandLine"] = StringText(e.CommandLine);
        out["CreateTime"] = TimeJson(e.CreateTime.QuadPart);
        out["ParentProcessId"] = e.ParentProcessId;
        out["AncestorImages"] = AncestorImagesJson(e.AncestorImages);
        return out;
    }
    // In the order of the fields in texprt.h.
    out["ReferenceCount"] = e.ReferenceCount;
    // Which process's object the entry holds, not where it is.
    out["ProcessObject"] =
        e.ProcessObject == nullptr
            ? json(nullptr)
            : json("process " + std::to_string(ULONG_PTR(PsGetProcessId(static_cast<PEPROCESS>(e.ProcessObject)))));
    out["CreateTime"] = TimeJson(e.CreateTime.QuadPart);
    out["ProcessId"] = e.ProcessId;
    out["ParentProcessId"] = e.ParentProcessId;
    out["ParentCreateTime"] = TimeJson(e.ParentCreateTime.QuadPart);
    out["ImageFileName"] = StringText(e.ImageFileName);
    out["Win32ImagePath"] = StringText(e.Win32ImagePath);
    out["CommandLine"] = StringText(e.CommandLine);
    out["Terminated"] = e.Terminated;
    out["ActorLock"] = e.ActorLock != nullptr;
    out["ActorRecordSize"] = e.ActorRecordSize;
    out["ActorRecord"] = ActorBlockJson(e.ActorRecord, e.ActorRecordSize);
    out["AncestorImages"] = AncestorImagesJson(e.AncestorImages);
    out["AncestorsCollected"] = e.AncestorsCollected;
    out["OwnWhiteList"] = WhiteListStateJson(e.OwnWhiteList);
    out["ParentWhiteList"] = WhiteListStateJson(e.ParentWhiteList);
    out["WhiteListResolved"] = e.WhiteListResolved;
    out["ProcessFlags"] = ProcessFlagsJson(e.ProcessFlags);
    out["ProtectionValue"] = e.ProtectionValue;
    return out;
}

// ---------------------------------------------------------------- process specs

namespace {

const std::vector<std::string> &ProcessFields() {
    static const std::vector<std::string> fields = {
        "pid",          "parent",       "created",        "image",          "win32_path", "command_line",
        "normalized",   "peb",          "parameters",     "unmapped",       "user",       "integrity",
        "elevated",     "elevation_type", "virtualization", "descriptor",   "descriptor_fails",
        "token_fails",  "threads"};
    return fields;
}

std::string Listed(const std::vector<std::string> &names) {
    std::string out;
    for (const auto &n : names) out += (out.empty() ? "" : ", ") + n;
    return out;
}

// One of a few words; anything else is an error that lists them.
std::string WordOf(const StepContext &c, const Argument &arg, const std::vector<std::string> &words) {
    const json v = arg.value.IsScalar() ? ToJson(arg.value) : json();
    if (v.is_string()) {
        const std::string word = v.get<std::string>();
        if (std::find(words.begin(), words.end(), word) != words.end()) return word;
        const std::string closest = ClosestName(word, words);
        c.ErrorAt(arg, arg.name + " has no item '" + word + "'" +
                           (closest.empty() ? "" : " (did you mean '" + closest + "'?)") + "; it takes: " + Listed(words));
    }
    c.ErrorAt(arg, arg.name + " is one of: " + Listed(words));
}

uint32_t ProcessIdOf(const StepContext &c, const Argument &arg) {
    const uint64_t id = c.NumberOf(arg, 0xFFFFFFFF);
    if (id == 0 || id % 4 != 0) c.ErrorAt(arg, arg.name + ": process and thread ids are multiples of 4 above 0");
    return uint32_t(id);
}

std::vector<uint8_t> SidOf(const StepContext &c, const Argument &arg) {
    const std::string text = c.TextOf(arg);
    const auto sid = SidFromText(text);
    if (!sid) c.ErrorAt(arg, arg.name + ": '" + text + "' is not a SID such as S-1-5-21-1111-2222-3333-1001");
    return *sid;
}

hk::ThreadSpec ThreadOf(const StepContext &c, const Argument &arg) {
    hk::ThreadSpec thread;
    if (!arg.value.IsMap()) {
        thread.id = ProcessIdOf(c, arg);
        return thread;
    }
    const auto fields = c.FieldsOf(arg, {"tid", "created", "kernel_time", "user_time"});
    if (!fields.count("tid")) c.ErrorAt(arg, arg.name + " needs tid");
    thread.id = ProcessIdOf(c, fields.at("tid"));
    if (fields.count("created")) thread.create_time = c.TimeOf(fields.at("created"));
    if (fields.count("kernel_time")) thread.kernel_time = int64_t(c.NumberOf(fields.at("kernel_time"), INT64_MAX));
    if (fields.count("user_time")) thread.user_time = int64_t(c.NumberOf(fields.at("user_time"), INT64_MAX));
    return thread;
}

// token_fails: [open, user] fails each with STATUS_ACCESS_DENIED; a
// mapping gives each its own status ({open: STATUS_ACCESS_DENIED}).
void TokenFailures(const StepContext &c, const Argument &arg, hk::TokenSpec *token) {
    static const std::vector<std::pair<std::string, int>> classes = {
        {"open", 0},
        {"user", TokenUser},
        {"statistics", TokenStatistics},
        {"virtualization", TokenVirtualizationEnabled},
        {"integrity", TokenIntegrityLevel},
        {"elevation", TokenElevation},
        {"elevation_type", TokenElevationType}};
    std::vector<std::string> names;
    for (const auto &[name, cls] : classes) names.push_back(name);
    auto fail = [&](const Argument &item, NTSTATUS status) {
        const std::string name = WordOf(c, item, names);
        const int cls = std::find_if(classes.begin(), classes.end(), [&](const auto &p) { return p.first == name; })->second;
        if (cls == 0) token->open_status = status;
        else token->query_failures[TOKEN_INFORMATION_CLASS(cls)] = status;
    };
    if (arg.value.IsSequence()) {
        for (size_t i = 0; i < arg.value.size(); ++i)
            fail(Argument{arg.name + "[" + std::to_string(i) + "]", arg.value[i], arg.value[i]}, STATUS_ACCESS_DENIED);
    } else if (arg.value.IsMap()) {
        for (const auto &item : arg.value) {
            const Argument name{arg.name + "." + item.first.Scalar(), item.first, item.first};
            fail(name, c.StatusOf(Argument{name.name, item.first, item.second}));
        }
    } else {
        c.ErrorAt(arg, arg.name + " is a list of " + Listed(names) +
                           " (each fails with STATUS_ACCESS_DENIED) or a mapping of them to statuses");
    }
}

// A process as its fields describe it; the defaults are hostkernel's
// (parent System, created now, one thread, the token of SYSTEM).
hk::ProcessSpec DescribeProcess(const StepContext &c, const std::map<std::string, Argument> &fields) {
    hk::ProcessSpec wanted;
    auto has = [&](const char *name) { return fields.count(name) != 0 && !fields.at(name).IsNull(); };
    if (has("pid")) wanted.id = ProcessIdOf(c, fields.at("pid"));
    if (has("parent")) wanted.parent_id = uint32_t(c.NumberOf(fields.at("parent"), 0xFFFFFFFF));
    if (has("created")) {
        const Argument &created = fields.at("created");
        const json v = created.value.IsScalar() ? ToJson(created.value) : json();
        // `none`: a process that reports no creation time, as System does.
        wanted.create_time = v == "none" ? 0 : c.TimeOf(created);
    }
    if (has("image")) wanted.image_file_name = c.TextOf(fields.at("image"));
    if (has("win32_path")) wanted.image_path_name = c.TextOf(fields.at("win32_path"));
    if (has("command_line")) wanted.command_line = c.TextOf(fields.at("command_line"));
    if (has("normalized")) wanted.normalized = c.FlagOf(fields.at("normalized"));
    if (has("peb")) {
        WordOf(c, fields.at("peb"), {"none"});
        wanted.peb = hk::PebKind::None;
    }
    if (has("parameters")) {
        WordOf(c, fields.at("parameters"), {"none"});
        if (wanted.peb == hk::PebKind::None)
            c.ErrorAt(fields.at("parameters"), "a process with peb: none has no parameter block to leave out");
        wanted.peb = hk::PebKind::NoParameters;
    }
    if (has("unmapped")) {
        const Argument &unmapped = fields.at("unmapped");
        if (!unmapped.value.IsSequence())
            c.ErrorAt(unmapped, unmapped.name + " is a list of parameters, image_path, command_line");
        for (size_t i = 0; i < unmapped.value.size(); ++i) {
            const std::string part =
                WordOf(c, Argument{unmapped.name + "[" + std::to_string(i) + "]", unmapped.value[i], unmapped.value[i]},
                       {"parameters", "image_path", "command_line"});
            (part == "parameters" ? wanted.unmapped.parameters
             : part == "image_path" ? wanted.unmapped.image_path
                                    : wanted.unmapped.command_line) = true;
        }
    }
    if (has("user")) {
        SidOf(c, fields.at("user"));
        wanted.token.user_sid = c.TextOf(fields.at("user"));
    }
    if (has("integrity")) {
        SidOf(c, fields.at("integrity"));
        wanted.token.integrity_level_sid = c.TextOf(fields.at("integrity"));
    }
    if (has("elevated")) wanted.token.elevated = c.FlagOf(fields.at("elevated"));
    if (has("elevation_type")) {
        const std::string type = WordOf(c, fields.at("elevation_type"), {"default", "full", "limited"});
        wanted.token.elevation_type = type == "default" ? TokenElevationTypeDefault
                                    : type == "full"  ? TokenElevationTypeFull
                                                      : TokenElevationTypeLimited;
    }
    if (has("virtualization")) wanted.token.virtualization_enabled = c.FlagOf(fields.at("virtualization"));
    if (has("descriptor")) wanted.security_descriptor = c.HexOf(fields.at("descriptor"));
    if (has("descriptor_fails")) wanted.security_query_status = c.StatusOf(fields.at("descriptor_fails"));
    if (has("token_fails")) TokenFailures(c, fields.at("token_fails"), &wanted.token);
    if (has("threads")) {
        const Argument &threads = fields.at("threads");
        if (!threads.value.IsSequence() || threads.value.size() == 0)
            c.ErrorAt(threads, threads.name + " is a list of thread ids (or {tid, created, kernel_time, user_time})");
        wanted.threads.clear();
        for (size_t i = 0; i < threads.value.size(); ++i)
            wanted.threads.push_back(
                ThreadOf(c, Argument{threads.name + "[" + std::to_string(i) + "]", threads.value[i], threads.value[i]}));
    }
    return wanted;
}

// Starts a process; hostkernel's refusals (an id taken, a descriptor that is
// not one) are errors at the field they are about.
uint32_t StartProcess(const StepContext &c, const std::map<std::string, Argument> &fields, const Argument &where) {
    const hk::ProcessSpec wanted = DescribeProcess(c, fields);
    try {
        return hk::CreateProcess(wanted);
    } catch (const std::invalid_argument &e) {
        std::string message = e.what();
        for (const char *prefix : {"hk::CreateProcess: ", "CreateProcess: "})
            if (message.rfind(prefix, 0) == 0) message = message.substr(std::strlen(prefix));
        const char *field = message.find("descriptor") != std::string::npos ? "descriptor"
                            : message.find("thread") != std::string::npos ? "threads"
                            : message.find("id ") != std::string::npos    ? "pid"
                                                                          : nullptr;
        c.ErrorAt(field != nullptr && fields.count(field) ? fields.at(field) : where,
                  "the machine cannot start this process: " + message);
    }
}

json ThreadIds(uint32_t pid) {
    // The ids the process was given, in the order they were named, as
    // ZwQuerySystemInformation lists them.
    json ids = json::array();
    ULONG size = 0;
    ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &size);
    std::vector<uint64_t> buffer((size + 7) / 8 + 1);
    if (!NT_SUCCESS(ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), ULONG(buffer.size() * 8), &size)))
        return ids;
    const auto *record = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION *>(buffer.data());
    for (;;) {
        if (ULONG_PTR(record->UniqueProcessId) == pid) {
            const auto *threads = reinterpret_cast<const SYSTEM_THREAD_INFORMATION *>(record + 1);
            for (ULONG i = 0; i < record->NumberOfThreads; ++i)
                ids.push_back(ULONG_PTR(threads[i].ClientId.UniqueThread));
            break;
        }
        if (record->NextEntryOffset == 0) break;
        record = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION *>(reinterpret_cast<const uint8_t *>(record) +
                                                                      record->NextEntryOffset);
    }
    return ids;
}

}  // namespace

void StartMachineProcesses(Machine &machine, const YAML::Node &processes, const std::string &file) {
    if (!processes.IsSequence()) Fail(file, processes, "processes must be a list of processes");
    for (size_t i = 0; i < processes.size(); ++i) {
        const YAML::Node entry = processes[i];
        const StepContext c{machine, file, entry, "machine"};
        const Argument arg{"processes[" + std::to_string(i) + "]", entry, entry};
        StartProcess(c, c.FieldsOf(arg, ProcessFields()), arg);
    }
}

// ---------------------------------------------------------------- actions

namespace {

Step Action(std::vector<ArgumentSpec> arguments, StepHandler run, Step::Keeps keeps = Step::Keeps::Nothing) {
    Step step;
    step.arguments = std::move(arguments);
    step.run = std::move(run);
    step.keeps = keeps;
    return step;
}

std::vector<ArgumentSpec> Optional(const std::vector<std::string> &names) {
    std::vector<ArgumentSpec> specs;
    for (const auto &n : names) specs.push_back({n, false});
    return specs;
}

}  // namespace

json HandleJson(HANDLE handle) {
    if (handle == nullptr) return nullptr;
    json out = json::object();
    PVOID object = nullptr;
    if (NT_SUCCESS(ObReferenceObjectByHandle(handle, 0, *PsProcessType, KernelMode, &object, nullptr))) {
        out["process_id"] = ULONG_PTR(PsGetProcessId(static_cast<PEPROCESS>(object)));
        ObfDereferenceObject(object);
    } else if (NT_SUCCESS(ObReferenceObjectByHandle(handle, 0, *PsThreadType, KernelMode, &object, nullptr))) {
        out["thread"] = true;
        ObfDereferenceObject(object);
    }
    return out;
}

namespace {

// The entries of the table and the deferred delete list, read through the
// host image's inspection entry while the library holds its locks.
struct TableView {
    json ids = json::array();
    json entries = json::object();
    json deferred = json::array();

    static VOID NTAPI Entry(PVOID context, const ProcessEntry *entry) {
        auto *view = static_cast<TableView *>(context);
        view->ids.push_back(entry->ProcessId);
        view->entries[std::to_string(entry->ProcessId)] = ProcessEntryJson(*entry, true);
    }
    static VOID NTAPI Deferred(PVOID context, ULONG process_id) {
        static_cast<TableView *>(context)->deferred.push_back(process_id);
    }
};

}  // namespace

void AddProcessActions(std::map<std::string, Step> &t) {
    // The fields of a process are the action's arguments, none required:
    // a process the machine names itself prints its id.
    t["start_process"] = Action(Optional(ProcessFields()), [](StepContext &c) {
        std::map<std::string, Argument> fields;
        for (const auto &name : ProcessFields())
            if (auto arg = c.Find(name)) fields.emplace(name, *arg);
        const uint32_t pid = StartProcess(c, fields, Argument{"start_process", c.node, c.node});
        StepOutcome out;
        out.result["pid"] = pid;
        out.result["threads"] = ThreadIds(pid);
        return out;
    });
    t["exit_process"] = Action({{"pid", true}, {"status", false}}, [](StepContext &c) {
        const uint32_t pid = uint32_t(c.NumberOf(c.Arg("pid"), 0xFFFFFFFF));
        const NTSTATUS status = c.Has("status") ? c.StatusOf(c.Arg("status")) : STATUS_SUCCESS;
        if (!hk::ExitProcess(pid, status))
            c.ErrorAt(c.Arg("pid"), "no running process " + std::to_string(pid) +
                                        " to end (System and the idle process never end)");
        StepOutcome out;
        out.result["pid"] = pid;
        out.result["exit_status"] = StatusText(status);
        return out;
    });
    t["start_thread"] = Action({{"pid", true}, {"tid", false}}, [](StepContext &c) {
        const uint32_t pid = uint32_t(c.NumberOf(c.Arg("pid"), 0xFFFFFFFF));
        hk::ThreadSpec wanted;
        if (c.Has("tid")) wanted.id = ProcessIdOf(c, c.Arg("tid"));
        StepOutcome out;
        try {
            out.result["tid"] = hk::CreateThread(pid, wanted);
        } catch (const std::invalid_argument &e) {
            std::string message = e.what();
            for (const char *prefix : {"hk::CreateThread: ", "CreateThread: "})
                if (message.rfind(prefix, 0) == 0) message = message.substr(std::strlen(prefix));
            c.ErrorAt(c.Has("tid") && message.find("taken") != std::string::npos ? c.Arg("tid") : c.Arg("pid"),
                      "the machine cannot start this thread: " + message);
        }
        out.result["pid"] = pid;
        return out;
    });
    t["exit_thread"] = Action({{"pid", true}, {"tid", true}, {"status", false}}, [](StepContext &c) {
        const uint32_t pid = uint32_t(c.NumberOf(c.Arg("pid"), 0xFFFFFFFF));
        const uint32_t tid = uint32_t(c.NumberOf(c.Arg("tid"), 0xFFFFFFFF));
        const NTSTATUS status = c.Has("status") ? c.StatusOf(c.Arg("status")) : STATUS_SUCCESS;
        if (!hk::ExitThread(pid, tid, status))
            c.ErrorAt(c.Arg("tid"), "process " + std::to_string(pid) + " has no running thread " + std::to_string(tid));
        StepOutcome out;
        out.result["pid"] = pid;
        out.result["tid"] = tid;
        out.result["exit_status"] = StatusText(status);
        // The last thread takes its process with it.
        const auto running = hk::RunningProcesses();
        out.result["process_running"] = std::find(running.begin(), running.end(), pid) != running.end();
        return out;
    });
    // A thread handle held across steps keeps the thread's object, and so
    // its exit status, after the thread has ended, as a monitor's thread
    // notification holds it.
    t["open_thread"] = Action(
        {{"pid", true}, {"tid", true}},
        [](StepContext &c) {
            const uint32_t pid = uint32_t(c.NumberOf(c.Arg("pid"), 0xFFFFFFFF));
            const uint32_t tid = uint32_t(c.NumberOf(c.Arg("tid"), 0xFFFFFFFF));
            if (c.machine.HasHandle(c.keep) && c.machine.Handle(c.keep) != nullptr)
                c.Error("handle " + c.keep + " is still open: close_handle it first");
            OBJECT_ATTRIBUTES attributes;
            InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
            CLIENT_ID client{reinterpret_cast<HANDLE>(ULONG_PTR(pid)), reinterpret_cast<HANDLE>(ULONG_PTR(tid))};
            HANDLE handle = nullptr;
            StepOutcome out;
            out.has_status = true;
            out.status = ZwOpenThread(&handle, THREAD_QUERY_LIMITED_INFORMATION, &attributes, &client);
            if (!NT_SUCCESS(out.status)) handle = nullptr;
            c.machine.KeepHandle(c.keep, handle);
            out.result["handle"] = handle != nullptr ? json(c.keep) : json(nullptr);
            return out;
        },
        Step::Keeps::Must);
    t["close_handle"] = Action({{"handle", true}}, [](StepContext &c) {
        const Argument arg = c.Arg("handle");
        const std::string name = c.TextOf(arg);
        if (!c.machine.HasHandle(name))
            c.ErrorAt(arg, "no handle named '" + name + "' (keep: on OpenProcess or open_thread names one)");
        StepOutcome out;
        out.has_status = true;
        out.status = c.machine.CloseHandle(name);
        return out;
    });
    // What a monitor holding an entry reads from it now: the fields written
    // after the entry was made change under the library's lock.
    t["read_entry"] = Action({{"entry", true}}, [](StepContext &c) {
        const Argument arg = c.Arg("entry");
        std::string why;
        const void *entry = c.machine.KeptEntry(c.TextOf(arg), &why);
        if (entry == nullptr) c.ErrorAt(arg, why);
        StepOutcome out;
        out.result["entry"] = ProcessEntryJson(*static_cast<const ProcessEntry *>(entry), false);
        return out;
    });
    t["process_table"] = Action({}, [](StepContext &c) {
        void *inspect = c.machine.Symbol("TexprtInspectProcessTable");
        if (!c.machine.loaded()) c.ExportAddress("TexprtInspectProcessTable");  // the error for an unloaded image
        if (inspect == nullptr)
            c.Error("the image has no TexprtInspectProcessTable, the host image's view of the process table "
                    "(process/inspect.h), so its table cannot be shown");
        TableView view;
        ProcessTableInspection inspection{};
        inspection.Context = &view;
        inspection.VisitEntry = TableView::Entry;
        inspection.VisitDeferred = TableView::Deferred;
        reinterpret_cast<VOID NTAPI (*)(ProcessTableInspection *)>(inspect)(&inspection);
        StepOutcome out;
        out.result["ids"] = view.ids;
        out.result["entries"] = view.entries;
        out.result["deferred_deletes"] = view.deferred;
        out.result["entry_count"] = inspection.EntryCount;
        out.result["deferred_count"] = inspection.DeferredCount;
        return out;
    });
}

}  // namespace sim
