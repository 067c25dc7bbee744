// texprt-sim: runs a scenario against the library on a simulated machine.
//
//   texprt-sim run SCENARIO.yaml [--check] [--json] [--image PATH]
//
// Each step prints one record: the call or action, its status (name and
// code), its results by field name and the event log messages it wrote.
// --json prints one JSON object per line; otherwise a readable report.
// --check compares every expect: block (a subset match) and stops with exit
// status 1 at the first difference.
#include "sim.h"

#include <cstdio>
#include <fstream>
#include <iostream>

namespace {

using sim::json;

struct Options {
    std::string scenario;
    std::string image = TEXPRT_IMAGE_PATH;
    bool check = false;
    bool as_json = false;
};

int Usage() {
    std::cerr << "usage: texprt-sim run SCENARIO.yaml [--check] [--json] [--image PATH]\n";
    return 2;
}

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

void PrintReadable(const json &record) {
    std::string head =
        "step " + (record["step"].is_string() ? record["step"].get<std::string>() : record["step"].dump());
    if (record.contains("call")) head += "  " + record["call"].get<std::string>();
    if (record.contains("action")) head += "  [" + record["action"].get<std::string>() + "]";
    if (record.contains("status"))
        head += "  -> " + record["status"].get<std::string>() + " (" + record["status_code"].get<std::string>() + ")";
    std::cout << head << "\n";
    if (record.contains("note")) std::cout << Indent(record["note"].get<std::string>(), "    # ") << "\n";
    if (record.contains("result") && !record["result"].empty()) {
        for (auto it = record["result"].begin(); it != record["result"].end(); ++it)
            std::cout << "    " << it.key() << " = " << (it->is_string() ? it->get<std::string>() : it->dump())
                      << "\n";
    }
    for (const auto &entry : record["eventlog"]) {
        std::cout << "    event " << entry["id"].get<std::string>() << " from " << entry["source"].get<std::string>()
                  << ":\n"
                  << Indent(entry["text"].get<std::string>(), "      | ") << "\n";
    }
    if (record.contains("pool_outstanding_bytes")) {
        std::cout << "    pool outstanding: " << record["pool_outstanding_bytes"] << " bytes\n";
        if (record.contains("leaks")) std::cout << Indent(record["leaks"].get<std::string>(), "      ") << "\n";
        for (const auto &c : record["verifier"]) std::cout << "    verifier: " << c.get<std::string>() << "\n";
    }
}

json EventLogSince(size_t first) {
    json out = json::array();
    const auto log = hk::EventLog();
    for (size_t i = first; i < log.size(); ++i) {
        json entry;
        entry["id"] = sim::HexText(log[i].id);
        entry["source"] = log[i].source;
        entry["strings"] = json::array();
        for (const auto &s : log[i].strings) entry["strings"].push_back(hk::Utf8(s));
        entry["text"] = log[i].text;
        out.push_back(entry);
    }
    return out;
}

int Run(const Options &options) {
    YAML::Node scenario;
    try {
        scenario = YAML::LoadFile(options.scenario);
    } catch (const YAML::BadFile &) {
        std::cerr << options.scenario << ": cannot open\n";
        return 2;
    } catch (const YAML::Exception &e) {
        std::cerr << options.scenario << ":" << e.mark.line + 1 << ": " << e.msg << "\n";
        return 2;
    }
    const std::string &file = options.scenario;
    auto emit = [&](const json &record) {
        if (options.as_json) std::cout << record.dump() << "\n";
        else PrintReadable(record);
        std::cout.flush();
    };

    sim::Machine machine(std::filesystem::path(options.scenario).parent_path(), options.image);
    try {
        if (!scenario.IsMap()) sim::Fail(file, scenario, "a scenario is a mapping with 'machine' and 'steps'");
        for (const auto &item : scenario) {
            const auto key = item.first.as<std::string>();
            if (key != "machine" && key != "steps" && key != "description")
                sim::Fail(file, item.first, "unknown key '" + key + "' (expected machine, steps, description)");
        }
        machine.Boot(scenario["machine"], file);
        const NTSTATUS loaded = machine.LoadLibrary();
        if (!NT_SUCCESS(loaded)) {
            std::cerr << file << ": DllInitialize failed with " << sim::StatusText(loaded) << "\n";
            return 1;
        }
        const YAML::Node steps = scenario["steps"];
        if (steps && !steps.IsSequence()) sim::Fail(file, steps, "steps must be a list");
        int number = 0;
        for (const auto &step : steps) {
            ++number;
            if (!step.IsMap()) sim::Fail(file, step, "a step is a mapping with 'call' or 'action'");
            for (const auto &item : step) {
                const auto key = item.first.as<std::string>();
                if (key != "call" && key != "action" && key != "args" && key != "expect" && key != "note")
                    sim::Fail(file, item.first, "unknown key '" + key + "' in a step (expected call, action, args, expect, note)");
            }
            const bool is_call = bool(step["call"]);
            if (is_call == bool(step["action"])) sim::Fail(file, step, "a step has either 'call' or 'action'");
            const std::string name = (is_call ? step["call"] : step["action"]).as<std::string>();
            const auto &table = is_call ? sim::Exports() : sim::Actions();
            auto handler = table.find(name);
            if (handler == table.end())
                sim::Fail(file, is_call ? step["call"] : step["action"],
                          std::string(is_call ? "no export named '" : "no action named '") + name + "'");
            const json args = step["args"] ? sim::ToJson(step["args"]) : json::object();
            if (!args.is_object()) sim::Fail(file, step["args"], "args must be a mapping");

            const size_t log_before = hk::EventLog().size();
            sim::StepContext context{machine, args, file, step};
            const sim::StepOutcome outcome = handler->second(context);

            json record;
            record["step"] = number;
            record[is_call ? "call" : "action"] = name;
            if (step["note"]) record["note"] = step["note"].as<std::string>();
            if (outcome.has_status) {
                record["status"] = sim::StatusText(outcome.status);
                record["status_code"] = sim::HexText(uint32_t(outcome.status));
            }
            record["result"] = outcome.result;
            record["eventlog"] = EventLogSince(log_before);
            emit(record);

            if (options.check && step["expect"]) {
                const std::string mismatch = sim::SubsetMismatch(sim::ToJson(step["expect"]), record, "");
                if (!mismatch.empty()) {
                    const int line = step.Mark().line + 1;
                    std::cerr << file << ":" << line << ": step " << number << " (" << name << "): " << mismatch
                              << "\n";
                    return 1;
                }
            }
        }
    } catch (const sim::ScenarioError &e) {
        std::cerr << e.what() << "\n";
        return 2;
    }

    // The last importer has gone: unload, and look for what was left behind.
    const size_t log_before = hk::EventLog().size();
    const NTSTATUS unloaded = machine.UnloadLibrary();
    json record;
    record["step"] = "unload";
    record["call"] = "DllUnload";
    record["status"] = sim::StatusText(unloaded);
    record["status_code"] = sim::HexText(uint32_t(unloaded));
    record["result"] = json::object();
    record["eventlog"] = EventLogSince(log_before);
    record["pool_outstanding_bytes"] = hk::OutstandingPoolBytes();
    if (hk::OutstandingPoolBytes() != 0) record["leaks"] = hk::LeakReport();
    record["verifier"] = hk::VerifierComplaints();
    emit(record);
    if (options.check && (hk::OutstandingPoolBytes() != 0 || !hk::VerifierComplaints().empty())) {
        std::cerr << file << ": after DllUnload: " << hk::OutstandingPoolBytes() << " pool bytes outstanding, "
                  << hk::VerifierComplaints().size() << " verifier complaints\n"
                  << hk::LeakReport();
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3 || std::string(argv[1]) != "run") return Usage();
    Options options;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--check") options.check = true;
        else if (arg == "--json") options.as_json = true;
        else if (arg == "--image" && i + 1 < argc) options.image = argv[++i];
        else if (!arg.empty() && arg[0] == '-') return Usage();
        else if (options.scenario.empty()) options.scenario = arg;
        else return Usage();
    }
    if (options.scenario.empty()) return Usage();
    return Run(options);
}
