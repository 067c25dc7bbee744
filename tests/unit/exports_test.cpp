// The export list is the one place an export is named: the image's
// module-definition file is generated from it, the interface header must
// declare exactly its entries with their IRQL and parameters, and each
// entry must be defined once in the library with its IRQL check first.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Entry {
    std::string irql;
    std::vector<std::string> parameters;
};

std::string Read(const fs::path &path) {
    std::ifstream in(path);
    EXPECT_TRUE(in) << "cannot read " << path;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> Split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

std::string Trim(const std::string &text) {
    const auto begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

const fs::path kSource = TEXPRT_SOURCE_DIR;

// The list, in its order.
std::vector<std::pair<std::string, Entry>> ListEntries() {
    std::vector<std::pair<std::string, Entry>> entries;
    const std::regex line(R"(^TEXPRT_EXPORT_ENTRY\((\w+),\s*(\w+)((?:,\s*\w+)*)\)\s*$)");
    std::stringstream in(Read(kSource / "include/texprt_exports.inc"));
    for (std::string text; std::getline(in, text);) {
        if (text.rfind("TEXPRT_EXPORT_ENTRY(", 0) != 0) continue;
        std::smatch m;
        EXPECT_TRUE(std::regex_match(text, m, line)) << "malformed entry: " << text;
        if (m.empty()) continue;
        Entry entry{m[2], {}};
        for (const auto &p : Split(m[3], ','))
            if (!Trim(p).empty()) entry.parameters.push_back(Trim(p));
        entries.emplace_back(m[1], entry);
    }
    return entries;
}

// The last identifier of each parameter declaration: its name.
std::vector<std::string> ParameterNames(const std::string &list) {
    std::vector<std::string> names;
    const std::regex last(R"((\w+)\s*$)");
    for (const auto &p : Split(list, ',')) {
        const std::string parameter = Trim(p);
        if (parameter.empty() || parameter == "VOID" || parameter == "void") continue;
        std::smatch m;
        if (std::regex_search(parameter, m, last)) names.push_back(m[1]);
    }
    return names;
}

TEST(ExportList, HasEntriesWithUniqueNames) {
    const auto entries = ListEntries();
    EXPECT_GE(entries.size(), 63u);
    std::set<std::string> names;
    for (const auto &[name, entry] : entries) {
        EXPECT_TRUE(names.insert(name).second) << name << " is listed twice";
        EXPECT_TRUE(entry.irql == "PASSIVE_LEVEL" || entry.irql == "APC_LEVEL" || entry.irql == "DISPATCH_LEVEL")
            << name << ": " << entry.irql;
    }
}

TEST(ExportList, TheModuleDefinitionFileIsTheListInItsOrder) {
    std::vector<std::string> exported;
    bool in_exports = false;
    std::stringstream in(Read(TEXPRT_DEF_FILE));
    for (std::string line; std::getline(in, line);) {
        line = Trim(line);
        if (line.empty() || line[0] == ';') continue;
        if (line == "EXPORTS") {
            in_exports = true;
            continue;
        }
        if (in_exports) exported.push_back(line);
    }
    std::vector<std::string> listed;
    for (const auto &[name, entry] : ListEntries()) listed.push_back(name);
    EXPECT_EQ(exported, listed);
}

TEST(ExportList, TheHeaderDeclaresEachEntryWithItsIrqlAndParametersAndNothingElse) {
    const std::string header = Read(kSource / "include/texprt.h");
    std::map<std::string, Entry> declared;
    const std::regex declaration(
        R"(_IRQL_requires_max_\((\w+)\)\s*TEXPRT_API\s+[^;(]*?\b(\w+)\s*\(([^)]*)\)\s*;)");
    for (auto it = std::sregex_iterator(header.begin(), header.end(), declaration); it != std::sregex_iterator();
         ++it) {
        const auto &m = *it;
        EXPECT_TRUE(declared.emplace(m[2], Entry{m[1], ParameterNames(m[3])}).second) << m[2] << " twice";
    }
    // Every declaration carries its annotation: count them all.
    const std::regex any_declaration(R"(^\s*TEXPRT_API\s)", std::regex::multiline);
    const auto all = std::distance(std::sregex_iterator(header.begin(), header.end(), any_declaration),
                                   std::sregex_iterator());
    EXPECT_EQ(size_t(all), declared.size()) << "a TEXPRT_API declaration without _IRQL_requires_max_";

    const auto entries = ListEntries();
    for (const auto &[name, entry] : entries) {
        const auto found = declared.find(name);
        if (found == declared.end()) {
            ADD_FAILURE() << name << " is listed but include/texprt.h does not declare it";
            continue;
        }
        EXPECT_EQ(found->second.irql, entry.irql) << name;
        EXPECT_EQ(found->second.parameters, entry.parameters) << name;
        declared.erase(found);
    }
    for (const auto &[name, entry] : declared) ADD_FAILURE() << name << " is declared but not in the export list";
}

TEST(ExportList, EachEntryIsDefinedOnceWithItsIrqlCheckFirst) {
    std::map<std::string, int> definitions;
    const std::regex definition(R"(TEXPRT_EXPORT\b[^;{}]*?\b(\w+)\s*\([^)]*\)\s*\{\s*([^\n]*))");
    for (const char *layer : {"base", "diagnostics", "eventstream", "policy", "rules", "process", "hashblock", "frame"}) {
        if (!fs::exists(kSource / layer)) continue;
        for (const auto &file : fs::directory_iterator(kSource / layer)) {
            if (file.path().extension() != ".cpp") continue;
            const std::string text = Read(file.path());
            for (auto it = std::sregex_iterator(text.begin(), text.end(), definition); it != std::sregex_iterator();
                 ++it) {
                const std::string name = (*it)[1];
                // The host image's inspection entries are no exports of texprt.sys.
                if (name.rfind("TexprtInspect", 0) == 0) continue;
                ++definitions[name];
                EXPECT_EQ(Trim((*it)[2]), "EXPORT_ENTRY(" + name + ");")
                    << file.path().filename() << ": " << name << " does not check its IRQL first";
            }
        }
    }
    for (const auto &[name, entry] : ListEntries()) {
        EXPECT_EQ(definitions[name], 1) << name << " is defined " << definitions[name] << " times";
        definitions.erase(name);
    }
    for (const auto &[name, count] : definitions) ADD_FAILURE() << name << " is exported but not in the export list";
}

}  // namespace
