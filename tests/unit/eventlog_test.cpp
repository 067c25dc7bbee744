// Event log packets: sizes, offsets, the size limit, and the rendered texts.
#include "platform/nt.h"

#include "diagnostics/eventlog.h"
#include "include/texprt.h"
#include "support/machine.h"

#include <cstring>

extern "C" const HkMessageTableEntry TexprtMessageTable[];
extern "C" const unsigned TexprtMessageTableCount;

using namespace texprt_test;

namespace {

class EventLogTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        hk::RegisterMessageTable("", TexprtMessageTable, TexprtMessageTableCount);
        monitor_ = hk::CreateDriverObject("\\Driver\\tmon");
        InitializeEventLog();
        MonitorObjects[PreferredMonitorObject] = monitor_;
    }
    void TearDown() override {
        MonitorObjects[PreferredMonitorObject] = MonitorObjects[OtherMonitorObject] = nullptr;
        MachineTest::TearDown();
    }
    hk::EventLogEntry Only() {
        auto log = hk::EventLog();
        EXPECT_EQ(log.size(), 1u);
        return log.empty() ? hk::EventLogEntry{} : log[0];
    }
    PDRIVER_OBJECT monitor_ = nullptr;
};

uint16_t Word(const std::vector<uint8_t> &packet, size_t offset) {
    uint16_t v;
    std::memcpy(&v, packet.data() + offset, 2);
    return v;
}

TEST_F(EventLogTest, ZeroSlotPacketIsTheFixedPart) {
    TcEventWrite(MsgSystemMonitorStopping, 0, 0, nullptr, nullptr, 0, monitor_);
    auto entry = Only();
    EXPECT_EQ(entry.packet.size(), 48u);
    EXPECT_EQ(entry.string_offset, 40);
    EXPECT_EQ(entry.number_of_strings, 0);
    EXPECT_EQ(entry.id, 0x40060002u);
    EXPECT_EQ(entry.source, "tmon");
    EXPECT_EQ(entry.text, "Tolvex Agent System Monitor is stopping.\r\n");
}

TEST_F(EventLogTest, PacketOf152BytesIsWrittenAnd154IsNot) {
    // 51 characters and a terminator: 104 bytes of strings, 152 in all.
    std::u16string fits(51, u'x'), too_long(52, u'x');
    PCWSTR strings[1] = {fits.c_str()};
    TcEventWrite(MsgSystemMonitorStarting, 0, 1, strings, nullptr, 0, monitor_);
    auto entry = Only();
    EXPECT_EQ(entry.packet.size(), 152u);
    ASSERT_EQ(entry.strings.size(), 1u);
    EXPECT_EQ(entry.strings[0], fits);

    hk::ClearEventLog();
    strings[0] = too_long.c_str();
    TcEventWrite(MsgSystemMonitorStarting, 0, 1, strings, nullptr, 0, monitor_);
    EXPECT_TRUE(hk::EventLog().empty());
}

