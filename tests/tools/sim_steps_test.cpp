// texprt-sim's step table: a call step for every export in the list, named
// arguments that follow the parameters, argument errors at the right line,
// and bindings that hand the library what the scenario says.
#include "sim.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct ListedExport {
    std::string name;
    std::string parameters;  // "DriverObject, Preferred"
};

// The list read on its own, not through the runner's registration, so that
// an export the runner leaves out is noticed.
const std::vector<ListedExport> &ExportList() {
    static const std::vector<ListedExport> list = {
#define TEXPRT_EXPORT_ENTRY(Name, MaximumIrql, ...) {#Name, #__VA_ARGS__},
#include "include/texprt_exports.inc"
#undef TEXPRT_EXPORT_ENTRY
    };
    return list;
}

std::vector<std::string> Split(const std::string &list) {
    std::vector<std::string> names;
    std::string current;
    for (char c : list) {
        if (c == ',') {
            names.push_back(current);
            current.clear();
        } else if (c != ' ') {
            current += c;
        }
    }
    if (!current.empty()) names.push_back(current);
    return names;
}

TEST(SimSteps, EveryExportInTheListHasAStepWithItsParametersAsArguments) {
    ASSERT_GT(ExportList().size(), 60u);
    for (const auto &entry : ExportList()) {
        const auto step = sim::Exports().find(entry.name);
        ASSERT_NE(step, sim::Exports().end()) << entry.name << " is in the export list but has no call step";
        std::vector<std::string> expected, actual;
        for (const auto &p : Split(entry.parameters)) expected.push_back(sim::SnakeCase(p));
        for (const auto &a : step->second.arguments) actual.push_back(a.name);
        EXPECT_EQ(actual, expected) << entry.name;
    }
    EXPECT_EQ(sim::Exports().size(), ExportList().size()) << "a call step for something the list does not export";
}

TEST(SimSteps, OnlyDocumentedParametersMayBeLeftOut) {
    // Every parameter is required but these: the pointers texprt.h lets a
    // monitor pass as null, the counts and sizes that restate a list's
    // length, and the app-blocking verdict the runner provides.
    const std::vector<std::string> optional = {
        "io_object", "strings", "dump_data", "value_name", "remote_address", "command_line", "parent_image_path",
        "string_count", "dump_size", "actor_size", "size", "result"};
    for (const auto &[name, step] : sim::Exports()) {
        for (const auto &a : step.arguments) {
            const bool listed = std::find(optional.begin(), optional.end(), a.name) != optional.end();
            // TcTFeCleanupResult's and the matchers' result is a FilterResult,
            // which must be named; only the app-blocking one is the runner's.
            const bool app_blocking_result = a.name == "result" && name == "TcTFeMatchesProcessAppBlockingRuleSet";
            if (a.name == "result") EXPECT_EQ(a.required, !app_blocking_result) << name << " " << a.name;
            else EXPECT_EQ(a.required, !listed) << name << " " << a.name;
        }
    }
}

TEST(SimSteps, ParameterNamesBecomeSnakeCase) {
    struct Case {
        const char *c_name, *scenario_name;
    } cases[] = {
        {"Preferred", "preferred"},         {"DriverObject", "driver_object"}, {"PrefixLength", "prefix_length"},
        {"TimeLow", "time_low"},            {"IoObject", "io_object"},         {"Available", "available"},
        {"ParentImagePath", "parent_image_path"}, {"UNCPath", "unc_path"},    {"Win32ImagePath", "win32_image_path"},
        {"SizeHigh", "size_high"},          {"RuleId", "rule_id"},             {"A", "a"},
    };
    for (const auto &c : cases) EXPECT_EQ(sim::SnakeCase(c.c_name), c.scenario_name) << c.c_name;
}

TEST(SimSteps, ClosestNameOnlyForNearMisses) {
    const std::vector<std::string> names = {"driver_object", "preferred"};
    EXPECT_EQ(sim::ClosestName("prefered", names), "preferred");
    EXPECT_EQ(sim::ClosestName("preffered", names), "preferred");
    EXPECT_EQ(sim::ClosestName("driver", names), "");
    EXPECT_EQ(sim::ClosestName("time", names), "");
}

// One step of the table from its YAML text, as the runner runs it.
class StepTest : public ::testing::Test {
protected:
    StepTest() : machine_(std::filesystem::temp_directory_path(), TEXPRT_IMAGE_PATH) {
        machine_.Boot(YAML::Load("{}"), "t.yaml");
    }

