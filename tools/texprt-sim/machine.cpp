// The simulated machine of a scenario: one system volume C: backed by a
// temporary host directory, the registry, the files, the manual clock and
// the monitors' driver objects.
#include "sim.h"

#include "base/pool.h"
#include "tools/tpol/lib/tpol.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace sim {

std::vector<uint8_t> HexBytes(const std::string &text, const std::string &file, const YAML::Node &node) {
    std::vector<uint8_t> out;
    int pending = -1;
    for (char c : text) {
        if (std::isspace(static_cast<unsigned char>(c))) continue;
        int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                : (c >= 'a' && c <= 'f')                    ? c - 'a' + 10
                : (c >= 'A' && c <= 'F')                    ? c - 'A' + 10
                                                            : -1;
        if (v < 0) Fail(file, node, std::string("hex: '") + c + "' is not a hexadecimal digit");
        if (pending < 0) pending = v;
        else {
            out.push_back(uint8_t(pending << 4 | v));
            pending = -1;
        }
    }
    if (pending >= 0) Fail(file, node, "hex: an odd number of digits");
    return out;
}

namespace {

constexpr const char *kSystemVolume = "\\Device\\HarddiskVolume2";

void CheckKeys(const YAML::Node &map, std::initializer_list<const char *> allowed, const std::string &what,
               const std::string &file) {
    if (!map.IsMap()) Fail(file, map, what + " must be a mapping");
    for (const auto &item : map) {
        const auto key = item.first.as<std::string>();
        bool ok = false;
        for (const char *a : allowed) ok = ok || key == a;
        if (!ok) Fail(file, item.first, "unknown key '" + key + "' in " + what);
    }
}

}  // namespace

