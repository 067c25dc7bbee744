// The filter event objects as a monitor builds them: the exports' refusals,
// the private upcased name copies, borrowed and owned actor blocks, what
// each Cleanup takes and leaves, and every allocation failing in turn.
#include <cstring>
#include <functional>
#include <vector>

#include "base/strings.h"
#include "rules/match.h"
#include "support/machine.h"

using namespace texprt_test;

namespace {

class FilterObjectsTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        pool_count_ = hk::OutstandingPoolCount();
    }
    size_t PoolDelta() const { return hk::OutstandingPoolCount() - pool_count_; }

    size_t pool_count_ = 0;
};

// Every object a test may touch, zero-filled as a monitor does.
struct Objects {
    FileObject file{};
    RegistryObject registry{};
    ProcessObject process{};
    SystemObject system{};
    NetworkObject network{};
    WhiteListObject whitelist{};
    FilterResult result{};

    void CleanupAll() {
        EXPECT_EQ(TcTFeCleanupFileObject(&file), STATUS_SUCCESS);
        EXPECT_EQ(TcTFeCleanupRegistryObject(&registry), STATUS_SUCCESS);
        EXPECT_EQ(TcTFeCleanupProcessObject(&process), STATUS_SUCCESS);
        EXPECT_EQ(TcTFeCleanupSystemObject(&system), STATUS_SUCCESS);
        EXPECT_EQ(TcTFeCleanupNetworkObject(&network), STATUS_SUCCESS);
        EXPECT_EQ(TcTFeCleanupWhiteListObject(&whitelist), STATUS_SUCCESS);
        EXPECT_EQ(TcTFeCleanupResult(&result), STATUS_SUCCESS);
    }
};

bool IsZero(const UNICODE_STRING &s) { return s.Length == 0 && s.MaximumLength == 0 && s.Buffer == nullptr; }
bool IsZero(const EventInfo &e) { return e.EventTime == 0 && e.ActorInfoSize == 0 && e.ActorInfo == nullptr; }

// An actor block with its image path behind the fixed part.
std::vector<uint8_t> Actor(const std::string &image = "\\Device\\V\\Tool.exe") {
    const std::u16string text = hk::Utf16(image);
    ActorInformation header{};
    header.ProcessId = 4242;
    header.ImageFileNameLength = USHORT(text.size() * 2);
    std::vector<uint8_t> block(sizeof header + text.size() * 2);
    std::memcpy(block.data(), &header, sizeof header);
    std::memcpy(block.data() + sizeof header, text.data(), text.size() * 2);
    return block;
}
ActorInformation *Block(std::vector<uint8_t> &b) { return reinterpret_cast<ActorInformation *>(b.data()); }

// ------------------------------------------------------------ refusals