    sim::StepOutcome Run(const std::string &text) {
        step_ = YAML::Load(text);
        const bool is_call = bool(step_["call"]);
        const std::string name = (is_call ? step_["call"] : step_["action"]).as<std::string>();
        const auto &table = is_call ? sim::Exports() : sim::Actions();
        const sim::Step &step = table.at(name);
        sim::StepContext context{machine_, file_, step_, name};
        if (!step.checks_own_arguments) context.CheckArguments(step.arguments);
        return step.run(context);
    }

    // The error a step gives: "t.yaml:LINE: message".
    std::string ErrorOf(const std::string &text) {
        try {
            Run(text);
        } catch (const sim::ScenarioError &e) {
            return e.what();
        }
        return "(no error)";
    }

    sim::Machine machine_;
    const std::string file_ = "t.yaml";
    YAML::Node step_;
};

TEST_F(StepTest, ArgumentErrorsNameTheLineAndTheProblem) {
    // None of these needs the image: arguments are bound before the call.
    struct Case {
        const char *step;
        const char *error;  // the start of the message, after the file name
    } cases[] = {
        {"call: TcSystemsInitializePhase0\nargs:\n  driver_object: a\n  prefered: true\n",
         "t.yaml:4: TcSystemsInitializePhase0 takes no argument 'prefered' (did you mean 'preferred'?)"},
        {"call: TcSystemsInitializePhase0\nargs: {driver_object: a}\n",
         "t.yaml:1: TcSystemsInitializePhase0: missing argument 'preferred'"},
        {"call: TcSystemsInitializePhase0\nargs:\n  driver_object: a\n  preferred: true\n  preferred: false\n",
         "t.yaml:5: TcSystemsInitializePhase0: argument 'preferred' is given twice"},
        {"call: TcIsDiskRuleNotify\nargs:\n  operation: 0x100\n",
         "t.yaml:3: TcIsDiskRuleNotify: operation must be at most 0xFF"},
        {"call: TcIsDiskRuleNotify\nargs: {operation: -1}\n", "t.yaml:2: TcIsDiskRuleNotify: operation must not be negative"},
        {"call: TcIsDiskRuleNotify\nargs: {operation: '2'}\n",
         "t.yaml:2: TcIsDiskRuleNotify: operation must be a number or true/false, not text '2'"},
        {"call: TcIsDiskRuleNotify\nargs: {operation: [2]}\n",
         "t.yaml:2: TcIsDiskRuleNotify: operation must be a number or true/false, not a list"},
        {"call: TcNotifyDriverUnload\nargs: {preferred: ~}\n",
         "t.yaml:2: TcNotifyDriverUnload: preferred is a number from 0 to 0xFF, or true/false; null is for pointers only"},
        {"call: EventWriteEventHBBWLFailure\nargs: {status: 0x100000000}\n",
         "t.yaml:2: EventWriteEventHBBWLFailure: status must be from"},
        {"call: TcEventWrite\nargs: {message_id: 1, final_status: 0, strings: text}\n",
         "t.yaml:2: TcEventWrite: strings is a list of text"},
        {"call: TcEventWriteDriverStart\nargs: {message_id: 1, version_text: {a: 1}}\n",
         "t.yaml:2: TcEventWriteDriverStart: version_text must be text, not a mapping"},
        {"call: TcTFeMatchesProcessAppBlockingRuleSet\nargs: {digest: abcd}\n",
         "t.yaml:2: TcTFeMatchesProcessAppBlockingRuleSet: digest is a SHA-256 digest"},
        {"call: TcTFeMatchesProcessAppBlockingRuleSet\nargs: {digest: xy}\n", "t.yaml:2: hex: 'x' is not"},
        {"call: TcTFeMatchesProcessAppBlockingRuleSet\nargs:\n  digest: 0000000000000000000000000000000000000000000000000000000000000000\n  result: r1\n",
         "t.yaml:4: TcTFeMatchesProcessAppBlockingRuleSet: result is the runner's own record"},
        {"call: TcTFeUnsetBaselineFlagFileRuleSet\nargs:\n  entries:\n    - 12\n",
         "t.yaml:4: TcTFeUnsetBaselineFlagFileRuleSet: entries[0] must be a rule id"},
        {"call: TcTFeUnsetBaselineFlagFileRuleSet\nargs:\n  entries:\n    - {list: fim}\n",
         "t.yaml:4: TcTFeUnsetBaselineFlagFileRuleSet: entries[0] needs rule_id"},
        {"call: TcTFeUnsetBaselineFlagFileRuleSet\nargs:\n  entries:\n    - {rule_id: f11e0000-0000-4000-8000-000000000001,\n       flags: 2}\n",
         "t.yaml:5: TcTFeUnsetBaselineFlagFileRuleSet: entries[0] has no field 'flags'"},
        {"call: TcTFeMatchesMonitorFileRuleSet\nargs:\n  object: f1\n  state: {exempt: [1, 2]}\n  result: r1\n",
         "t.yaml:4: TcTFeMatchesMonitorFileRuleSet: state.exempt lists the four exempt masks"},
        {"call: TcTFeMatchesMonitorFileRuleSet\nargs:\n  object: 7\n  state: w1\n  result: r1\n",
         "t.yaml:3: TcTFeMatchesMonitorFileRuleSet: object names a FileObject"},
        {"call: TcTFeAddSystemEventInfo\nargs:\n  object: s1\n  time_low: 1\n  time_high: 0\n  actor: {size: 4}\n",
         "t.yaml:6: TcTFeAddSystemEventInfo: actor has no field 'size'"},
        {"action: write_file\nargs:\n  path: 'C:\\a'\n  txt: a\n", "t.yaml:4: write_file takes no argument 'txt' (did you mean 'text'?)"},
        {"action: set_value\nargs: {key: k, name: n}\n", "t.yaml:1: set_value: missing argument 'value'"},
        {"action: advance_clock\nargs: {seconds: soon}\n", "t.yaml:2: advance_clock: seconds must be a number"},
        {"action: event\nargs:\n  kind: system\n  name: x\n  operation: 1\n",
         "t.yaml:5: event of kind system takes no argument 'operation'"},
        {"action: event\nargs:\n  kind: file\n", "t.yaml:1: event of kind file: missing argument 'name'"},
        {"action: event\nargs:\n  kind: file\n  name: x\n  actor: {pid: 1, tdi: 2}\n",
         "t.yaml:5: event of kind file: actor has no field 'tdi' (did you mean 'tid'?)"},
        {"action: event\nargs:\n  kind: network\n  local: {address: a, prot: 1}\n",
         "t.yaml:4: event of kind network: local has no field 'prot' (did you mean 'port'?)"},
        {"action: event\nargs:\n  kind: file\n  name: x\n  whitelist:\n    exmept: [0, 0, 0, 0]\n",
         "t.yaml:6: event of kind file: whitelist has no field 'exmept' (did you mean 'exempt'?)"},
    };
    for (const auto &c : cases) {
        const std::string error = ErrorOf(c.step);
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.step << "\ngave: " << error;
    }
}