Machine::Machine(std::filesystem::path scenario_dir, std::string image_path)
    : scenario_dir_(std::move(scenario_dir)), image_path_(std::move(image_path)) {
    std::string pattern = (std::filesystem::temp_directory_path() / "texprt-sim-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw ScenarioError("cannot make a temporary directory");
    root_ = pattern;
}

Machine::~Machine() {
    // A scenario that stopped early still unloads the image as the kernel
    // would: DllUnload first, so that the library's threads are gone before
    // its code is.
    CloseAllHandles();
    try {
        if (image_.Loaded()) UnloadLibrary();
    } catch (const ScenarioError &) {
        image_.Unload();  // an image without DllUnload: nothing more to do
    }
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

void Machine::Boot(const YAML::Node &block, const std::string &file) {
    hk::Reset();
    hk::UseManualClock();
    const auto volume = root_ / "HarddiskVolume2";
    std::filesystem::create_directories(volume / "Windows" / "System32");
    hk::AddVolume(kSystemVolume, volume.string());
    hk::CreateSymbolicLink("\\??\\C:", kSystemVolume);
    hk::CreateSymbolicLink("\\SystemRoot", std::string(kSystemVolume) + "\\Windows");
    clock_grid_origin_ = hk::SystemTime();
    if (!block) return;
    CheckKeys(block, {"registry", "files", "clock", "processes"}, "machine", file);
    if (const auto clock = block["clock"]) {
        CheckKeys(clock, {"start", "time_zone_bias_minutes", "boot_time_bias"}, "clock", file);
        if (const auto start = clock["start"]) {
            // Ticks, or 'YYYY-MM-DD HH:MM:SS' (UTC); the machine boots then.
            const json given = start.IsScalar() ? ToJson(start) : json();
            std::optional<int64_t> ticks;
            if (given.is_number_unsigned()) ticks = given.get<int64_t>();
            else if (given.is_string()) ticks = ParseTimeText(given.get<std::string>());
            if (!ticks || *ticks <= 0)
                Fail(file, start, "clock start is a time, 'YYYY-MM-DD HH:MM:SS' (UTC), or a number of ticks");
            hk::UseManualClock(*ticks);
        }
        if (clock["time_zone_bias_minutes"])
            hk::SetTimeZoneBias(clock["time_zone_bias_minutes"].as<int64_t>() * 60 * hk::kTicksPerSecond);
        // What SYSTEM_TIMEOFDAY_INFORMATION reports beside the boot time.
        if (clock["boot_time_bias"]) hk::SetBootTimeBias(clock["boot_time_bias"].as<uint64_t>());
        clock_grid_origin_ = hk::SystemTime();
    }
    if (const auto registry = block["registry"]) {
        if (!registry.IsSequence()) Fail(file, registry, "registry must be a list of keys");
        for (const auto &key : registry) {
            CheckKeys(key, {"key", "values"}, "a registry key", file);
            if (!key["key"]) Fail(file, key, "a registry key needs 'key'");
            const std::string path = key["key"].as<std::string>();
            hk::RegistryCreateKey(path);
            if (key["values"]) SetRegistryValue(path, key["values"], file);
        }
    }
    if (const auto files = block["files"]) {
        if (!files.IsSequence()) Fail(file, files, "files must be a list");
        for (const auto &entry : files) WriteFile(entry, file, false);
    }
    if (const auto processes = block["processes"]) StartMachineProcesses(*this, processes, file);
}

void Machine::SettleLibraryWork() {
    if (!image_.Loaded()) return;
    // Every library work item is a pool block of its own tag, freed by the
    // work thread once its routine has returned: none outstanding means
    // nothing queued is still to run or running. A wait on the thread's
    // state could not say as much, since a thread handed an item still
    // counts as waiting until it wakes.
    const uint64_t calls = hk::PoolAllocationCalls();
    if (calls == settled_at_calls_) return;  // nothing allocated since the queue was last empty
    const auto pending = [] {
        for (const auto &a : hk::OutstandingAllocations())
            if (a.tag == TagWorkItem) return true;
        return false;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (pending()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw ScenarioError("the library's queued work has not finished within 30 seconds");
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    settled_at_calls_ = hk::PoolAllocationCalls();
}

void Machine::AdvanceClock(int64_t ticks) {
    // A timer whose work re-arms it reads the clock when that work runs.
    // Moved in one jump past a due time, the clock would stand wherever the
    // jump had got to when the work thread read it; moved a millisecond at
    // a time and settled after each, a timer armed on the grid falls due at
    // the end of a step and is re-armed there, on the grid again.
    constexpr int64_t kStep = hk::kTicksPerSecond / 1000;
    int64_t now = hk::SystemTime();
    const int64_t target = now + ticks;
    while (now < target) {
        const int64_t offset = (now - clock_grid_origin_) % kStep;
        const int64_t next = std::min(target, now + (offset == 0 ? kStep : kStep - offset));
        hk::AdvanceClock(next - now);
        SettleLibraryWork();
        now = next;
    }
}

NTSTATUS Machine::CloseHandle(const std::string &name) {
    const HANDLE handle = handles_.at(name);
    handles_.erase(name);
    return handle == nullptr ? STATUS_SUCCESS : ZwClose(handle);
}

std::vector<std::string> Machine::OpenHandles() const {
    std::vector<std::string> names;
    for (const auto &[name, handle] : handles_)
        if (handle != nullptr) names.push_back(name);
    return names;
}

void Machine::CloseAllHandles() {
    for (const auto &[name, handle] : handles_)
        if (handle != nullptr) ZwClose(handle);
    handles_.clear();
}

void Machine::EntryHandedOut(const void *entry, uint32_t process_id, const std::string &keep) {
    ++references_[process_id];
    latest_entry_[process_id] = entry;
    if (!keep.empty()) entry_names_[keep] = {entry, process_id};
}

const void *Machine::KeptEntry(const std::string &name, std::string *why) const {
    const auto found = entry_names_.find(name);
    if (found == entry_names_.end()) {
        *why = entries_forgotten_.empty() ? "'" + name + "' names no process entry (keep: on a step that hands one out names it)"
                                          : "'" + name + "' names no process entry: " + entries_forgotten_;
        return nullptr;
    }
    const auto [entry, process_id] = found->second;
    // Only while the scenario holds a reference does the entry stay where
    // it is; after that the library may have freed it.
    const auto balance = references_.find(process_id);
    const auto latest = latest_entry_.find(process_id);
    if (balance == references_.end() || balance->second <= 0 || latest == latest_entry_.end() ||
        latest->second != entry) {
        *why = "the scenario holds no reference on " + name + " (process " + std::to_string(process_id) +
               ") any more, so the library may have freed it";
        return nullptr;
    }
    return entry;
}

void Machine::ForgetEntries(const std::string &why) {
    if (entry_names_.empty() && latest_entry_.empty()) return;
    entry_names_.clear();
    latest_entry_.clear();
    entries_forgotten_ = why;
}

std::map<uint32_t, int64_t> Machine::UnbalancedReferences() const {
    std::map<uint32_t, int64_t> out;
    for (const auto &[process_id, count] : references_)
        if (count != 0) out[process_id] = count;
    return out;
}

void Machine::SetRegistryValue(const std::string &key, const YAML::Node &values, const std::string &file) {
    if (!values.IsMap()) Fail(file, values, "values must map names to {sz: ...}, {dword: ...} and the like");
    for (const auto &item : values) {
        const std::string name = item.first.as<std::string>();
        const YAML::Node v = item.second;
        if (!v.IsMap() || v.size() != 1)
            Fail(file, v, "value '" + name + "' needs one of sz, expand_sz, multi_sz, dword, qword, binary");
        const std::string type = v.begin()->first.as<std::string>();
        const YAML::Node data = v.begin()->second;
        if (type == "sz" || type == "expand_sz") {
            hk::RegistrySetString(key, name, data.as<std::string>(), type == "sz" ? REG_SZ : REG_EXPAND_SZ);
        } else if (type == "dword") {
            hk::RegistrySetDword(key, name, data.as<uint32_t>());
        } else if (type == "qword") {
            hk::RegistrySetQword(key, name, data.as<uint64_t>());
        } else if (type == "binary") {
            hk::RegistrySetValue(key, name, {REG_BINARY, HexBytes(data.as<std::string>(), file, data)});
        } else if (type == "multi_sz") {
            std::u16string all;
            for (const auto &s : data) all += hk::Utf16(s.as<std::string>()) + u'\0';
            all += u'\0';
            std::vector<uint8_t> bytes(all.size() * 2);
            std::memcpy(bytes.data(), all.data(), bytes.size());
            hk::RegistrySetValue(key, name, {REG_MULTI_SZ, bytes});
        } else {
            Fail(file, v, "unknown value type '" + type + "'");
        }
    }
}

void Machine::WriteFile(const YAML::Node &entry, const std::string &file, bool must_exist) {
    CheckKeys(entry, {"path", "policy", "hex", "text", "copy"}, "a file", file);
    if (!entry["path"]) Fail(file, entry, "a file needs 'path'");
    const std::string path = entry["path"].as<std::string>();
    std::vector<uint8_t> bytes;
    int sources = 0;
    if (const auto policy = entry["policy"]) {
        ++sources;
        try {
            bytes = policy.IsMap() ? tpol::Compile(policy, file)
                                   : tpol::CompileFile((scenario_dir_ / policy.as<std::string>()).string());
        } catch (const std::exception &e) {
            Fail(file, policy, std::string("policy: ") + e.what());
        }
    }
    if (const auto hex = entry["hex"]) {
        ++sources;
        bytes = HexBytes(hex.as<std::string>(), file, hex);
    }
    if (const auto text = entry["text"]) {
        ++sources;
        const std::string t = text.as<std::string>();
        bytes.assign(t.begin(), t.end());
    }
    if (const auto copy = entry["copy"]) {
        ++sources;
        std::ifstream in(scenario_dir_ / copy.as<std::string>(), std::ios::binary);
        if (!in) Fail(file, copy, "cannot read " + (scenario_dir_ / copy.as<std::string>()).string());
        bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    if (sources != 1) Fail(file, entry, "a file takes exactly one of policy, hex, text, copy");
    if (must_exist && !hk::FileExists(path)) Fail(file, entry, "replace_file: " + path + " does not exist");
    if (!hk::WriteFile(path, std::string(bytes.begin(), bytes.end()))) Fail(file, entry, "cannot write " + path + ": not on a volume");
}

PDRIVER_OBJECT Machine::Driver(const std::string &name) {
    auto it = drivers_.find(name);
    if (it != drivers_.end()) return it->second;
    const std::string driver_name = name == "system-monitor"    ? "\\Driver\\tmon"
                                    : name == "network-monitor" ? "\\Driver\\tnmon"
                                                                : "\\Driver\\" + name;
    return drivers_[name] = hk::CreateDriverObject(driver_name);
}

void Machine::LoadImage() {
    const std::string error = image_.Load(image_path_);
    if (!error.empty()) throw ScenarioError("cannot load " + image_path_ + ": " + error);
}

int32_t Machine::LoadLibrary(PUNICODE_STRING registry_path) {
    LoadImage();
    const auto initialize = image_.Function<NTSTATUS(PUNICODE_STRING)>("DllInitialize");
    if (initialize == nullptr) throw ScenarioError(image_path_ + " does not export DllInitialize");
    const NTSTATUS status = initialize(registry_path);
    if (!NT_SUCCESS(status)) image_.Unload();
    return status;
}

int32_t Machine::UnloadLibrary() {
    const auto unload = image_.Function<NTSTATUS()>("DllUnload");
    if (unload == nullptr) throw ScenarioError(image_path_ + " does not export DllUnload");
    const int32_t status = unload();
    image_.Unload();
    return status;
}

PFLT_FILTER Machine::Filter(const std::string &name) {
    auto &handle = filters_[name];
    if (!handle) handle = std::make_unique<uint64_t>(0);
    return reinterpret_cast<PFLT_FILTER>(handle.get());
}

void *Machine::NamedBlock(const std::string &name, const std::string &type, size_t size, std::string *conflict) {
    auto found = objects_.find(name);
    if (found == objects_.end()) {
        // Zero-filled, as a monitor prepares an object before its first
        // use; held in 8-byte words so that it is aligned as pool would be.
        found = objects_.emplace(name, NamedObject{type, std::vector<uint64_t>((size + 7) / 8, 0)}).first;
    } else if (found->second.type != type) {
        *conflict = "'" + name + "' is a " + found->second.type + " already, not a " + type;
        return nullptr;
    }
    return found->second.words.data();
}

std::vector<uint64_t> &Machine::Keep(std::vector<uint64_t> words) {
    kept_.push_back(std::make_unique<std::vector<uint64_t>>(std::move(words)));
    return *kept_.back();
}

bool Machine::IsKept(const void *address) const {
    for (const auto &block : kept_)
        if (!block->empty() && address == block->data()) return true;
    return false;
}

}  // namespace sim
