// Replays a scenario: boots the machine, loads the library as the kernel
// loads an export driver, runs every step and prints one record per step.
// After the last step the image is unloaded (unless a DllUnload step did so
// already) and any pool left behind is reported.
#include "sim.h"

#include <optional>

namespace sim {

namespace {

std::string Indent(const std::string &text, const std::string &pad) {
    std::string out = pad;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r') continue;
        out += text[i];
        if (text[i] == '\n' && i + 1 < text.size()) out += pad;
    }
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out;
}

// A result field: short values on one line, a long record (a process
// entry, an actor block) one field a line, nested as it is nested.
void PrintField(const std::string &key, const json &value, const std::string &pad, std::ostream &out) {
    const std::string line = value.is_string() ? value.get<std::string>() : value.dump();
    if (!value.is_object() || value.empty() || pad.size() + key.size() + line.size() <= 100) {
        out << pad << key << " = " << line << "\n";
        return;
    }
    out << pad << key << ":\n";
    for (auto it = value.begin(); it != value.end(); ++it) PrintField(it.key(), *it, pad + "    ", out);
}

void PrintReadable(const json &record, std::ostream &out) {
    std::string head =
        "step " + (record["step"].is_string() ? record["step"].get<std::string>() : record["step"].dump());
    if (record.contains("call")) head += "  " + record["call"].get<std::string>();
    if (record.contains("action")) head += "  [" + record["action"].get<std::string>() + "]";
    if (record.contains("status"))
        head += "  -> " + record["status"].get<std::string>() + " (" + record["status_code"].get<std::string>() + ")";
    out << head << "\n";
    if (record.contains("note")) out << Indent(record["note"].get<std::string>(), "    # ") << "\n";
    if (record.contains("result") && !record["result"].empty()) {
        for (auto it = record["result"].begin(); it != record["result"].end(); ++it)
            PrintField(it.key(), *it, "    ", out);
    }
    for (const auto &entry : record["eventlog"]) {
        out << "    event " << entry["id"].get<std::string>() << " from " << entry["source"].get<std::string>()
            << ":\n"
            << Indent(entry["text"].get<std::string>(), "      | ") << "\n";
    }
    if (record.contains("pool_outstanding_bytes")) {
        out << "    pool outstanding: " << record["pool_outstanding_bytes"] << " bytes\n";
        if (record.contains("leaks")) out << Indent(record["leaks"].get<std::string>(), "      ") << "\n";
        for (const auto &c : record["verifier"]) out << "    verifier: " << c.get<std::string>() << "\n";
    }
}

json EventLogSince(size_t first) {
    json out = json::array();
    const auto log = hk::EventLog();
    for (size_t i = first; i < log.size(); ++i) {
        json entry;
        entry["id"] = HexText(log[i].id);
        entry["source"] = log[i].source;
        entry["strings"] = json::array();
        for (const auto &s : log[i].strings) entry["strings"].push_back(hk::Utf8(s));
        entry["text"] = log[i].text;
        out.push_back(entry);
    }
    return out;
}

// What an unloaded image left behind, and what the scenario did: process
// entry references it took and did not give back (or gave back twice), and
// handles it kept and did not close. The library frees its table at unload
// only when phase 1 has run, so an unbalanced reference need not show as
// pool; it is a monitor's mistake all the same.
void AddPoolReport(json &record, const Machine &machine) {
    record["pool_outstanding_bytes"] = hk::OutstandingPoolBytes();
    if (hk::OutstandingPoolBytes() != 0) record["leaks"] = hk::LeakReport();
    record["verifier"] = hk::VerifierComplaints();
    const auto unbalanced = machine.UnbalancedReferences();
    if (!unbalanced.empty()) {
        json references = json::object();
        for (const auto &[process_id, count] : unbalanced) references[std::to_string(process_id)] = count;
        record["references_held"] = references;
    }
    if (!machine.OpenHandles().empty()) record["handles_open"] = machine.OpenHandles();
}

bool LeftSomethingBehind(const Machine &machine) {
    return hk::OutstandingPoolBytes() != 0 || !hk::VerifierComplaints().empty() ||
           !machine.UnbalancedReferences().empty() || !machine.OpenHandles().empty();
}

void ReportLeftBehind(const std::string &where, const Machine &machine, std::ostream &err) {
    err << where << ": after DllUnload: " << hk::OutstandingPoolBytes() << " pool bytes outstanding, "
        << hk::VerifierComplaints().size() << " verifier complaints\n"
        << hk::LeakReport();
    for (const auto &[process_id, count] : machine.UnbalancedReferences()) {
        const std::string references = std::to_string(count > 0 ? count : -count) + " entry reference" +
                                       (count == 1 || count == -1 ? "" : "s");
        err << "process " << process_id << ": the scenario "
            << (count > 0 ? "still holds " + references : "gave back " + references + " more than it took") << "\n";
    }
    for (const auto &name : machine.OpenHandles()) err << "handle " << name << " was kept and never closed\n";
}

// `as: {pid, tid}`: the step runs as that thread of that process.
void RunAs(StepContext &context, const YAML::Node &as, std::optional<hk::AsThread> &guard) {
    const Argument arg{"as", as, as};
    const auto fields = context.FieldsOf(arg, {"pid", "tid"});
    if (!fields.count("pid")) context.ErrorAt(arg, "as needs pid (and tid, or the process's first running thread)");
    const uint32_t pid = uint32_t(context.NumberOf(fields.at("pid"), 0xFFFFFFFF));
    const uint32_t tid = fields.count("tid") ? uint32_t(context.NumberOf(fields.at("tid"), 0xFFFFFFFF)) : 0;
    try {
        guard.emplace(pid, tid);
    } catch (const std::invalid_argument &) {
        context.ErrorAt(arg, "as: process " + std::to_string(pid) + " has no running thread" +
                                 (tid != 0 ? " " + std::to_string(tid) : "") + " to run the step as");
    }
}

}  // namespace