TEST_F(FilterObjectsTest, ExportsRefuseBadArgumentsAndLeaveTheObjectAlone) {
    Wide name("\\A\\B"), empty("");
    UNICODE_STRING unbuffered{4, 0, nullptr};  // a count with no room behind it
    PCUNICODE_STRING n = &name.us, e = &empty.us, u = &unbuffered;
    auto actor = Actor();
    ActorInformation *a = Block(actor);
    const ULONG size = ULONG(actor.size());
    struct Case {
        const char *what;
        std::function<NTSTATUS(Objects &)> call;
    } cases[] = {
        {"file: null object", [&](Objects &) { return TcTFeInitializeFileObject(nullptr, n, 0, 1, 0, 0, 0); }},
        {"file: null name", [&](Objects &o) { return TcTFeInitializeFileObject(&o.file, nullptr, 0, 1, 0, 0, 0); }},
        {"file: empty name", [&](Objects &o) { return TcTFeInitializeFileObject(&o.file, e, 0, 1, 0, 0, 0); }},
        {"file: type 0", [&](Objects &o) { return TcTFeInitializeFileObject(&o.file, n, 0, 0, 0, 0, 0); }},
        {"file: type 4", [&](Objects &o) { return TcTFeInitializeFileObject(&o.file, n, 0, 4, 0, 0, 0); }},
        {"file add: null", [&](Objects &) { return TcTFeAddFileEventInfo(nullptr, 1, 0, a, size, 1); }},
        {"file add: time 0", [&](Objects &o) { return TcTFeAddFileEventInfo(&o.file, 0, 0, a, size, 1); }},
        {"file add: null actor", [&](Objects &o) { return TcTFeAddFileEventInfo(&o.file, 1, 0, nullptr, size, 1); }},
        {"file add: size 0", [&](Objects &o) { return TcTFeAddFileEventInfo(&o.file, 1, 0, a, 0, 1); }},
        {"registry: null object", [&](Objects &) { return TcTFeInitializeRegistryObject(nullptr, n, nullptr, 4); }},
        {"registry: null key",
         [&](Objects &o) { return TcTFeInitializeRegistryObject(&o.registry, nullptr, nullptr, 4); }},
        {"registry: empty key", [&](Objects &o) { return TcTFeInitializeRegistryObject(&o.registry, e, nullptr, 4); }},
        {"registry: type 1", [&](Objects &o) { return TcTFeInitializeRegistryObject(&o.registry, n, nullptr, 1); }},
        {"registry: type 0x30",
         [&](Objects &o) { return TcTFeInitializeRegistryObject(&o.registry, n, nullptr, 0x30); }},
        {"registry add: time 0", [&](Objects &o) { return TcTFeAddRegistryEventInfo(&o.registry, 0, 0, a, size, 1); }},
        {"registry add: null actor",
         [&](Objects &o) { return TcTFeAddRegistryEventInfo(&o.registry, 1, 0, nullptr, size, 1); }},
        {"registry add: size 0", [&](Objects &o) { return TcTFeAddRegistryEventInfo(&o.registry, 1, 0, a, 0, 1); }},
        {"process: null object", [&](Objects &) { return TcTFeInitializeProcessObject(nullptr, n); }},
        {"process: null name", [&](Objects &o) { return TcTFeInitializeProcessObject(&o.process, nullptr); }},
        {"process: empty name", [&](Objects &o) { return TcTFeInitializeProcessObject(&o.process, e); }},
        {"process add: time 0", [&](Objects &o) { return TcTFeAddProcessEventInfo(&o.process, 0, 0, a, size, 1); }},
        {"process add: null actor",
         [&](Objects &o) { return TcTFeAddProcessEventInfo(&o.process, 1, 0, nullptr, size, 1); }},
        {"process add: size 0", [&](Objects &o) { return TcTFeAddProcessEventInfo(&o.process, 1, 0, a, 0, 1); }},
        {"system: null object", [&](Objects &) { return TcTFeInitializeSystemObject(nullptr, n); }},
        {"system: empty name", [&](Objects &o) { return TcTFeInitializeSystemObject(&o.system, e); }},
        {"system add: time 0", [&](Objects &o) { return TcTFeAddSystemEventInfo(&o.system, 0, 0, a, size); }},
        {"system add: null actor", [&](Objects &o) { return TcTFeAddSystemEventInfo(&o.system, 1, 0, nullptr, size); }},
        {"system add: size 0", [&](Objects &o) { return TcTFeAddSystemEventInfo(&o.system, 0, 1, a, 0); }},
        {"network: null object", [&](Objects &) { return TcTFeInitializeNetworkObject(nullptr, 1, 2, n, nullptr); }},
        {"network: null local",
         [&](Objects &o) { return TcTFeInitializeNetworkObject(&o.network, 1, 2, nullptr, nullptr); }},
        {"network: local without room",
         [&](Objects &o) { return TcTFeInitializeNetworkObject(&o.network, 1, 2, u, nullptr); }},
        {"network: remote without room",
         [&](Objects &o) { return TcTFeInitializeNetworkObject(&o.network, 1, 2, n, u); }},
        {"network add: time 0", [&](Objects &o) { return TcTFeAddNetworkEventInfo(&o.network, 0, 0, a, size, 1); }},
        {"network add: null actor",
         [&](Objects &o) { return TcTFeAddNetworkEventInfo(&o.network, 1, 0, nullptr, size, 1); }},
        {"network add: size 0", [&](Objects &o) { return TcTFeAddNetworkEventInfo(&o.network, 1, 0, a, 0, 1); }},
        {"whitelist: null object",
         [&](Objects &) { return TcTFeInitializeWhiteListObject(nullptr, n, nullptr, nullptr); }},
        {"whitelist: null image",
         [&](Objects &o) { return TcTFeInitializeWhiteListObject(&o.whitelist, nullptr, n, n); }},
        {"whitelist: empty image",
         [&](Objects &o) { return TcTFeInitializeWhiteListObject(&o.whitelist, e, n, nullptr); }},
        {"cleanup file", [&](Objects &) { return TcTFeCleanupFileObject(nullptr); }},
        {"cleanup registry", [&](Objects &) { return TcTFeCleanupRegistryObject(nullptr); }},
        {"cleanup process", [&](Objects &) { return TcTFeCleanupProcessObject(nullptr); }},
        {"cleanup system", [&](Objects &) { return TcTFeCleanupSystemObject(nullptr); }},
        {"cleanup network", [&](Objects &) { return TcTFeCleanupNetworkObject(nullptr); }},
        {"cleanup whitelist", [&](Objects &) { return TcTFeCleanupWhiteListObject(nullptr); }},
        {"cleanup result", [&](Objects &) { return TcTFeCleanupResult(nullptr); }},
    };
    for (const auto &c : cases) {
        Objects objects;
        std::memset(&objects, 0xA5, sizeof objects);
        Objects before;
        std::memcpy(&before, &objects, sizeof objects);
        EXPECT_EQ(c.call(objects), STATUS_INVALID_PARAMETER) << c.what;
        EXPECT_EQ(std::memcmp(&objects, &before, sizeof objects), 0) << c.what << ": the object was written";
        EXPECT_EQ(PoolDelta(), 0u) << c.what;
    }
}

