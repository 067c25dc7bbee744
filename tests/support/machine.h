// Test support: a fresh simulated machine per test, with the verifier's and
// the pool's verdict checked at the end of every test.
#pragma once

#include <gtest/gtest.h>
#include <hk/hk.h>

#include <string>

namespace texprt_test {

inline std::string Joined(const std::vector<std::string> &lines) {
    std::string out;
    for (auto &l : lines) out += l + "\n";
    return out;
}

class MachineTest : public ::testing::Test {
protected:
    void SetUp() override {
        hk::Reset();
        hk::ClearAllocationFailures();
        pool_bytes_at_start_ = hk::OutstandingPoolBytes();
    }
    void TearDown() override {
        hk::ClearAllocationFailures();
        EXPECT_TRUE(hk::VerifierComplaints().empty()) << Joined(hk::VerifierComplaints());
        EXPECT_EQ(hk::OutstandingPoolBytes(), pool_bytes_at_start_) << hk::LeakReport();
    }

private:
    size_t pool_bytes_at_start_ = 0;
};

// A UNICODE_STRING over text the test owns.
struct Wide {
    explicit Wide(const std::string &utf8) : text(hk::Utf16(utf8)) { Refresh(); }
    void Refresh() {
        us.Buffer = text.data();
        us.Length = USHORT(text.size() * 2);
        us.MaximumLength = USHORT(text.size() * 2);
    }
    std::string Utf8() const { return hk::Utf8(std::u16string(us.Buffer, us.Length / 2)); }
    std::u16string text;
    UNICODE_STRING us{};
};

inline std::string Text(PCUNICODE_STRING s) {
    return s->Buffer ? hk::Utf8(std::u16string(s->Buffer, s->Length / 2)) : std::string();
}

constexpr const char *kServiceKey = "\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\tmon";
constexpr const char *kParametersKey = "\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\tmon\\Parameters";

}  // namespace texprt_test