TEST_F(EventLogTest, DumpDataAndEmptySlots) {
    const UCHAR dump[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    PCWSTR strings[4] = {u"A", nullptr, u"", u"BC"};
    TcEventWrite(MsgPolicyVersionMismatch, 0x77, 4, strings, const_cast<UCHAR *>(dump), 8, monitor_);
    auto entry = Only();
    EXPECT_EQ(entry.packet.size(), 48u + 8 + 4 + 6);
    EXPECT_EQ(entry.dump_data_size, 8);
    EXPECT_EQ(entry.string_offset, 48);
    EXPECT_EQ(entry.final_status, 0x77);
    EXPECT_EQ(std::memcmp(entry.packet.data() + 40, dump, 8), 0);
    // The slot count stands, although only two strings were copied.
    EXPECT_EQ(entry.number_of_strings, 4);
    EXPECT_EQ(Word(entry.packet, 48), u'A');
    EXPECT_EQ(Word(entry.packet, 50), 0);
    EXPECT_EQ(Word(entry.packet, 52), u'B');
}

TEST_F(EventLogTest, PolicyUpdatedHasTwelveSlotsAndThreeStrings) {
    ReportPolicyUpdated(1, 2, 3);
    auto entry = Only();
    EXPECT_EQ(entry.number_of_strings, 12);
    EXPECT_EQ(entry.packet.size(), 48u + 3 * 4);
    EXPECT_EQ(entry.text,
              "Tolvex Agent successfully updated in-memory product policy.\r\n\r\n\r\n\r\n"
              "FIM Rule Count = 1\r\n\r\nEDR Rule Count = 2\r\n\r\nWhiteList Rule Count = 3\r\n");
}

TEST_F(EventLogTest, InternalWritersFormatTheirNumbers) {
    struct Case {
        void (*write)();
        uint32_t id;
        NTSTATUS final_status;
        std::vector<std::u16string> strings;
        const char *text;
    } cases[] = {
        {[] { ReportPolicyVersionMismatch(u"Policy Magic Number", 2, 3); }, 0x80060010, 0,
         {u"Policy Magic Number", u"0x2", u"0x3"},
         "Binary policy version mismatch found with Policy Magic Number.\r\n\r\n\r\n\r\n"
         "Current version: 0x2\r\n\r\nExpected version: 0x3\r\n"},
        {[] { ReportPolicyReadFailure(STATUS_DATA_ERROR); }, 0x80060008, 0, {u"0xC000003E"},
         "Tolvex Agent System Monitor failed to read policy.\r\n\r\n\r\n\r\nStatus: 0xC000003E.\r\n"},
        {[] { ReportAppBlockingReadFailure(STATUS_FILE_INVALID); }, 0x80060018, 0, {u"0xC0000098"}, nullptr},
        {[] { EventWriteEventHBBWLFailure(STATUS_INSUFFICIENT_RESOURCES); }, 0x80060017, 0, {u"0xC000009A"},
         nullptr},
        {[] { ReportDiskFull(-4096); }, 0x80060005, 0, {u"-4096"}, nullptr},
        {[] { ReportDataDirectoryMissing(STATUS_OBJECT_PATH_NOT_FOUND); }, 0xC0060006, STATUS_OBJECT_PATH_NOT_FOUND,
         {}, "Tolvex Agent data directory not found.\r\n"},
        {[] { ReportEvent(MsgAppBlockingPolicyUpdated); }, 0x40060015, 0, {},
         "Tolvex Agent successfully updated hash based applicatoin blocking policy.\r\n"},
    };
    for (auto &c : cases) {
        hk::ClearEventLog();
        c.write();
        auto entry = Only();
        EXPECT_EQ(entry.id, c.id);
        EXPECT_EQ(entry.final_status, c.final_status);
        EXPECT_EQ(entry.strings, c.strings);
        if (c.text) EXPECT_EQ(entry.text, c.text);
    }
}

TEST_F(EventLogTest, WritersNameThePreferredMonitorWhileItIsSet) {
    PDRIVER_OBJECT other = hk::CreateDriverObject("\\Driver\\tnmon");
    MonitorObjects[OtherMonitorObject] = other;
    ReportEvent(MsgProductPolicyRevoked);
    MonitorObjects[PreferredMonitorObject] = nullptr;
    ReportEvent(MsgProductPolicyRevoked);
    MonitorObjects[OtherMonitorObject] = nullptr;
    ReportEvent(MsgProductPolicyRevoked);  // no object: the message is lost
    auto log = hk::EventLog();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].source, "tmon");
    EXPECT_EQ(log[1].source, "tnmon");
}

TEST_F(EventLogTest, DriverStartCarriesTheVersionText) {
    EXPECT_EQ(TcEventWriteDriverStart(TEXPRT_MSG_SYSTEM_MONITOR_STARTING, "5.2.1.17", monitor_), STATUS_SUCCESS);
    auto entry = Only();
    EXPECT_EQ(entry.number_of_strings, 1);
    EXPECT_EQ(entry.strings, std::vector<std::u16string>{u"5.2.1.17"});
    EXPECT_EQ(entry.text, "Tolvex Agent System Monitor is starting (version 5.2.1.17).\r\n");

    hk::ClearEventLog();
    hk::FailNthAllocation(1);  // the conversion of the text
    EXPECT_EQ(TcEventWriteDriverStart(TEXPRT_MSG_SYSTEM_MONITOR_STARTING, "5.2", monitor_), STATUS_NO_MEMORY);
    EXPECT_TRUE(hk::EventLog().empty());

    hk::FailNthAllocation(2);  // the packet: lost without a sign
    EXPECT_EQ(TcEventWriteDriverStart(TEXPRT_MSG_SYSTEM_MONITOR_STARTING, "5.2", monitor_), STATUS_SUCCESS);
    EXPECT_TRUE(hk::EventLog().empty());
}

TEST_F(EventLogTest, EveryMessageIdHasItsText) {
    for (ULONG id : {0x40060001u, 0x40060002u, 0x80060003u, 0x80060005u, 0xC0060006u, 0x80060007u, 0x80060008u,
                     0x40060009u, 0x4006000Au, 0x4006000Bu, 0x4006000Cu, 0x4006000Du, 0x4006000Eu, 0x4006000Fu,
                     0x8006000Fu, 0x80060010u, 0x40060011u, 0x40060012u, 0x40060013u, 0x40060014u, 0x40060015u,
                     0x40060016u, 0x80060017u, 0x80060018u})
        EXPECT_TRUE(hk::MessageText(id).has_value()) << std::hex << id;
    EXPECT_EQ(TexprtMessageTableCount, 24u);
}

}  // namespace
