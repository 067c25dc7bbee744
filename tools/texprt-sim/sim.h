// texprt-sim internals: the scenario, the simulated machine, and the table
// of steps (exports and machine actions).
#pragma once

#include <hk/hk.h>
#include <nlohmann/json.hpp>
#include <yaml-cpp/yaml.h>

#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

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

class Machine;

// What a step handler gets: its arguments and the machine.
struct StepContext {
    Machine &machine;
    const json &args;
    const std::string &file;  // the scenario file, for errors
    const YAML::Node &node;   // the step, for errors

    // Argument access with errors that name the step.
    const json &Arg(const char *name) const;
    bool Has(const char *name) const { return args.contains(name) && !args.at(name).is_null(); }
    uint64_t Number(const char *name) const;
    uint64_t Number(const char *name, uint64_t fallback) const;
    bool Flag(const char *name, bool fallback) const;
    std::string Text(const char *name) const;
    [[noreturn]] void Error(const std::string &message) const { Fail(file, node, message); }
};

// A step's outcome: status (for NTSTATUS returns), and results by field name.
struct StepOutcome {
    bool has_status = false;
    int32_t status = 0;
    json result = json::object();
};

using StepHandler = std::function<StepOutcome(StepContext &)>;

class Machine {
public:
    Machine(std::filesystem::path scenario_dir, std::string image_path);
    ~Machine();

    void Boot(const YAML::Node &machine_block, const std::string &file);
    // Loads the image and calls DllInitialize.
    int32_t LoadLibrary();
    // DllUnload and the image's unload.
    int32_t UnloadLibrary();

    hk::Image &image() { return image_; }
    template <typename Fn>
    Fn *Export(const char *name) {
        auto *fn = image_.Function<Fn>(name);
        if (fn == nullptr) throw ScenarioError(std::string("the image does not export ") + name);
        return fn;
    }
    PDRIVER_OBJECT Driver(const std::string &name);
    const std::filesystem::path &scenario_dir() const { return scenario_dir_; }
    const std::filesystem::path &root() const { return root_; }

    // Machine contents shared by the machine block and the actions.
    void WriteFile(const YAML::Node &entry, const std::string &file, bool must_exist);
    void SetRegistryValue(const std::string &key, const YAML::Node &values, const std::string &file);

private:
    std::filesystem::path scenario_dir_, root_;
    std::string image_path_;
    hk::Image image_;
    std::map<std::string, PDRIVER_OBJECT> drivers_;
};

// The step table: every export that exists so far, and the machine actions.
const std::map<std::string, StepHandler> &Exports();
const std::map<std::string, StepHandler> &Actions();
// The filter event steps: the `event` action and the file rule queries.
void AddEventActions(std::map<std::string, StepHandler> &actions);
void AddEventExports(std::map<std::string, StepHandler> &exports);

// Bytes from hexadecimal digits (white space ignored); an error names the step.
std::vector<uint8_t> HexBytes(const std::string &text, const std::string &file, const YAML::Node &node);

std::string StatusText(int32_t status);
std::string HexText(uint64_t value, int width = 8);

}  // namespace sim
