// tpol: the texprt policy compiler.
//
//   tpol compile SOURCE.yaml -o OUTPUT.bin    YAML source to a binary policy
//   tpol dump FILE.bin                        a binary policy as YAML source
//   tpol check FILE.bin                       what is wrong with a binary policy, and where
//
// A source has one top-level key, app_blocking: or monitor:, which names the
// format (see examples/policies/README.md for the monitor keys).
#include "tpol.h"

#include <cstdio>
#include <cstring>
#include <iostream>

namespace {

int Usage() {
    std::cerr << "usage: tpol compile SOURCE.yaml -o OUTPUT.bin\n"
                 "       tpol dump FILE.bin\n"
                 "       tpol check FILE.bin\n"
                 "A source holds one top-level key: app_blocking or monitor.\n";
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) return Usage();
    const std::string command = argv[1];
    try {
        if (command == "compile") {
            std::string input, output;
            for (int i = 2; i < argc; ++i) {
                if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc) output = argv[++i];
                else if (input.empty()) input = argv[i];
                else return Usage();
            }
            if (input.empty() || output.empty()) return Usage();
            tpol::WriteFileBytes(output, tpol::CompileFile(input));
            return 0;
        }
        if (command == "dump" && argc == 3) {
            std::cout << tpol::Dump(tpol::ReadFileBytes(argv[2]));
            return 0;
        }
        if (command == "check" && argc == 3) {
            const auto bytes = tpol::ReadFileBytes(argv[2]);
            const auto findings = tpol::Check(bytes);
            int errors = 0;
            for (const auto &f : findings) {
                std::printf("%s: offset 0x%llX: %s: %s\n", argv[2], static_cast<unsigned long long>(f.offset),
                            f.severity == tpol::Finding::Error ? "error" : "warning", f.message.c_str());
                errors += f.severity == tpol::Finding::Error;
            }
            if (findings.empty()) std::printf("%s: %s policy, no problems found\n", argv[2],
                                              tpol::FormatName(tpol::DetectFormat(bytes)));
            return errors ? 1 : 0;
        }
        return Usage();
    } catch (const std::exception &e) {
        std::cerr << (command == "compile" ? "" : std::string(argv[argc - 1]) + ": ") << e.what() << "\n";
        return 1;
    }
}
