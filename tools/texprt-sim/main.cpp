// texprt-sim: runs a scenario against the library on a simulated machine.
//
//   texprt-sim run SCENARIO.yaml [--check] [--json] [--image PATH]
//
// Each step prints one record: the call or action, its status (name and
// code), its results by field name and the event log messages it wrote.
// --json prints one JSON object per line; otherwise a readable report.
// --check compares every expect: block (a subset match) and stops with exit
// status 1 at the first difference. Errors in the scenario (and on the
// command line) exit with status 2.
#include "sim.h"

#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char **argv) {
    CLI::App app{"texprt-sim: boots a simulated Windows machine, loads the texprt image the way the kernel loads "
                 "an export driver, and replays a scenario of export calls and machine actions.",
                 "texprt-sim"};
    app.set_version_flag("--version", std::string("texprt-sim ") + TEXPRT_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 when the scenario ran (and with --check, held); 1 when a check failed or the "
               "library left pool behind; 2 on an error in the scenario or the command line.");

    sim::RunOptions options;
    options.image = TEXPRT_IMAGE_PATH;
    CLI::App *run = app.add_subcommand("run", "Replay a scenario (see tests/scenarios/ and examples/demo/)");
    run->add_option("scenario", options.scenario, "The scenario file (YAML)")->required()->check(CLI::ExistingFile);
    run->add_flag("--check", options.check, "Compare every expect: block and stop at the first difference");
    run->add_flag("--json", options.as_json, "Print one JSON object per step instead of a readable report");
    run->add_option("--image", options.image, "The library image to load")
        ->check(CLI::ExistingFile)
        ->capture_default_str();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // --help and --version end here too, with status 0.
        const int status = app.exit(e);
        return status == 0 ? 0 : 2;
    }
    return sim::RunScenario(options, std::cout, std::cerr);
}
