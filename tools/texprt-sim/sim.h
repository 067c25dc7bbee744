// texprt-sim internals: the scenario, the simulated machine, and the table
// of steps (exports and machine actions).
#pragma once

#include <hk/hk.h>
#include <nlohmann/json.hpp>
#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

using json = nlohmann::ordered_json;

// An error in the scenario, with its place.
struct ScenarioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
[[noreturn]] void Fail(const std::string &file, const YAML::Node &node, const std::string &message);

// YAML to JSON with scalar types: quoted scalars are strings; plain ones
// that read as numbers (decimal or 0x hex), booleans or null become those.
json ToJson(const YAML::Node &node);
// Numbers given as JSON numbers or as number-like strings.
bool AsNumber(const json &value, uint64_t *out);

// The subset match of `expect:`. Returns an empty string when `actual`
// holds everything `expected` says, else "field: expected X, got Y".
std::string SubsetMismatch(const json &expected, const json &actual, const std::string &path);

// Times as scenarios write them and as records show them: system time (100 ns
// ticks since 1601) from 'YYYY-MM-DD HH:MM:SS' (UTC), and back, with the
// fraction of a second when there is one.
std::optional<int64_t> ParseTimeText(const std::string &text);
std::string TimeText(int64_t ticks);
// {time, ticks}; time is null for 0, which a process reports for "no time".
json TimeJson(int64_t ticks);

// A status by the name the host knows it by (STATUS_ACCESS_DENIED).
std::optional<int32_t> StatusByName(const std::string &name);

// SIDs as S-1-... text: the bytes of one, and the text of the SID at `sid`
// ("" when the bytes do not hold a whole one within `available`).
std::optional<std::vector<uint8_t>> SidFromText(const std::string &text);
std::string SidText(const uint8_t *sid, size_t available);

// The scenario name of a parameter: PrefixLength becomes prefix_length,
// IoObject io_object.
std::string SnakeCase(std::string_view name);
// The accepted name closest to a misspelt one, or "" when none is close.
std::string ClosestName(const std::string &given, const std::vector<std::string> &accepted);

class Machine;

// One argument of a step, or one field of a mapping argument: the key
// (whose line errors name) and the value.
struct Argument {
    std::string name;  // as errors show it: "preferred", "actor.pid"
    YAML::Node key, value;
    bool IsNull() const { return value.IsNull() || ToJson(value).is_null(); }
};

// An argument a step accepts, and whether the step needs it.
struct ArgumentSpec {
    std::string name;
    bool required = false;
};

// What a step handler gets: the machine and the step with its arguments.
// Every error names the scenario file and the line of the key at fault.
struct StepContext {
    Machine &machine;
    const std::string &file;
    const YAML::Node &node;  // the step
    std::string step_name;   // the export or action
    // The name a step's `keep:` gives what it hands out (a handle, a
    // process entry); empty without one.
    std::string keep = {};

    // Refuses an argument the step does not accept (naming the accepted
    // ones), one given twice, and a required one left out.
    void CheckArguments(const std::vector<ArgumentSpec> &accepted) const;

    std::optional<Argument> Find(const std::string &name) const;
    Argument Arg(const std::string &name) const;  // a missing one is an error
    bool Has(const std::string &name) const;      // given and not null

    // Argument values by name, with errors at the argument's line.
    uint64_t Number(const std::string &name) const { return NumberOf(Arg(name)); }
    uint64_t Number(const std::string &name, uint64_t fallback) const {
        return Has(name) ? Number(name) : fallback;
    }
    bool Flag(const std::string &name, bool fallback) const { return Has(name) ? FlagOf(Arg(name)) : fallback; }
    std::string Text(const std::string &name) const { return TextOf(Arg(name)); }

