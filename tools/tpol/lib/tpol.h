// tpol: compiles policy sources (YAML) into the binary policy formats that
// texprt reads, prints binary policies back as YAML that compiles to the
// same bytes, and says what is wrong with a binary file and where.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace YAML {
class Node;
}

namespace tpol {

using Bytes = std::vector<uint8_t>;

// An error in a source, with its place. Line and column are 1-based; 0 means
// unknown.
class SourceError : public std::runtime_error {
public:
    SourceError(std::string file, int line, int column, const std::string &message);
    const std::string &file() const { return file_; }
    int line() const { return line_; }
    int column() const { return column_; }
    const std::string &message() const { return message_; }

private:
    std::string file_;
    int line_, column_;
    std::string message_;
};

enum class Format { AppBlocking, Monitor, Protection };
const char *FormatName(Format format);

// Compiles one policy document. `source_name` names the file in errors.
Bytes CompileText(const std::string &yaml_text, const std::string &source_name = "<input>");
Bytes CompileFile(const std::string &path);
Bytes Compile(const YAML::Node &document, const std::string &source_name);

// The format of a binary policy, from its magic word; throws when unknown.
Format DetectFormat(const Bytes &binary);

// YAML source for a binary policy; throws std::runtime_error naming the
// offset when the file cannot be represented.
std::string Dump(const Bytes &binary);

// A problem found in a binary policy.
struct Finding {
    enum Severity { Error, Warning } severity;
    uint64_t offset;
    std::string message;
};
std::vector<Finding> Check(const Bytes &binary);

// Recomputes the checksum of a binary policy in place, so that a test can
// make a file that is malformed yet sealed as a writer would seal it.
void Reseal(Bytes &binary);

// Shared by the formats.
uint32_t Checksum(const uint8_t *data, uint32_t length);  // over length + 1 bytes
Bytes ReadFileBytes(const std::string &path);
void WriteFileBytes(const std::string &path, const Bytes &bytes);
// 16 bytes from GUID text (6b1f3a52-8c0e-4f7a-9d21-0c5e7b9a3f10, laid out as
// Windows lays out a GUID) or from 32 hexadecimal digits (bytes in order).
bool ParseRuleId(const std::string &text, uint8_t out[16]);
std::string RuleIdText(const uint8_t id[16]);

namespace detail {
Bytes CompileAppBlocking(const YAML::Node &body, const std::string &source_name);
std::string DumpAppBlocking(const Bytes &binary);
std::vector<Finding> CheckAppBlocking(const Bytes &binary);
Bytes CompileMonitor(const YAML::Node &body, const std::string &source_name);
std::string DumpMonitor(const Bytes &binary);
std::vector<Finding> CheckMonitor(const Bytes &binary);
Bytes CompileProtection(const YAML::Node &body, const std::string &source_name);
std::string DumpProtection(const Bytes &binary);
std::vector<Finding> CheckProtection(const Bytes &binary);
}  // namespace detail

}  // namespace tpol
