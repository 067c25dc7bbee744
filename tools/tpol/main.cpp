// tpol: the texprt policy compiler.
//
//   tpol compile SOURCE.yaml -o OUTPUT.bin    YAML source to a binary policy
//   tpol dump FILE.bin                        a binary policy as YAML source
//   tpol check FILE.bin                       what is wrong with a binary policy, and where
//
// A source has one top-level key, app_blocking:, monitor: or protection:,
// which names the format (see examples/policies/README.md for the monitor and
// protection keys). Exit status:
// 0 on success, 1 when the input is wrong (or check finds an error), 2 on a
// usage error.
#include "tpol.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>

int main(int argc, char **argv) {
    CLI::App app{"tpol: compiles texprt policy sources (YAML) to the binary files the agent writes, and reads "
                 "them back. A source holds one top-level key: app_blocking, monitor or protection.",
                 "tpol"};
    app.set_version_flag("--version", std::string("tpol ") + TEXPRT_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 on success; 1 when the input is wrong or check finds an error; 2 on a usage error.");

    std::string source, output, binary;
    CLI::App *compile = app.add_subcommand("compile", "Compile a YAML source to a binary policy");
    compile->add_option("source", source, "The policy source (YAML)")->required()->check(CLI::ExistingFile);
    compile->add_option("-o,--output", output, "The binary policy to write")->required();
    CLI::App *dump = app.add_subcommand("dump", "Print a binary policy as YAML source that compiles to the same bytes");
    dump->add_option("binary", binary, "The binary policy")->required()->check(CLI::ExistingFile);
    CLI::App *check = app.add_subcommand("check", "Say what is wrong with a binary policy, and at which offset");
    check->add_option("binary", binary, "The binary policy")->required()->check(CLI::ExistingFile);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // --help and --version end here too, with status 0.
        const int status = app.exit(e);
        return status == 0 ? 0 : 2;
    }

    try {
        if (*compile) {
            tpol::WriteFileBytes(output, tpol::CompileFile(source));
            return 0;
        }
        if (*dump) {
            std::cout << tpol::Dump(tpol::ReadFileBytes(binary));
            return 0;
        }
        const auto bytes = tpol::ReadFileBytes(binary);
        const auto findings = tpol::Check(bytes);
        int errors = 0;
        for (const auto &f : findings) {
            std::printf("%s: offset 0x%llX: %s: %s\n", binary.c_str(), static_cast<unsigned long long>(f.offset),
                        f.severity == tpol::Finding::Error ? "error" : "warning", f.message.c_str());
            errors += f.severity == tpol::Finding::Error;
        }
        if (findings.empty())
            std::printf("%s: %s policy, no problems found\n", binary.c_str(),
                        tpol::FormatName(tpol::DetectFormat(bytes)));
        return errors ? 1 : 0;
    } catch (const std::exception &e) {
        // A source error names its file and line already.
        std::cerr << (*compile ? "" : binary + ": ") << e.what() << "\n";
        return 1;
    }
}