TEST_F(StepTest, ACallNeedsTheImageAndDllInitializeNeedsItGone) {
    // Arguments that bind, then the image's state decides.
    EXPECT_EQ(ErrorOf("call: TcIsFileSystemCaptureEnabled\n").rfind(
                  "t.yaml:1: TcIsFileSystemCaptureEnabled: the image is not loaded", 0),
              0u);
    EXPECT_EQ(ErrorOf("action: store\n").rfind("t.yaml:1: store: the image is not loaded", 0), 0u);
    EXPECT_EQ(Run("call: DllInitialize\nargs: {registry_path: null}\n").status, STATUS_SUCCESS);
    EXPECT_TRUE(machine_.loaded());
    EXPECT_EQ(ErrorOf("call: DllInitialize\nargs: {registry_path: 'x'}\n")
                  .rfind("t.yaml:1: DllInitialize: the image is loaded already", 0),
              0u);
    const sim::StepOutcome unloaded = Run("call: DllUnload\n");
    EXPECT_TRUE(unloaded.unloaded);
    EXPECT_EQ(unloaded.status, STATUS_SUCCESS);
    EXPECT_FALSE(machine_.loaded());
    EXPECT_EQ(hk::OutstandingPoolBytes(), 0u);
}

class LoadedStepTest : public StepTest {
protected:
    LoadedStepTest() { EXPECT_EQ(machine_.LoadLibrary(), STATUS_SUCCESS); }
};

TEST_F(LoadedStepTest, CountsAndSizesLeftOutRestateTheirLists) {
    Run("call: TcEventWrite\n"
        "args: {message_id: 0x4006000E, final_status: 0xC0000001, strings: [one, null, two],\n"
        "       dump_data: '0102030405', io_object: network-monitor}\n");
    auto log = hk::EventLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].id, 0x4006000Eu);
    EXPECT_EQ(uint32_t(log[0].final_status), 0xC0000001u);
    // The null slot counts and adds nothing: the log reads the packet's
    // three strings as the two given and the empty end.
    EXPECT_EQ(log[0].number_of_strings, 3);
    EXPECT_EQ(log[0].strings, (std::vector<std::u16string>{u"one", u"two", u""}));
    EXPECT_EQ(log[0].dump_data_size, 5);
    EXPECT_EQ(log[0].source, "tnmon");
}