    // Values of one argument or field. Numbers are plain YAML numbers
    // (decimal or 0x hex) or true/false; text is a string, and a plain
    // number is taken as its text; a status is a number or a status name;
    // a time is ticks or 'YYYY-MM-DD HH:MM:SS'.
    uint64_t NumberOf(const Argument &arg, uint64_t maximum = UINT64_MAX) const;
    int32_t StatusOf(const Argument &arg) const;
    int64_t TimeOf(const Argument &arg) const;
    int64_t SignedOf(const Argument &arg, int64_t minimum, int64_t maximum) const;
    bool FlagOf(const Argument &arg) const;
    std::string TextOf(const Argument &arg) const;
    std::vector<uint8_t> HexOf(const Argument &arg) const;
    // The fields of a mapping argument, each checked against the accepted names.
    std::map<std::string, Argument> FieldsOf(const Argument &arg, const std::vector<std::string> &accepted) const;

    [[noreturn]] void Error(const std::string &message) const;  // at the step
    [[noreturn]] void ErrorAt(const Argument &arg, const std::string &message) const;

    // An export of the loaded image; a step that needs one while the image
    // is unloaded is an error at its line.
    template <typename Fn>
    Fn *Export(const char *name) const {
        return reinterpret_cast<Fn *>(ExportAddress(name));
    }
    void *ExportAddress(const char *name) const;
};

// A step's outcome: status (for NTSTATUS returns), and results by field name.
struct StepOutcome {
    bool has_status = false;
    int32_t status = 0;
    json result = json::object();
    // The step unloaded the image: the record carries the pool report.
    bool unloaded = false;
};

using StepHandler = std::function<StepOutcome(StepContext &)>;

// A step of the table: the arguments it accepts and what it does. A step
// whose arguments depend on one of them (the event action's kind) checks
// them itself.
struct Step {
    std::vector<ArgumentSpec> arguments;
    StepHandler run;
    bool checks_own_arguments = false;
    // What `keep:` may name: none, or a handle or process entry the step
    // hands out (required: a handle nobody could close is no use).
    enum class Keeps { Nothing, May, Must } keeps = Keeps::Nothing;
};

class Machine {
public:
    Machine(std::filesystem::path scenario_dir, std::string image_path);
    ~Machine();

    void Boot(const YAML::Node &machine_block, const std::string &file);
    // Loads the image afresh (new static storage) and calls DllInitialize.
    // When that fails, the image is unloaded again without DllUnload, as the
    // kernel does.
    int32_t LoadLibrary(PUNICODE_STRING registry_path = nullptr);
    // DllUnload and the image's unload.
    int32_t UnloadLibrary();
    // The image alone, for the DllInitialize and DllUnload steps, which call
    // those exports themselves.
    void LoadImage();
    void UnloadImage() { image_.Unload(); }
    bool loaded() const { return image_.Loaded(); }

    void *Symbol(const char *name) const { return image_.Symbol(name); }
    PDRIVER_OBJECT Driver(const std::string &name);
    // A minifilter handle: opaque to the library, one per name.
    PFLT_FILTER Filter(const std::string &name);
    const std::filesystem::path &scenario_dir() const { return scenario_dir_; }
    const std::filesystem::path &root() const { return root_; }

    // An object a monitor keeps across calls, by its scenario name:
    // zero-filled on first use. Null with `conflict` set when the name
    // already stands for an object of another type.
    template <typename T>
    T *Named(const std::string &name, const std::string &type, std::string *conflict) {
        return static_cast<T *>(NamedBlock(name, type, sizeof(T), conflict));
    }
    // Memory the library may keep a pointer to after the call (a borrowed
    // actor block): kept until the scenario ends.
    std::vector<uint64_t> &Keep(std::vector<uint64_t> words);
    bool IsKept(const void *address) const;

    // Machine contents shared by the machine block and the actions.
    void WriteFile(const YAML::Node &entry, const std::string &file, bool must_exist);
    void SetRegistryValue(const std::string &key, const YAML::Node &values, const std::string &file);

