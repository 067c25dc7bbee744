// texprt-sim's step table: a call step for every export in the list, named
// arguments that follow the parameters, argument errors at the right line,
// and bindings that hand the library what the scenario says.
#include "sim.h"

#include <gtest/gtest.h>

#include <map>
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
    // length, and the records, buffers and pointers the runner provides for
    // the library to fill (printed after the call).
    const std::vector<std::string> optional = {
        "io_object", "strings", "dump_data", "value_name", "remote_address", "command_line", "parent_image_path",
        "string_count", "dump_size", "actor_size"};
    // Names that are optional in some exports only.
    const std::map<std::string, std::vector<std::string>> optional_in = {
        {"TcTFeUnsetBaselineFlagFileRuleSet", {"size"}},
        {"TcTFeMatchesProcessAppBlockingRuleSet", {"result"}},
        {"GetActorInformation", {"actor", "size"}},
        {"GetActorProcessReference", {"entry"}},
        {"GetThreadExitStatus", {"times"}},
        {"ProcessGetSecurityDescriptor", {"security_information"}},
        {"ProcessGetTokenInformation",
         {"statistics", "virtualization", "integrity_level", "elevation", "elevation_type"}},
    };
    for (const auto &[name, step] : sim::Exports()) {
        for (const auto &a : step.arguments) {
            bool listed = std::find(optional.begin(), optional.end(), a.name) != optional.end();
            const auto own = optional_in.find(name);
            if (own != optional_in.end())
                listed = listed || std::find(own->second.begin(), own->second.end(), a.name) != own->second.end();
            EXPECT_EQ(a.required, !listed) << name << " " << a.name;
        }
    }
}

TEST(SimSteps, KeepNamesWhatAStepHandsOut) {
    // A handle or an entry, returned or through a parameter; nothing else.
    const std::map<std::string, sim::Step::Keeps> keeps = {
        {"OpenProcess", sim::Step::Keeps::May},
        {"FindOrCreateProcessEntry", sim::Step::Keeps::May},
        {"FindProcessEntry", sim::Step::Keeps::May},
        {"GetActorProcessReference", sim::Step::Keeps::May},
    };
    for (const auto &[name, step] : sim::Exports()) {
        const auto found = keeps.find(name);
        EXPECT_EQ(step.keeps, found == keeps.end() ? sim::Step::Keeps::Nothing : found->second) << name;
    }
    EXPECT_EQ(sim::Actions().at("open_thread").keeps, sim::Step::Keeps::Must);
    EXPECT_EQ(sim::Actions().at("start_process").keeps, sim::Step::Keeps::Nothing);
}