TEST_F(LoadedStepTest, ACountAboveItsListReadsZerosNotPastIt) {
    // The runner pads the list, so that the claim reaches the library and
    // the sanitizers see no read past the runner's memory.
    Run("call: TcEventWrite\n"
        "args: {message_id: 0x4006000E, final_status: 0, strings: [one], string_count: 4,\n"
        "       dump_data: '01', dump_size: 8, io_object: system-monitor}\n");
    auto log = hk::EventLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].number_of_strings, 4);
    EXPECT_EQ(log[0].strings, (std::vector<std::u16string>{u"one", u"", u"", u""}));
    EXPECT_EQ(log[0].dump_data_size, 8);
}

TEST_F(LoadedStepTest, PointersLeftOutAreNull) {
    // Without an I/O object there is no packet to write.
    Run("call: TcEventWrite\nargs: {message_id: 0x4006000E, final_status: 0}\n");
    EXPECT_TRUE(hk::EventLog().empty());
    Run("call: TcEventWrite\nargs: {message_id: 0x4006000E, final_status: 0, io_object: system-monitor}\n");
    ASSERT_EQ(hk::EventLog().size(), 1u);
    EXPECT_EQ(hk::EventLog()[0].number_of_strings, 0);
}

TEST_F(LoadedStepTest, NamedObjectsLiveAcrossStepsAndShowWhatTheLibraryWrote) {
    auto init = Run("call: TcTFeInitializeRegistryObject\n"
                    "args: {object: g1, key_name: '\\REGISTRY\\MACHINE\\Software\\', object_type: 0x4}\n");
    EXPECT_EQ(init.status, STATUS_SUCCESS);
    EXPECT_EQ(init.result["g1"]["KeyName"], "\\REGISTRY\\MACHINE\\SOFTWARE");
    EXPECT_TRUE(init.result["g1"]["ValueName"].is_null());  // left out: null, and the field stays empty
    auto add = Run("call: TcTFeAddRegistryEventInfo\n"
                   "args: {object: g1, time_low: 5, time_high: 1, actor: {image: 'C:\\x.exe'}, operation: 3}\n");
    EXPECT_EQ(add.status, STATUS_SUCCESS);
    EXPECT_EQ(add.result["g1"]["EventInfo"]["EventTime"], (uint64_t(1) << 32) + 5);
    EXPECT_EQ(add.result["g1"]["EventInfo"]["ActorInfoSize"], 32 + 8 * 2);  // the block's own size
    EXPECT_EQ(add.result["g1"]["EventInfo"]["ActorInfo"], "the caller's block");
    EXPECT_EQ(add.result["g1"]["KeyName"], "\\REGISTRY\\MACHINE\\SOFTWARE");  // the same object

    // A process object owns a copy of the actor block.
    Run("call: TcTFeInitializeProcessObject\nargs: {object: p1, name: 'C:\\a.exe'}\n");
    auto process = Run("call: TcTFeAddProcessEventInfo\n"
                       "args: {object: p1, time_low: 1, time_high: 0, actor: {}, actor_size: 40, operation: 1}\n");
    EXPECT_EQ(process.result["p1"]["EventInfo"]["ActorInfo"], "the library's copy");
    EXPECT_EQ(process.result["p1"]["EventInfo"]["ActorInfoSize"], 40);

    EXPECT_EQ(Run("call: TcTFeCleanupRegistryObject\nargs: {object: g1}\n").result["g1"]["KeyName"], nullptr);
    EXPECT_EQ(Run("call: TcTFeCleanupProcessObject\nargs: {object: p1}\n").result["p1"]["EventInfo"]["ActorInfo"],
              nullptr);
    EXPECT_EQ(Run("call: TcTFeCleanupRegistryObject\nargs: {object: null}\n").status, STATUS_INVALID_PARAMETER);
}

TEST_F(LoadedStepTest, ReturnsArePrintedByType) {
    // NTSTATUS as a status, UCHAR as a value, a string by its fields, VOID
    // not at all.
    const auto status = Run("call: TcUpdateMaxCacheSize\n");
    EXPECT_TRUE(status.has_status);
    const auto byte = Run("call: TcNotifyFilterAvailabilility\nargs: {available: 7}\n");
    EXPECT_FALSE(byte.has_status);
    EXPECT_EQ(byte.result["value"], 7);
    const auto text = Run("call: TcGetSystemRootDeviceString\n");
    EXPECT_TRUE(text.result.contains("MaximumLength"));
    const auto nothing = Run("call: TcAcquireFilterLock\n");
    EXPECT_FALSE(nothing.has_status);
    EXPECT_TRUE(nothing.result.empty());
    Run("call: TcReleaseFilterLock\n");
    EXPECT_EQ(Run("call: TcSetMiniFilterPointer\nargs: {filter: system-monitor}\n").status, STATUS_SUCCESS);
    EXPECT_EQ(Run("call: TcSetMiniFilterPointer\nargs: {filter: null}\n").status, STATUS_INVALID_PARAMETER);
}

}  // namespace