// ------------------------------------------------------------ names

TEST_F(FilterObjectsTest, NamesAreUpcasedPrivateCopiesAndSomeLoseOneTrailingBackslash) {
    struct Case {
        const char *field;
        bool drops;
        std::function<PCUNICODE_STRING(Objects &, PCUNICODE_STRING)> build;
    } cases[] = {
        {"file name", true,
         [](Objects &o, PCUNICODE_STRING s) {
             EXPECT_EQ(TcTFeInitializeFileObject(&o.file, s, 0, 2, 0, 0, 0), STATUS_SUCCESS);
             return &o.file.Name;
         }},
        {"registry key", true,
         [](Objects &o, PCUNICODE_STRING s) {
             EXPECT_EQ(TcTFeInitializeRegistryObject(&o.registry, s, nullptr, 4), STATUS_SUCCESS);
             return &o.registry.KeyName;
         }},
        {"registry value", false,
         [](Objects &o, PCUNICODE_STRING s) {
             Wide key("\\K");
             EXPECT_EQ(TcTFeInitializeRegistryObject(&o.registry, &key.us, s, 8), STATUS_SUCCESS);
             return &o.registry.ValueName;
         }},
        {"process name", false,
         [](Objects &o, PCUNICODE_STRING s) {
             EXPECT_EQ(TcTFeInitializeProcessObject(&o.process, s), STATUS_SUCCESS);
             return &o.process.Name;
         }},
        {"system name", true,
         [](Objects &o, PCUNICODE_STRING s) {
             EXPECT_EQ(TcTFeInitializeSystemObject(&o.system, s), STATUS_SUCCESS);
             return &o.system.Name;
         }},
        {"local address", false,
         [](Objects &o, PCUNICODE_STRING s) {
             EXPECT_EQ(TcTFeInitializeNetworkObject(&o.network, 1, 2, s, nullptr), STATUS_SUCCESS);
             return &o.network.LocalAddress;
         }},
        {"remote address", false,
         [](Objects &o, PCUNICODE_STRING s) {
             Wide local("x");
             EXPECT_EQ(TcTFeInitializeNetworkObject(&o.network, 1, 2, &local.us, s), STATUS_SUCCESS);
             return &o.network.RemoteAddress;
         }},
        {"image path", false,
         [](Objects &o, PCUNICODE_STRING s) {
             EXPECT_EQ(TcTFeInitializeWhiteListObject(&o.whitelist, s, nullptr, nullptr), STATUS_SUCCESS);
             return &o.whitelist.ImagePath;
         }},
        {"command line", false,
         [](Objects &o, PCUNICODE_STRING s) {
             Wide image("i");
             EXPECT_EQ(TcTFeInitializeWhiteListObject(&o.whitelist, &image.us, s, nullptr), STATUS_SUCCESS);
             return &o.whitelist.CommandLine;
         }},
        {"parent path", false,
         [](Objects &o, PCUNICODE_STRING s) {
             Wide image("i");
             EXPECT_EQ(TcTFeInitializeWhiteListObject(&o.whitelist, &image.us, nullptr, s), STATUS_SUCCESS);
             return &o.whitelist.ParentImagePath;
         }},
    };
    struct Source {
        const char *text, *kept, *dropped;
    } sources[] = {
        {"\\Device\\x\\\xc3\xa9t\xc3\xa9", "\\DEVICE\\X\\\xc3\x89T\xc3\x89", "\\DEVICE\\X\\\xc3\x89T\xc3\x89"},
        {"\\Dir\\", "\\DIR\\", "\\DIR"},
        {"\\a\\\\", "\\A\\\\", "\\A\\"},  // only one goes
        {"\\", "\\", ""},
    };
    for (const auto &c : cases) {
        for (const auto &s : sources) {
            Objects objects;
            Wide source(s.text);
            const USHORT length = source.us.Length;
            PCUNICODE_STRING copy = c.build(objects, &source.us);
            const char *expected = c.drops ? s.dropped : s.kept;
            const std::string what = std::string(c.field) + " from " + s.text;
            EXPECT_EQ(Text(copy), expected) << what;
            EXPECT_EQ(copy->MaximumLength, length + 2) << what << ": room for the source and a NUL";
            ASSERT_NE(copy->Buffer, nullptr) << what;
            EXPECT_NE(copy->Buffer, source.us.Buffer) << what;
            EXPECT_EQ(copy->Buffer[copy->Length / 2], 0) << what << ": a NUL behind the text";
            // The copy does not follow its source.
            source.text[0] = u'z';
            EXPECT_EQ(Text(copy), expected) << what;
            objects.CleanupAll();
        }
    }
    EXPECT_EQ(PoolDelta(), 0u);
}

