// mcgen: turns a message compiler source (.mc) into the host build's message
// table, the counterpart of the RT_MESSAGETABLE resource that windmc and
// windres put into texprt.sys. Only the subset of the .mc language that
// texprt's message file uses is accepted; anything else is an error with its
// line, so the two builds cannot drift apart silently.
//
//   mcgen messages.mc message_table.cpp

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Message {
    uint32_t id = 0;
    std::string symbol;
    std::string text;  // with CR LF line ends
    int line = 0;
};

[[noreturn]] void Fail(const std::string &file, int line, const std::string &what) {
    std::cerr << file << ":" << line << ": error: " << what << "\n";
    std::exit(1);
}

std::string Trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return {};
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

// Parses "(A=0x1:SYM B=0x2 ...)" possibly spread over several lines.
std::map<std::string, uint32_t> ParseNameList(const std::string &body, const std::string &file, int line) {
    std::map<std::string, uint32_t> names;
    std::string inner = body;
    if (!inner.empty() && inner.front() == '(') inner.erase(0, 1);
    if (!inner.empty() && inner.back() == ')') inner.pop_back();
    std::istringstream in(inner);
    std::string item;
    while (in >> item) {
        size_t eq = item.find('=');
        if (eq == std::string::npos) Fail(file, line, "expected NAME=VALUE in list, got '" + item + "'");
        std::string value = item.substr(eq + 1);
        value = value.substr(0, value.find(':'));
        names[item.substr(0, eq)] = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
    }
    return names;
}

void EmitU16Literal(std::ostream &out, const std::string &text) {
    out << "u\"";
    for (unsigned char c : text) {
        if (c == '\r') out << "\\r";
        else if (c == '\n') out << "\\n";
        else if (c == '"' || c == '\\') out << '\\' << c;
        else if (c < 0x20 || c > 0x7e) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out << buf << "\"u\"";
        } else out << c;
    }
    out << "\"";
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::cerr << "usage: mcgen MESSAGES.mc OUTPUT.cpp\n";
        return 2;
    }
    const std::string file = argv[1];
    std::ifstream in(file);
    if (!in) Fail(file, 0, "cannot open");

    std::map<std::string, uint32_t> severities, facilities;
    std::vector<Message> messages;
    Message current;
    std::string facility, severity;
    bool in_text = false, have_id = false;
    std::string line;
    int number = 0;
    std::string pending_key, pending_body;
    int pending_line = 0;

    while (std::getline(in, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (in_text) {
            if (line == ".") {
                const uint32_t sev = severities.count(severity) ? severities[severity] : ~0u;
                const uint32_t fac = facilities.count(facility) ? facilities[facility] : ~0u;
                if (sev == ~0u) Fail(file, current.line, "unknown severity '" + severity + "'");
                if (fac == ~0u) Fail(file, current.line, "unknown facility '" + facility + "'");
                current.id = sev << 30 | fac << 16 | current.id;
                for (const auto &m : messages)
                    if (m.id == current.id) Fail(file, current.line, "duplicate message id");
                messages.push_back(current);
                current = {};
                in_text = have_id = false;
                continue;
            }
            current.text += line + "\r\n";
            continue;
        }
        if (!pending_key.empty()) {
            pending_body += " " + Trim(line);
            if (pending_body.find(')') != std::string::npos) {
                auto list = ParseNameList(Trim(pending_body), file, pending_line);
                (pending_key == "SeverityNames" ? severities : facilities) = list;
                pending_key.clear();
            }
            continue;
        }
        std::string t = Trim(line);
        if (t.empty() || t[0] == ';') continue;
        size_t eq = t.find('=');
        if (eq == std::string::npos) Fail(file, number, "expected KEY=VALUE, got '" + t + "'");
        std::string key = Trim(t.substr(0, eq)), value = Trim(t.substr(eq + 1));
        if (key == "SeverityNames" || key == "FacilityNames") {
            if (value.find(')') != std::string::npos) {
                (key == "SeverityNames" ? severities : facilities) = ParseNameList(value, file, number);
            } else {
                pending_key = key;
                pending_body = value;
                pending_line = number;
            }
        } else if (key == "MessageIdTypedef" || key == "LanguageNames") {
            // Only English is shipped; the typedef concerns the C header only.
        } else if (key == "MessageId") {
            current = {};
            current.id = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
            current.line = number;
            have_id = true;
        } else if (key == "Facility") {
            facility = value;
        } else if (key == "Severity") {
            severity = value;
        } else if (key == "SymbolicName") {
            current.symbol = value;
        } else if (key == "Language") {
            if (!have_id) Fail(file, number, "Language= before MessageId=");
            if (value != "English") Fail(file, number, "only English messages are supported");
            in_text = true;
        } else {
            Fail(file, number, "unsupported keyword '" + key + "'");
        }
    }
    if (in_text) Fail(file, number, "message text not ended by a '.' line");
    if (messages.empty()) Fail(file, number, "no messages");

    std::ofstream out(argv[2]);
    out << "// Generated by mcgen from " << file << ". Do not edit.\n"
        << "#include <hk/message_table.h>\n\n"
        << "extern \"C\" __attribute__((visibility(\"default\"))) const HkMessageTableEntry "
           "TexprtMessageTable[] = {\n";
    for (const auto &m : messages) {
        char id[16];
        std::snprintf(id, sizeof id, "0x%08X", m.id);
        out << "    {" << id << "u, ";
        EmitU16Literal(out, m.text);
        out << "},  // " << m.symbol << "\n";
    }
    out << "};\n"
        << "extern \"C\" __attribute__((visibility(\"default\"))) const unsigned TexprtMessageTableCount = "
        << messages.size() << ";\n";
    return out ? 0 : 1;
}