int RunScenario(const RunOptions &options, std::ostream &out, std::ostream &err) {
    const std::string &file = options.scenario;
    YAML::Node scenario;
    try {
        scenario = YAML::LoadFile(file);
    } catch (const YAML::BadFile &) {
        err << file << ": cannot open\n";
        return 2;
    } catch (const YAML::Exception &e) {
        err << file << ":" << e.mark.line + 1 << ": " << e.msg << "\n";
        return 2;
    }
    auto emit = [&](const json &record) {
        if (options.as_json) out << record.dump() << "\n";
        else PrintReadable(record, out);
        out.flush();
    };

    Machine machine(std::filesystem::path(file).parent_path(), options.image);
    try {
        if (!scenario.IsMap()) Fail(file, scenario, "a scenario is a mapping with 'machine' and 'steps'");
        for (const auto &item : scenario) {
            const auto key = item.first.as<std::string>();
            if (key != "machine" && key != "steps" && key != "description")
                Fail(file, item.first, "unknown key '" + key + "' (expected machine, steps, description)");
        }
        machine.Boot(scenario["machine"], file);
        const NTSTATUS loaded = machine.LoadLibrary();
        if (!NT_SUCCESS(loaded)) {
            err << file << ": DllInitialize failed with " << StatusText(loaded) << "\n";
            return 1;
        }
        const YAML::Node steps = scenario["steps"];
        if (steps && !steps.IsSequence()) Fail(file, steps, "steps must be a list");
        int number = 0;
        for (const auto &step : steps) {
            ++number;
            if (!step.IsMap()) Fail(file, step, "a step is a mapping with 'call' or 'action'");
            for (const auto &item : step) {
                const auto key = item.first.as<std::string>();
                if (key != "call" && key != "action" && key != "args" && key != "expect" && key != "note" &&
                    key != "as" && key != "keep" && key != "fail_allocation")
                    Fail(file, item.first,
                         "unknown key '" + key +
                             "' in a step (expected call, action, args, expect, note, as, keep, fail_allocation)");
            }
            const bool is_call = bool(step["call"]);
            if (is_call == bool(step["action"])) Fail(file, step, "a step has either 'call' or 'action'");
            const YAML::Node name_node = is_call ? step["call"] : step["action"];
            const std::string name = name_node.as<std::string>();
            const auto &table = is_call ? Exports() : Actions();
            const auto found = table.find(name);
            if (found == table.end())
                Fail(file, name_node, std::string(is_call ? "no export named '" : "no action named '") + name + "'");

            const size_t log_before = hk::EventLog().size();
            StepContext context{machine, file, step, name};
            if (const YAML::Node keep = step["keep"]) {
                const json given = keep.IsScalar() ? ToJson(keep) : json();
                if (found->second.keeps == Step::Keeps::Nothing)
                    Fail(file, keep, name + " hands out no handle or process entry for keep: to name");
                if (!given.is_string())
                    Fail(file, keep, "keep: names what the step hands out, e.g. keep: h1");
                context.keep = given.get<std::string>();
            } else if (found->second.keeps == Step::Keeps::Must) {
                Fail(file, step, name + ": keep: names the handle it opens, e.g. keep: t1");
            }
            if (!found->second.checks_own_arguments) context.CheckArguments(found->second.arguments);
            // fail_allocation: N fails the N-th pool allocation of the call
            // (the event action takes it as an argument, for its own calls).
            uint64_t fail_allocation = 0;
            if (const YAML::Node fail = step["fail_allocation"]) {
                if (!is_call) Fail(file, fail, "fail_allocation: is for call steps (the event action takes it as an argument)");
                fail_allocation = context.NumberOf(Argument{"fail_allocation", fail, fail});
                if (fail_allocation == 0) Fail(file, fail, "fail_allocation: counts from 1, the call's first allocation");
            }
            StepOutcome outcome;
            {
                std::optional<hk::AsThread> as;
                if (const YAML::Node as_node = step["as"]) RunAs(context, as_node, as);
                if (fail_allocation != 0) hk::FailNthAllocation(fail_allocation);
                try {
                    outcome = found->second.run(context);
                } catch (...) {
                    hk::ClearAllocationFailures();
                    throw;
                }
                hk::ClearAllocationFailures();
            }
            machine.SettleLibraryWork();

            json record;
            record["step"] = number;
            record[is_call ? "call" : "action"] = name;
            if (step["note"]) record["note"] = step["note"].as<std::string>();
            if (outcome.has_status) {
                record["status"] = StatusText(outcome.status);
                record["status_code"] = HexText(uint32_t(outcome.status));
            }
            record["result"] = outcome.result;
            record["eventlog"] = EventLogSince(log_before);
            if (outcome.unloaded) AddPoolReport(record, machine);
            emit(record);

            const int line = step.Mark().line + 1;
            if (options.check && step["expect"]) {
                const std::string mismatch = SubsetMismatch(ToJson(step["expect"]), record, "");
                if (!mismatch.empty()) {
                    err << file << ":" << line << ": step " << number << " (" << name << "): " << mismatch << "\n";
                    return 1;
                }
            }
            if (options.check && outcome.unloaded && LeftSomethingBehind(machine)) {
                ReportLeftBehind(file + ":" + std::to_string(line), machine, err);
                return 1;
            }
            // A new image starts with a table of its own.
            if (outcome.unloaded) machine.ClearReferences();
        }
    } catch (const ScenarioError &e) {
        err << e.what() << "\n";
        return 2;
    } catch (const YAML::Exception &e) {
        // A value of the machine block read with the wrong type, say.
        err << file << ":" << e.mark.line + 1 << ": " << e.msg << "\n";
        return 2;
    }

    // The last importer has gone: unload, and look for what was left
    // behind. A scenario that unloaded the image itself was reported then.
    if (!machine.loaded()) return 0;
    const size_t log_before = hk::EventLog().size();
    const NTSTATUS unloaded = machine.UnloadLibrary();
    json record;
    record["step"] = "unload";
    record["call"] = "DllUnload";
    record["status"] = StatusText(unloaded);
    record["status_code"] = HexText(uint32_t(unloaded));
    record["result"] = json::object();
    record["eventlog"] = EventLogSince(log_before);
    AddPoolReport(record, machine);
    emit(record);
    if (options.check && LeftSomethingBehind(machine)) {
        ReportLeftBehind(file, machine, err);
        return 1;
    }
    return 0;
}

}  // namespace sim