    // Waits until every work item the library has queued so far has run,
    // so that what a step prints does not depend on when the library's
    // work thread got to it.
    void SettleLibraryWork();
    // Moves the manual clock a millisecond at a time (on a grid that starts
    // at boot), letting the library's queued work run after each step.
    void AdvanceClock(int64_t ticks);

    // Handles a scenario keeps by name (`keep:`), until close_handle or the
    // end of the run; null is kept too, for a call that returned none.
    bool HasHandle(const std::string &name) const { return handles_.count(name) != 0; }
    HANDLE Handle(const std::string &name) const { return handles_.at(name); }
    void KeepHandle(const std::string &name, HANDLE handle) { handles_[name] = handle; }
    NTSTATUS CloseHandle(const std::string &name);
    std::vector<std::string> OpenHandles() const;
    void CloseAllHandles();

    // Process entries handed out to the scenario: its balance of references
    // per process id (taken by the calls that hand an entry out, given back
    // by DereferenceProcess), and the entries it named with keep:.
    void EntryHandedOut(const void *entry, uint32_t process_id, const std::string &keep);
    void EntryGivenBack(uint32_t process_id) { --references_[process_id]; }
    // The entry a name stands for while the scenario holds a reference on
    // it; null, with the reason, once reading it could read freed memory.
    const void *KeptEntry(const std::string &name, std::string *why) const;
    // The table was emptied (a failed phase 1, an unload): every entry the
    // scenario was handed is gone, whatever it holds.
    void ForgetEntries(const std::string &why);
    // Process ids whose balance is not zero.
    std::map<uint32_t, int64_t> UnbalancedReferences() const;
    void ClearReferences() { references_.clear(); }

private:
    void *NamedBlock(const std::string &name, const std::string &type, size_t size, std::string *conflict);

    struct NamedObject {
        std::string type;
        std::vector<uint64_t> words;
    };
    std::filesystem::path scenario_dir_, root_;
    std::string image_path_;
    hk::Image image_;
    std::map<std::string, PDRIVER_OBJECT> drivers_;
    std::map<std::string, std::unique_ptr<uint64_t>> filters_;
    std::map<std::string, NamedObject> objects_;
    std::vector<std::unique_ptr<std::vector<uint64_t>>> kept_;
    std::map<std::string, HANDLE> handles_;
    std::map<uint32_t, int64_t> references_;
    // The entry the scenario last got for each id, and the named ones.
    std::map<uint32_t, const void *> latest_entry_;
    struct KeptEntryName {
        const void *entry;
        uint32_t process_id;
    };
    std::map<std::string, KeptEntryName> entry_names_;
    std::string entries_forgotten_;  // why the named entries went, if they did
    int64_t clock_grid_origin_ = 0;
    uint64_t settled_at_calls_ = UINT64_MAX;  // pool calls when nothing was left to run
};

// The step table: a call step for every export in
// include/texprt_exports.inc, and the machine actions.
const std::map<std::string, Step> &Exports();
const std::map<std::string, Step> &Actions();
// The filter event steps: the `event` action.
void AddEventActions(std::map<std::string, Step> &actions);
// The process steps: start_process, exit_process, threads and their
// handles, read_entry and process_table.
void AddProcessActions(std::map<std::string, Step> &actions);
// The processes of the machine block, started at boot.
void StartMachineProcesses(Machine &machine, const YAML::Node &processes, const std::string &file);

// Bytes from hexadecimal digits (white space ignored); an error names the node.
std::vector<uint8_t> HexBytes(const std::string &text, const std::string &file, const YAML::Node &node);

std::string StatusText(int32_t status);
std::string HexText(uint64_t value, int width = 8);

// Replays a scenario. Returns 0 when it ran (and with --check, every expect
// block held and nothing was left behind), 1 on a check that failed, 2 on an
// error in the scenario.
struct RunOptions {
    std::string scenario;
    std::string image;
    bool check = false;
    bool as_json = false;
};
int RunScenario(const RunOptions &options, std::ostream &out, std::ostream &err);

}  // namespace sim