// A caller's name may stand at an odd address (inside a packed record of
// its own); the copy reads it byte by byte and upcases it in place.
TEST_F(FilterObjectsTest, ANameAtAnOddAddressIsCopiedAsAnyOther) {
    const std::u16string text = u"\\Device\\HarddiskVolume2\\Users\\Bob\\ä.txt\\";
    std::vector<uint8_t> packed(1 + text.size() * 2);
    std::memcpy(packed.data() + 1, text.data(), text.size() * 2);
    UNICODE_STRING name{USHORT(text.size() * 2), USHORT(text.size() * 2), reinterpret_cast<PWCH>(packed.data() + 1)};
    Objects o;
    ASSERT_EQ(TcTFeInitializeFileObject(&o.file, &name, 46, TEXPRT_OBJECT_FILE, 0, 0, 0), STATUS_SUCCESS);
    EXPECT_EQ(Text(&o.file.Name), "\\DEVICE\\HARDDISKVOLUME2\\USERS\\BOB\\Ä.TXT");
    EXPECT_EQ(uintptr_t(o.file.Name.Buffer) & 1, 0u);
    ASSERT_EQ(TcTFeInitializeWhiteListObject(&o.whitelist, &name, &name, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Text(&o.whitelist.CommandLine), "\\DEVICE\\HARDDISKVOLUME2\\USERS\\BOB\\Ä.TXT\\");
    o.CleanupAll();
}

TEST_F(FilterObjectsTest, TheVolumePrefixIsAViewOfTheNameNotAdjustedForTheBackslash) {
    struct Case {
        const char *name;
        USHORT prefix;
        const char *stored;
        USHORT expected_prefix;
    } cases[] = {
        {"\\device\\c\\", 18, "\\DEVICE\\C", 18},  // ten characters, the last one dropped
        {"\\Device\\C\\x", 18, "\\DEVICE\\C\\X", 18},
        {"\\Device\\C\\x", 0, "\\DEVICE\\C\\X", 0},
        // A prefix past the name is held to the source's length.
        {"\\A\\", 100, "\\A", 6},
        {"\\A", 5, "\\A", 4},
    };
    for (const auto &c : cases) {
        Objects objects;
        Wide name(c.name);
        ASSERT_EQ(TcTFeInitializeFileObject(&objects.file, &name.us, c.prefix, 0x81, 0x20, 0x89ABCDEF, 0x01234567),
                  STATUS_SUCCESS);
        EXPECT_EQ(Text(&objects.file.Name), c.stored) << c.name;
        EXPECT_EQ(objects.file.VolumePrefix.Buffer, objects.file.Name.Buffer) << c.name;
        EXPECT_EQ(objects.file.VolumePrefix.Length, c.expected_prefix) << c.name;
        EXPECT_EQ(objects.file.VolumePrefix.MaximumLength, c.expected_prefix) << c.name;
        EXPECT_EQ(objects.file.ObjectType, 0x81u) << "taken as the monitor passed it";
        EXPECT_EQ(objects.file.Attributes, 0x20u);
        EXPECT_EQ(objects.file.Size, 0x0123456789ABCDEFull);
        objects.CleanupAll();
    }
    Objects objects;
    Wide name("\\device\\c\\");
    ASSERT_EQ(TcTFeInitializeFileObject(&objects.file, &name.us, 18, 1, 0, 0, 0), STATUS_SUCCESS);
    EXPECT_EQ(Text(&objects.file.VolumePrefix), "\\DEVICE\\C");
    EXPECT_EQ(objects.file.Name.MaximumLength, 22);
    objects.CleanupAll();
}

// ------------------------------------------------------------ event info

TEST_F(FilterObjectsTest, FileRegistryAndSystemBorrowTheActorProcessAndNetworkCopyIt) {
    Objects o;
    Wide name("\\N");
    ASSERT_EQ(TcTFeInitializeFileObject(&o.file, &name.us, 0, 1, 0, 0, 0), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeInitializeRegistryObject(&o.registry, &name.us, nullptr, 4), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeInitializeSystemObject(&o.system, &name.us), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeInitializeProcessObject(&o.process, &name.us), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeInitializeNetworkObject(&o.network, 80, 443, &name.us, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(o.process.ObjectType, ULONG(TEXPRT_OBJECT_PROCESS));
    EXPECT_EQ(o.system.ObjectType, ULONG(TEXPRT_OBJECT_SYSTEM));
    EXPECT_EQ(o.network.ObjectType, ULONG(TEXPRT_OBJECT_NETWORK));
    EXPECT_EQ(o.network.LocalPort, 80);
    EXPECT_EQ(o.network.RemotePort, 443);
    EXPECT_TRUE(IsZero(o.network.RemoteAddress));

    auto actor = Actor();
    ActorInformation *a = Block(actor);
    const ULONG size = ULONG(actor.size());
    const size_t strings = PoolDelta();
    ASSERT_EQ(TcTFeAddFileEventInfo(&o.file, 0x89ABCDEF, 0x01234567, a, size, 0x41), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeAddRegistryEventInfo(&o.registry, 0, 1, a, size, 0x42), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeAddSystemEventInfo(&o.system, 5, 0, a, size), STATUS_SUCCESS);
    EXPECT_EQ(PoolDelta(), strings) << "borrowing allocates nothing";
    ASSERT_EQ(TcTFeAddProcessEventInfo(&o.process, 0x89ABCDEF, 0x01234567, a, size, 0x43), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeAddNetworkEventInfo(&o.network, 7, 0, a, size, 0x4), STATUS_SUCCESS);
    EXPECT_EQ(PoolDelta(), strings + 2) << "one copy each";

    EXPECT_EQ(o.file.EventInfo.EventTime, 0x0123456789ABCDEFull);
    EXPECT_EQ(o.file.EventInfo.ActorInfo, a);
    EXPECT_EQ(o.file.Operation, 0x41);
    EXPECT_EQ(o.registry.EventInfo.EventTime, 0x100000000ull);
    EXPECT_EQ(o.registry.EventInfo.ActorInfo, a);
    EXPECT_EQ(o.system.EventInfo.ActorInfo, a);
    EXPECT_EQ(o.system.EventInfo.ActorInfoSize, size);
    EXPECT_EQ(o.process.EventInfo.EventTime, 0x0123456789ABCDEFull);
    EXPECT_EQ(o.process.Operation, 0x43);
    EXPECT_EQ(o.network.Operation, 0x4);
    for (const EventInfo *owned : {&o.process.EventInfo, &o.network.EventInfo}) {
        EXPECT_NE(owned->ActorInfo, a);
        EXPECT_EQ(owned->ActorInfoSize, size);
        EXPECT_EQ(std::memcmp(owned->ActorInfo, a, size), 0);
    }
    // The caller's block may change or go once Add has returned.
    std::memset(actor.data(), 0, actor.size());
    EXPECT_EQ(o.process.EventInfo.ActorInfo->ProcessId, 4242u);
    EXPECT_EQ(o.network.EventInfo.ActorInfo->ProcessId, 4242u);
    o.CleanupAll();
}

TEST_F(FilterObjectsTest, ASecondProcessAddReplacesTheCopyWithoutFreeingTheFirst) {
    Objects o;
    Wide name("\\P");
    auto actor = Actor();
    ASSERT_EQ(TcTFeInitializeProcessObject(&o.process, &name.us), STATUS_SUCCESS);
    EXPECT_EQ(TcTFeAddProcessEventInfo(&o.process, 0, 0, Block(actor), ULONG(actor.size()), 1),
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(IsZero(o.process.EventInfo));
    EXPECT_EQ(o.process.Operation, 0);
    ASSERT_EQ(TcTFeAddProcessEventInfo(&o.process, 1, 0, Block(actor), ULONG(actor.size()), 1), STATUS_SUCCESS);
    ActorInformation *first = o.process.EventInfo.ActorInfo;
    ASSERT_EQ(TcTFeAddProcessEventInfo(&o.process, 2, 0, Block(actor), ULONG(actor.size()), 2), STATUS_SUCCESS);
    EXPECT_NE(o.process.EventInfo.ActorInfo, first);
    EXPECT_EQ(PoolDelta(), 3u) << "the name and both copies";
    o.CleanupAll();
    EXPECT_EQ(PoolDelta(), 1u) << "the first copy is the caller's loss";
    PoolFree(first);
}

// ------------------------------------------------------------ cleanup

TEST_F(FilterObjectsTest, EachCleanupZeroesItsOwnFieldsAndLeavesTheRest) {
    Objects o;
    Wide name("\\Volume\\Dir\\File"), value("Run"), address("10.0.0.1");
    auto actor = Actor();
    ActorInformation *a = Block(actor);
    const ULONG size = ULONG(actor.size());
    ASSERT_EQ(TcTFeInitializeFileObject(&o.file, &name.us, 14, 1, 0x20, 100, 0), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeAddFileEventInfo(&o.file, 1, 0, a, size, 0x44), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeInitializeRegistryObject(&o.registry, &name.us, &value.us, 8), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeAddRegistryEventInfo(&o.registry, 1, 0, a, size, 0x45), STATUS_SUCCESS);
    o.registry.ExtraName = {2, 2, (PWCH)PoolAlloc(DefaultPool, 2, hk::MakeTag("Xtra"))};
    o.registry.ExtraNameOwned = 1;
    ASSERT_EQ(TcTFeInitializeProcessObject(&o.process, &name.us), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeAddProcessEventInfo(&o.process, 1, 0, a, size, 0x46), STATUS_SUCCESS);
    o.process.ProcessCode = 9;
    ASSERT_EQ(TcTFeInitializeSystemObject(&o.system, &name.us), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeAddSystemEventInfo(&o.system, 1, 0, a, size), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeInitializeNetworkObject(&o.network, 80, 443, &address.us, &address.us), STATUS_SUCCESS);
    ASSERT_EQ(TcTFeAddNetworkEventInfo(&o.network, 1, 0, a, size, 2), STATUS_SUCCESS);
    o.network.ProtocolBits = 6;
    ASSERT_EQ(TcTFeInitializeWhiteListObject(&o.whitelist, &name.us, &value.us, &name.us), STATUS_SUCCESS);
    const RuleContextEntry context{2, {1, 2, 3, 4}, 0};
    ASSERT_EQ(AppendRuleContexts(&o.result, 1, &context, 0), STATUS_SUCCESS);
    o.result.Status = STATUS_SUCCESS;
    o.result.FileOperations = o.result.KeyOperations = o.result.NetworkOperations = 3;
    o.result.RuleFlags = 2;
    o.result.ExclusionSeen = 1;
    o.result.WhiteList.ExemptMasks[2] = 4;
    const UNICODE_STRING prefix = o.file.VolumePrefix;

    o.CleanupAll();
    EXPECT_EQ(PoolDelta(), 0u) << hk::LeakReport();

    EXPECT_TRUE(IsZero(o.file.Name));
    EXPECT_EQ(o.file.ObjectType | o.file.Attributes, 0u);
    EXPECT_EQ(o.file.Size, 0u);
    EXPECT_TRUE(IsZero(o.file.EventInfo));
    EXPECT_EQ(o.file.Operation, 0x44) << "Operation stays";
    EXPECT_EQ(o.file.VolumePrefix.Buffer, prefix.Buffer) << "the prefix view stays, dangling";
    EXPECT_EQ(o.file.VolumePrefix.Length, 14);

    EXPECT_TRUE(IsZero(o.registry.KeyName));
    EXPECT_TRUE(IsZero(o.registry.ValueName));
    EXPECT_TRUE(IsZero(o.registry.ExtraName));
    EXPECT_EQ(o.registry.ObjectType, 0u);
    EXPECT_EQ(o.registry.EventInfo.ActorInfo, a) << "EventInfo stays";
    EXPECT_EQ(o.registry.Operation, 0x45);

    EXPECT_TRUE(IsZero(o.process.Name));
    EXPECT_EQ(o.process.ObjectType, 0u);
    EXPECT_TRUE(IsZero(o.process.EventInfo));
    EXPECT_EQ(o.process.ProcessCode, 9);

    EXPECT_TRUE(IsZero(o.system.Name));
    EXPECT_EQ(o.system.ObjectType, 0u);
    EXPECT_EQ(o.system.EventInfo.ActorInfo, a) << "EventInfo stays";
    EXPECT_EQ(o.system.EventInfo.EventTime, 1u);

    EXPECT_TRUE(IsZero(o.network.LocalAddress));
    EXPECT_TRUE(IsZero(o.network.RemoteAddress));
    EXPECT_TRUE(IsZero(o.network.EventInfo));
    EXPECT_EQ(o.network.ObjectType, 0u);
    EXPECT_EQ(o.network.LocalPort | o.network.RemotePort, 0);
    EXPECT_EQ(o.network.ProtocolBits, 6);

    EXPECT_TRUE(IsZero(o.whitelist.ImagePath));
    EXPECT_TRUE(IsZero(o.whitelist.CommandLine));
    EXPECT_TRUE(IsZero(o.whitelist.ParentImagePath));

    EXPECT_EQ(o.result.Status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(o.result.FileOperations, 0u);
    EXPECT_EQ(o.result.ContextCount, 0u);
    EXPECT_EQ(o.result.Contexts, nullptr);
    EXPECT_EQ(o.result.RuleFlags, 0);
    EXPECT_EQ(o.result.WhiteList.ExemptMasks[2], 0u);
    EXPECT_EQ(o.result.KeyOperations, 3u) << "nothing clears the other masks";
    EXPECT_EQ(o.result.NetworkOperations, 3u);
    EXPECT_EQ(o.result.ExclusionSeen, 1);
}

TEST_F(FilterObjectsTest, CleanupOfZeroedObjectsSucceedsAndFreesNothing) {
    Objects o;
    WCHAR borrowed[] = u"X";
    o.registry.ExtraName = {2, 4, borrowed};  // not owned: the monitor's own buffer
    const size_t calls = hk::PoolAllocationCalls();
    o.CleanupAll();
    EXPECT_EQ(o.registry.ExtraName.Buffer, borrowed);
    EXPECT_EQ(hk::PoolAllocationCalls(), calls);
    EXPECT_EQ(PoolDelta(), 0u);
}

// ------------------------------------------------------------ pool exhaustion

TEST_F(FilterObjectsTest, EveryAllocationFailingInTurnLeavesWhatTheFailureAllows) {
    Wide name("\\Device\\V\\Path\\"), value("Value"), remote("10.0.0.2");
    auto actor = Actor();
    ActorInformation *a = Block(actor);
    const ULONG size = ULONG(actor.size());
    struct Kind {
        const char *what;
        uint64_t allocations;
        // Builds the object; returns the first failing status.
        std::function<NTSTATUS(Objects &)> build;
        // What stands after the n-th allocation failed, before Cleanup.
        std::function<void(Objects &, uint64_t, size_t)> survives;
    } kinds[] = {
        {"file", 1,
         [&](Objects &o) {
             NTSTATUS s = TcTFeInitializeFileObject(&o.file, &name.us, 4, 1, 0, 0, 0);
             return NT_SUCCESS(s) ? TcTFeAddFileEventInfo(&o.file, 1, 0, a, size, 1) : s;
         },
         [](Objects &o, uint64_t, size_t live) {
             EXPECT_TRUE(IsZero(o.file.Name));
             EXPECT_EQ(live, 0u);
         }},
        {"registry", 2,
         [&](Objects &o) {
             NTSTATUS s = TcTFeInitializeRegistryObject(&o.registry, &name.us, &value.us, 8);
             return NT_SUCCESS(s) ? TcTFeAddRegistryEventInfo(&o.registry, 1, 0, a, size, 1) : s;
         },
         [](Objects &o, uint64_t, size_t live) {
             // A failed value name takes the key name with it.
             EXPECT_TRUE(IsZero(o.registry.KeyName));
             EXPECT_TRUE(IsZero(o.registry.ValueName));
             EXPECT_EQ(live, 0u);
         }},
        {"process", 2,
         [&](Objects &o) {
             NTSTATUS s = TcTFeInitializeProcessObject(&o.process, &name.us);
             return NT_SUCCESS(s) ? TcTFeAddProcessEventInfo(&o.process, 1, 0, a, size, 7) : s;
         },
         [](Objects &o, uint64_t n, size_t live) {
             EXPECT_EQ(o.process.Name.Buffer == nullptr, n == 1);
             EXPECT_TRUE(IsZero(o.process.EventInfo));
             EXPECT_EQ(o.process.Operation, 0) << "not stored when the copy failed";
             EXPECT_EQ(live, n == 1 ? 0u : 1u);
         }},
        {"system", 1,
         [&](Objects &o) {
             NTSTATUS s = TcTFeInitializeSystemObject(&o.system, &name.us);
             return NT_SUCCESS(s) ? TcTFeAddSystemEventInfo(&o.system, 1, 0, a, size) : s;
         },
         [](Objects &o, uint64_t, size_t live) {
             EXPECT_TRUE(IsZero(o.system.Name));
             EXPECT_EQ(live, 0u);
         }},
        {"network", 3,
         [&](Objects &o) {
             NTSTATUS s = TcTFeInitializeNetworkObject(&o.network, 1, 2, &name.us, &remote.us);
             return NT_SUCCESS(s) ? TcTFeAddNetworkEventInfo(&o.network, 1, 0, a, size, 4) : s;
         },
         [](Objects &o, uint64_t n, size_t live) {
             // A failed remote address takes the local one with it.
             EXPECT_EQ(o.network.LocalAddress.Buffer == nullptr, n <= 2);
             EXPECT_EQ(o.network.RemoteAddress.Buffer == nullptr, n <= 2);
             EXPECT_TRUE(IsZero(o.network.EventInfo));
             EXPECT_EQ(o.network.Operation, 0);
             EXPECT_EQ(live, n <= 2 ? 0u : 2u);
         }},
        {"whitelist", 3,
         [&](Objects &o) { return TcTFeInitializeWhiteListObject(&o.whitelist, &name.us, &value.us, &remote.us); },
         [](Objects &o, uint64_t n, size_t live) {
             // Earlier strings stay for the caller's Cleanup.
             EXPECT_EQ(o.whitelist.ImagePath.Buffer != nullptr, n > 1);
             EXPECT_EQ(o.whitelist.CommandLine.Buffer != nullptr, n > 2);
             EXPECT_TRUE(IsZero(o.whitelist.ParentImagePath));
             if (n > 1) EXPECT_EQ(Text(&o.whitelist.ImagePath), "\\DEVICE\\V\\PATH\\");
             if (n > 2) EXPECT_EQ(Text(&o.whitelist.CommandLine), "VALUE");
             EXPECT_EQ(live, n - 1);
         }},
    };
    for (const auto &k : kinds) {
        {
            // The count of allocations the whole build makes.
            Objects o;
            const uint64_t calls = hk::PoolAllocationCalls();
            ASSERT_EQ(k.build(o), STATUS_SUCCESS) << k.what;
            EXPECT_EQ(hk::PoolAllocationCalls() - calls, k.allocations) << k.what;
            o.CleanupAll();
        }
        for (uint64_t n = 1; n <= k.allocations; ++n) {
            Objects o;
            const uint64_t injected = hk::InjectedFailures();
            hk::FailNthAllocation(n);
            EXPECT_EQ(k.build(o), STATUS_INSUFFICIENT_RESOURCES) << k.what << " failing allocation " << n;
            hk::ClearAllocationFailures();
            EXPECT_EQ(hk::InjectedFailures(), injected + 1) << k.what << " failing allocation " << n;
            k.survives(o, n, PoolDelta());
            o.CleanupAll();
            EXPECT_EQ(PoolDelta(), 0u) << k.what << " failing allocation " << n << "\n" << hk::LeakReport();
        }
    }
}

TEST_F(FilterObjectsTest, AnEventObjectTagFailureRefusesEveryNameCopy) {
    Objects o;
    Wide name("\\N");
    hk::FailAllocationsWithTag(TagEventObject);
    EXPECT_EQ(TcTFeInitializeFileObject(&o.file, &name.us, 0, 1, 0, 0, 0), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(TcTFeInitializeProcessObject(&o.process, &name.us), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(TcTFeInitializeNetworkObject(&o.network, 1, 2, &name.us, nullptr), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(o.process.ObjectType, 0u) << "not set on failure";
    hk::ClearAllocationFailures();
    o.CleanupAll();
    EXPECT_EQ(PoolDelta(), 0u);
}

}  // namespace
