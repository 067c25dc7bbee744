// The machine actions a scenario can take between calls: files, registry
// values, the clock, and a look at the monitor store (the event and process
// actions have files of their own). Each declares the
// arguments it takes, so that a misspelt one is an error at its line.
#include "records.h"

#include "tools/tpol/lib/tpol.h"

namespace sim {

namespace {

Step Action(std::vector<ArgumentSpec> arguments, StepHandler run) {
    Step step;
    step.arguments = std::move(arguments);
    step.run = std::move(run);
    return step;
}

// write_file and replace_file: the path and exactly one source.
const std::vector<ArgumentSpec> kFileArguments = {
    {"path", true}, {"policy", false}, {"hex", false}, {"text", false}, {"copy", false}};

std::map<std::string, Step> MakeActions() {
    std::map<std::string, Step> t;
    t["write_file"] = Action(kFileArguments, [](StepContext &c) {
        c.machine.WriteFile(c.node["args"], c.file, false);
        return StepOutcome{};
    });
    t["replace_file"] = Action(kFileArguments, [](StepContext &c) {
        c.machine.WriteFile(c.node["args"], c.file, true);
        return StepOutcome{};
    });
    t["delete_file"] = Action({{"path", true}}, [](StepContext &c) {
        if (!hk::DeleteFile(c.Text("path"))) c.ErrorAt(c.Arg("path"), c.Text("path") + " does not exist");
        return StepOutcome{};
    });
    t["patch_file"] = Action({{"path", true}, {"offset", true}, {"hex", true}, {"checksum", false}},
                             [](StepContext &c) {
        // Overwrites bytes at an offset: the way to make a file corrupt.
        const std::string path = c.Text("path");
        const auto contents = hk::ReadFile(path);
        if (!contents) c.ErrorAt(c.Arg("path"), path + " does not exist");
        std::vector<uint8_t> bytes(contents->begin(), contents->end());
        const uint64_t offset = c.Number("offset");
        const auto patch = c.HexOf(c.Arg("hex"));
        if (offset > bytes.size() || patch.size() > bytes.size() - offset)
            c.ErrorAt(c.Arg("offset"), "the patch runs past the end of the file");
        std::copy(patch.begin(), patch.end(), bytes.begin() + offset);
        if (c.Flag("checksum", false)) {
            try {
                tpol::Reseal(bytes);
            } catch (const std::exception &e) {
                c.Error(std::string("cannot recompute the checksum: ") + e.what());
            }
        }
        hk::WriteFile(path, std::string(bytes.begin(), bytes.end()));
        return StepOutcome{};
    });
    t["set_value"] = Action({{"key", true}, {"name", true}, {"value", true}}, [](StepContext &c) {
        YAML::Node values;
        values[c.Text("name")] = c.Arg("value").value;
        c.machine.SetRegistryValue(c.Text("key"), values, c.file);
        return StepOutcome{};
    });
    t["delete_value"] = Action({{"key", true}, {"name", true}}, [](StepContext &c) {
        if (!hk::RegistryDeleteValue(c.Text("key"), c.Text("name")))
            c.ErrorAt(c.Arg("name"), c.Text("name") + " is not under " + c.Text("key"));
        return StepOutcome{};
    });
    t["store"] = Action({}, [](StepContext &c) {
        // What the monitor store holds: rules per set of each family (null
        // for a set that does not exist), the whitelist set, and the masks.
        MonitorStoreSnapshot snapshot{};
        c.Export<VOID NTAPI(MonitorStoreSnapshot *)>("TexprtInspectMonitorStore")(&snapshot);
        auto set = [](const MonitorSetSnapshot &s) { return s.Present ? json(s.RuleCount) : json(nullptr); };
        const char *names[5] = {"file", "registry", "process", "system", "network"};
        StepOutcome out;
        const char *families[2] = {"edr", "fim"};
        for (int f = 0; f < 2; ++f) {
            json family = json::object();
            for (int k = 0; k < 5; ++k) family[names[k]] = set(snapshot.Families[f][k]);
            out.result[families[f]] = family;
        }
        out.result["whitelist"] =
            snapshot.WhiteList.Present
                ? json{{"rules", snapshot.WhiteList.RuleCount}, {"capacity", snapshot.WhiteList.Capacity}}
                : json(nullptr);
        out.result["capture_mask"] = HexText(snapshot.CaptureMask, 2);
        out.result["reg_key_notify_mask"] = HexText(snapshot.RegKeyNotifyMask);
        out.result["reg_val_notify_mask"] = HexText(snapshot.RegValNotifyMask);
        out.result["disk_notify_mask"] = HexText(snapshot.DiskNotifyMask);
        out.result["network_notify_mask"] = HexText(snapshot.NetworkNotifyMask);
        return out;
    });
    t["advance_clock"] = Action({{"seconds", false}, {"milliseconds", false}, {"ticks", false}}, [](StepContext &c) {
        const uint64_t seconds = c.Number("seconds", 0), milliseconds = c.Number("milliseconds", 0),
                       ticks = c.Number("ticks", 0);
        // About 29000 years in all: the clock cannot go further.
        constexpr uint64_t kLimit = uint64_t(INT64_MAX) / 2;
        if (seconds > kLimit / uint64_t(hk::kTicksPerSecond) || milliseconds > kLimit / 10000 || ticks > kLimit)
            c.Error("advances the clock further than it can go");
        c.machine.AdvanceClock(int64_t(seconds) * hk::kTicksPerSecond + int64_t(milliseconds) * 10000 +
                               int64_t(ticks));
        StepOutcome out;
        out.result["clock"] = TimeJson(hk::SystemTime());
        return out;
    });
    AddEventActions(t);
    AddProcessActions(t);
    return t;
}

}  // namespace

const std::map<std::string, Step> &Actions() {
    static const auto table = MakeActions();
    return table;
}

}  // namespace sim