TEST(SimSteps, TimesStatusesAndSidsAsScenariosWriteThem) {
    EXPECT_EQ(sim::ParseTimeText("2026-01-01 00:00:00"), hk::kDefaultBootTime);
    EXPECT_EQ(sim::ParseTimeText("2026-01-01T00:00:01"), hk::kDefaultBootTime + hk::kTicksPerSecond);
    EXPECT_EQ(sim::ParseTimeText("2026-01-01"), hk::kDefaultBootTime);
    EXPECT_FALSE(sim::ParseTimeText("2026-01-01 00:00:00 extra"));
    EXPECT_FALSE(sim::ParseTimeText("2026-13-01 00:00:00"));
    EXPECT_FALSE(sim::ParseTimeText("yesterday"));
    EXPECT_EQ(sim::TimeText(hk::kDefaultBootTime), "2026-01-01 00:00:00");
    EXPECT_EQ(sim::TimeText(hk::kDefaultBootTime + 86400 * hk::kTicksPerSecond + 5000000), "2026-01-02 00:00:00.5");
    EXPECT_EQ(sim::TimeText(*sim::ParseTimeText("2024-02-29 23:59:59")), "2024-02-29 23:59:59");
    EXPECT_TRUE(sim::TimeJson(0)["time"].is_null());

    EXPECT_EQ(sim::StatusByName("STATUS_ACCESS_DENIED"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(sim::StatusByName("STATUS_PENDING"), STATUS_PENDING);
    EXPECT_FALSE(sim::StatusByName("STATUS_NO_SUCH_THING"));

    const auto sid = sim::SidFromText("S-1-5-21-1111-2222-3333-1001");
    ASSERT_TRUE(sid);
    EXPECT_EQ(sid->size(), 28u);
    EXPECT_EQ(sim::SidText(sid->data(), sid->size()), "S-1-5-21-1111-2222-3333-1001");
    EXPECT_EQ(sim::SidText(sid->data(), sid->size() - 1), "") << "a SID cut short is no SID";
    EXPECT_EQ(sim::SidText(sim::SidFromText("S-1-0x10-3")->data(), 12), "S-1-16-3");
    for (const char *bad : {"S-1", "S-2-5-18", "S-1-5-", "X-1-5-18", "S-1-5-4294967296", "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"})
        EXPECT_FALSE(sim::SidFromText(bad)) << bad;
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
        if (step_["keep"]) context.keep = step_["keep"].as<std::string>();
        if (!step.checks_own_arguments) context.CheckArguments(step.arguments);
        sim::StepOutcome outcome = step.run(context);
        machine_.SettleLibraryWork();
        return outcome;
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
        // Process steps and the converters of the process table's exports.
        {"call: ProcessGetSecurityDescriptor\nargs: {process: h9, security_information: 0, length: 0}\n",
         "t.yaml:2: ProcessGetSecurityDescriptor: no handle named 'h9'"},
        {"call: ProcessGetTokenInformation\nargs:\n  token: {pid: 1000}\n",
         "t.yaml:3: ProcessGetTokenInformation: token has no field 'pid'; its fields: process_handle, token_handle"},
        {"call: ProcessGetTokenInformation\nargs:\n  token: {process_handle: 4, token_handle: 4}\n",
         "t.yaml:3: ProcessGetTokenInformation: token is the name of a kept handle"},
        {"call: ProcessGetTokenInformation\nargs:\n  token: null\n  statistics: '00'\n",
         "t.yaml:4: ProcessGetTokenInformation: statistics is the runner's own buffer"},
        {"call: GetActorInformation\nargs: {actor: a1}\n", "t.yaml:2: GetActorInformation: actor is the runner's own pointer"},
        {"call: IsActorWhiteListed\n", "t.yaml:1: IsActorWhiteListed: missing argument 'process_id'"},
        {"call: ProcessGetSecurityDescriptor\nargs: {process: null}\n",
         "t.yaml:1: ProcessGetSecurityDescriptor: missing argument 'length'"},
        {"action: start_process\nargs:\n  pid: 1000\n  comand_line: x\n",
         "t.yaml:4: start_process takes no argument 'comand_line' (did you mean 'command_line'?)"},
        {"action: start_process\nargs: {pid: 1001}\n",
         "t.yaml:2: start_process: pid: process and thread ids are multiples of 4 above 0"},
        {"action: start_process\nargs:\n  user: S-5-1\n", "t.yaml:3: start_process: user: 'S-5-1' is not a SID"},
        {"action: start_process\nargs:\n  token_fails: [opne]\n",
         "t.yaml:3: start_process: token_fails[0] has no item 'opne' (did you mean 'open'?)"},
        {"action: start_process\nargs:\n  token_fails: {open: STATUS_NOPE}\n",
         "t.yaml:3: start_process: token_fails.open: 'STATUS_NOPE' is not a status name the host knows"},
        {"action: start_process\nargs:\n  unmapped: [image]\n",
         "t.yaml:3: start_process: unmapped[0] has no item 'image'"},
        {"action: start_process\nargs:\n  peb: absent\n", "t.yaml:3: start_process: peb has no item 'absent'"},
        {"action: start_process\nargs:\n  created: 'last tuesday'\n", "t.yaml:3: start_process: created: time 'last tuesday'"},
        {"action: start_process\nargs:\n  threads: [{tid: 8, kernel: 1}]\n",
         "t.yaml:3: start_process: threads[0] has no field 'kernel'"},
        {"action: start_process\nargs:\n  descriptor: '0100'\n",
         "t.yaml:3: start_process: the machine cannot start this process: the security descriptor"},
        {"action: exit_process\nargs: {pid: 4}\n", "t.yaml:2: exit_process: no running process 4 to end"},
        {"action: exit_thread\nargs: {pid: 4, tid: 4}\n", "t.yaml:2: exit_thread: process 4 has no running thread 4"},
        {"action: read_entry\nargs: {entry: e9}\n", "t.yaml:2: read_entry: 'e9' names no process entry"},
        {"action: close_handle\nargs: {handle: h9}\n", "t.yaml:2: close_handle: no handle named 'h9'"},
    };
    for (const auto &c : cases) {
        const std::string error = ErrorOf(c.step);
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.step << "\ngave: " << error;
    }
}

TEST_F(StepTest, TheMachineBlockStartsItsProcesses) {
    auto error = [&](const std::string &text) -> std::string {
        try {
            sim::Machine machine(std::filesystem::temp_directory_path(), TEXPRT_IMAGE_PATH);
            machine.Boot(YAML::Load(text), "m.yaml");
        } catch (const sim::ScenarioError &e) {
            return e.what();
        }
        return "(no error)";
    };
    EXPECT_EQ(error("processes:\n  - {pid: 1000, image: x}\n  - {pid: 1004, imgae: x}\n"),
              "m.yaml:3: machine: processes[1] has no field 'imgae' (did you mean 'image'?); its fields: pid, parent, "
              "created, image, win32_path, command_line, normalized, peb, parameters, unmapped, user, integrity, "
              "elevated, elevation_type, virtualization, descriptor, descriptor_fails, token_fails, threads");
    EXPECT_EQ(error("processes:\n  - {pid: 1000}\n  - {pid: 1000}\n").rfind(
                  "m.yaml:3: machine: the machine cannot start this process: id 1000 is taken", 0),
              0u);
    EXPECT_EQ(error("processes:\n  - pid: 1000\n    user: S-1-5-21-x\n"),
              "m.yaml:3: machine: processes[0].user: 'S-1-5-21-x' is not a SID such as S-1-5-21-1111-2222-3333-1001");
    EXPECT_EQ(error("processes: {pid: 1000}\n"), "m.yaml:1: processes must be a list of processes");
    EXPECT_EQ(error("processes:\n  - {pid: 1000, image: x, created: none, threads: [1004, {tid: 1008, created: "
                    "'2026-01-01 00:00:05'}]}\n"),
              "(no error)");
}

TEST_F(StepTest, ACallNeedsTheImageAndDllInitializeNeedsItGone) {
    // Arguments that bind, then the image's state decides.
    EXPECT_EQ(ErrorOf("call: TcIsFileSystemCaptureEnabled\n").rfind(
                  "t.yaml:1: TcIsFileSystemCaptureEnabled: the image is not loaded", 0),
              0u);
    EXPECT_EQ(ErrorOf("action: store\n").rfind("t.yaml:1: store: the image is not loaded", 0), 0u);
    EXPECT_EQ(ErrorOf("action: process_table\n").rfind("t.yaml:1: process_table: the image is not loaded", 0), 0u);
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

TEST_F(LoadedStepTest, ProcessStepsHandOutEntriesAndHandlesAndKeepTheScenariosBalance) {
    Run("call: TcSystemsInitializePhase0\nargs: {driver_object: system-monitor, preferred: true}\n");
    const auto started = Run("action: start_process\n"
                             "args: {pid: 1000, image: '\\Device\\HarddiskVolume2\\a.exe', command_line: 'a.exe -v',\n"
                             "       user: S-1-5-21-1-2-3-1001, threads: [1004, 1008]}\n");
    EXPECT_EQ(started.result["pid"], 1000);
    EXPECT_EQ(started.result["threads"], sim::json::parse("[1004, 1008]"));

    const auto made = Run("call: FindOrCreateProcessEntry\nargs: {process_id: 1000}\nkeep: e1\n");
    EXPECT_EQ(made.result["entry"]["ReferenceCount"], 1);
    EXPECT_EQ(made.result["entry"]["CommandLine"], "-v") << "the arguments alone";
    EXPECT_EQ(made.result["entry"]["ProcessObject"], "process 1000");
    EXPECT_EQ(machine_.UnbalancedReferences(), (std::map<uint32_t, int64_t>{{1000, 1}}));
    EXPECT_EQ(Run("action: read_entry\nargs: {entry: e1}\n").result["entry"]["ProcessId"], 1000);

    // A handle kept by name serves later calls and is closed by name.
    const auto opened = Run("call: OpenProcess\nargs: {process_id: 1000}\nkeep: h1\n");
    EXPECT_EQ(opened.result["handle"]["process_id"], 1000);
    EXPECT_EQ(machine_.OpenHandles(), std::vector<std::string>{"h1"});
    const auto descriptor =
        Run("call: ProcessGetSecurityDescriptor\nargs: {process: h1, security_information: 0, length: 0}\n");
    EXPECT_EQ(descriptor.result["descriptor"]["owner"], "S-1-5-21-1-2-3-1001");
    EXPECT_EQ(descriptor.result["SecurityInformation"], 15);
    EXPECT_GT(descriptor.result["Length"].get<uint64_t>(), 20u);
    EXPECT_EQ(Run("action: close_handle\nargs: {handle: h1}\n").status, STATUS_SUCCESS);
    EXPECT_TRUE(machine_.OpenHandles().empty());

    // A token opened for one call only, and the blocks the call hands out,
    // printed and freed.
    const auto token = Run("call: ProcessGetTokenInformation\nargs: {token: {token_handle: 1000}}\n");
    EXPECT_EQ(token.result["user"]["Sid"], "S-1-5-21-1-2-3-1001");
    EXPECT_EQ(token.result["IntegrityLevel"]["Sid"], "S-1-16-16384");
    EXPECT_EQ(token.result["Statistics"]["AuthenticationId"], "0x3E7");

    // The actor block of the thread the step runs as, checked against its size.
    sim::StepOutcome actor;
    {
        hk::AsThread as(1000, 1008);
        actor = Run("call: GetActorInformation\n");
    }
    EXPECT_EQ(actor.status, STATUS_SUCCESS);
    EXPECT_EQ(actor.result["Actor"]["ThreadId"], 1008);
    EXPECT_EQ(actor.result["Actor"]["Sid"], "S-1-5-21-1-2-3-1001");
    EXPECT_EQ(actor.result["Actor"]["size_check"], "ok");
    EXPECT_EQ(actor.result["Actor"]["size"], actor.result["Size"]);

    EXPECT_EQ(Run("call: GetThreadExitStatus\nargs: {process_id: 1000, thread_id: 1004}\n").status, STATUS_PENDING);

    // The reference given back: the name no longer reads the entry.
    Run("call: DereferenceProcess\nargs: {process_id: 1000, force: 0}\n");
    EXPECT_TRUE(machine_.UnbalancedReferences().empty());
    EXPECT_NE(ErrorOf("action: read_entry\nargs: {entry: e1}\n").find("holds no reference on e1"), std::string::npos);

    // The table as the inspection entry shows it, once the image has one.
    if (machine_.Symbol("TexprtInspectProcessTable") != nullptr) {
        const auto table = Run("action: process_table\n");
        EXPECT_EQ(table.result["ids"], sim::json::parse("[1000]"));
        EXPECT_EQ(table.result["entries"]["1000"]["ReferenceCount"], 0);
    } else {
        EXPECT_NE(ErrorOf("action: process_table\n").find("the image has no TexprtInspectProcessTable"),
                  std::string::npos);
    }

    // A failed phase 1 empties the table; the runner forgets its entries.
    EXPECT_EQ(Run("call: TcSystemsInitializePhase1\n").status, STATUS_INVALID_PARAMETER);
    EXPECT_NE(ErrorOf("action: read_entry\nargs: {entry: e1}\n").find("a failed phase 1 emptied the process table"),
              std::string::npos);
    Run("action: exit_process\nargs: {pid: 1000}\n");
}

TEST_F(LoadedStepTest, TheClockMovesOnAGridSoThatRearmedTimersStayOnIt) {
    // Phase 1 arms the rundown's timer (and, failing here, leaves it to fire
    // once): an ended, unreferenced process's entry goes at the half second,
    // not a tick sooner.
    Run("call: TcSystemsInitializePhase0\nargs: {driver_object: system-monitor, preferred: true}\n");
    Run("call: TcSystemsInitializePhase1\n");
    Run("action: start_process\nargs: {pid: 1000, image: 'a.exe'}\n");
    Run("call: FindOrCreateProcessEntry\nargs: {process_id: 1000}\n");
    Run("call: DereferenceProcess\nargs: {process_id: 1000, force: 0}\n");
    Run("action: exit_process\nargs: {pid: 1000}\n");
    Run("action: advance_clock\nargs: {milliseconds: 499, ticks: 9999}\n");
    EXPECT_NE(Run("call: OpenProcess\nargs: {process_id: 1000}\n").result["handle"], nullptr)
        << "the entry still holds the ended process's object";
    const auto moved = Run("action: advance_clock\nargs: {ticks: 1}\n");
    EXPECT_EQ(moved.result["clock"]["time"], "2026-01-01 00:00:00.5");
    EXPECT_EQ(Run("call: OpenProcess\nargs: {process_id: 1000}\n").result["handle"], nullptr);
}

}  // namespace
