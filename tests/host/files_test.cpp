// Files on volumes and the object namespace: name resolution through links
// and devices, create dispositions, share access, I/O and positions, delete
// dispositions, directory enumeration, a full disk and link queries.
#include "host_test.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

using namespace host_test;
using texprt_test::Wide;

namespace {

constexpr const char *kVolume = "\\Device\\HarddiskVolume2";
constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ULONG kCi = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;
constexpr LONGLONG kAtPosition = INT64_MIN;  // no ByteOffset

std::string Hex(NTSTATUS status) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", unsigned(status));
    return text + (" " + hk::StatusName(status));
}

struct Opened {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    HANDLE handle = nullptr;
    ULONG_PTR information = ~ULONG_PTR(0);
};

class Files : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        std::string pattern = (std::filesystem::temp_directory_path() / "hkfilesXXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        host_ = std::filesystem::canonical(pattern).string();
        std::filesystem::create_directories(host_ + "/Windows/System32");
        std::ofstream(host_ + "/Windows/System32/drv.sys") << "MZ";
        hk::AddVolume(kVolume, host_);
        hk::CreateSymbolicLink("\\??\\C:", kVolume);
        hk::CreateSymbolicLink("\\SystemRoot", std::string(kVolume) + "\\Windows");
    }
    void TearDown() override {
        std::filesystem::remove_all(host_);
        MachineTest::TearDown();
    }

    static Opened Open(const std::string &name, ACCESS_MASK access, ULONG disposition = FILE_OPEN, ULONG options = 0,
                       ULONG share = kShareAll, ULONG attributes = kCi, HANDLE root = nullptr) {
        Wide n(name);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &n.us, attributes, root, nullptr);
        Opened o;
        IO_STATUS_BLOCK iosb{};
        iosb.Information = o.information;
        o.status = ZwCreateFile(&o.handle, access, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, share, disposition,
                                options, nullptr, 0);
        o.information = iosb.Information;
        return o;
    }
    static void Close(HANDLE handle) { EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS); }

    static NTSTATUS Write(HANDLE h, const std::string &bytes, LONGLONG offset = kAtPosition,
                          ULONG_PTR *written = nullptr) {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER at = Ticks(offset);
        const NTSTATUS s = ZwWriteFile(h, nullptr, nullptr, nullptr, &iosb, (PVOID)bytes.data(), ULONG(bytes.size()),
                                       offset == kAtPosition ? nullptr : &at, nullptr);
        if (written) *written = iosb.Information;
        return s;
    }
    static NTSTATUS Read(HANDLE h, ULONG length, std::string *out, LONGLONG offset = kAtPosition) {
        IO_STATUS_BLOCK iosb{};
        iosb.Information = 99;
        out->assign(length, '\0');
        LARGE_INTEGER at = Ticks(offset);
        const NTSTATUS s =
            ZwReadFile(h, nullptr, nullptr, nullptr, &iosb, out->data(), length, offset == kAtPosition ? nullptr : &at,
                       nullptr);
        out->resize(iosb.Information);
        return s;
    }
    template <typename T>
    static NTSTATUS Query(HANDLE h, FILE_INFORMATION_CLASS c, T *info) {
        IO_STATUS_BLOCK iosb{};
        return ZwQueryInformationFile(h, &iosb, info, sizeof(T), c);
    }
    template <typename T>
    static NTSTATUS Set(HANDLE h, FILE_INFORMATION_CLASS c, T info) {
        IO_STATUS_BLOCK iosb{};
        return ZwSetInformationFile(h, &iosb, &info, sizeof(T), c);
    }
    // Names from one ZwQueryDirectoryFile call.
    static NTSTATUS List(HANDLE h, std::vector<std::string> *names, const char *mask = nullptr, bool restart = false,
                          bool single = false) {
        alignas(8) uint8_t buffer[4096];
        IO_STATUS_BLOCK iosb{};
        std::optional<Wide> m;
        if (mask) m.emplace(mask);
        const NTSTATUS s = ZwQueryDirectoryFile(h, nullptr, nullptr, nullptr, &iosb, buffer, sizeof(buffer),
                                                FileNamesInformation, single, m ? &m->us : nullptr, restart);
        names->clear();
        for (ULONG at = 0; NT_SUCCESS(s) && iosb.Information;) {
            auto *e = reinterpret_cast<FILE_NAMES_INFORMATION *>(buffer + at);
            names->push_back(hk::Utf8(std::u16string(e->FileName, e->FileNameLength / 2)));
            if (!e->NextEntryOffset) break;
            at += e->NextEntryOffset;
        }
        return s;
    }

    std::string host_;
};

// Threads opening, writing and deleting at once. The ctest label "concurrency"
// comes with the suite's name (see tests/CMakeLists.txt).
class FilesConcurrency : public Files {};

using Names = std::vector<std::string>;

TEST_F(Files, NamesResolveThroughLinksAndDevicesWithWindowsStatuses) {
    const struct {
        const char *name;
        ULONG attributes;
        NTSTATUS status;
    } rows[] = {
        {"\\??\\C:\\Windows\\System32\\drv.sys", kCi, STATUS_SUCCESS},
        {"\\??\\c:\\windows\\SYSTEM32\\DRV.SYS", kCi, STATUS_SUCCESS},
        {"\\GLOBAL??\\C:\\Windows\\System32\\drv.sys", kCi, STATUS_SUCCESS},
        {"\\SystemRoot\\System32\\drv.sys", OBJ_KERNEL_HANDLE, STATUS_SUCCESS},
        {"\\systemroot\\system32\\Drv.Sys", kCi, STATUS_SUCCESS},
        {"\\Device\\HarddiskVolume2\\Windows\\System32\\drv.sys", OBJ_KERNEL_HANDLE, STATUS_SUCCESS},
        {"\\??\\GLOBALROOT\\Device\\HarddiskVolume2\\Windows\\System32\\drv.sys", kCi, STATUS_SUCCESS},
        // Without OBJ_CASE_INSENSITIVE every component must match exactly,
        // the object manager's as much as the file system's.
        {"\\??\\c:\\Windows\\System32\\drv.sys", OBJ_KERNEL_HANDLE, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\systemroot\\System32\\drv.sys", OBJ_KERNEL_HANDLE, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\??\\C:\\windows\\System32\\drv.sys", OBJ_KERNEL_HANDLE, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\??\\C:\\Windows\\System32\\DRV.SYS", OBJ_KERNEL_HANDLE, STATUS_OBJECT_NAME_NOT_FOUND},
        // Missing file, missing directory, a file used as a directory.
        {"\\??\\C:\\Windows\\System32\\missing.sys", kCi, STATUS_OBJECT_NAME_NOT_FOUND},
        {"\\??\\C:\\Windows\\Nope\\drv.sys", kCi, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\??\\C:\\Windows\\System32\\drv.sys\\x", kCi, STATUS_OBJECT_PATH_NOT_FOUND},
        // Unknown devices and links.
        {"\\Device\\HarddiskVolume9\\x", kCi, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\Device\\HarddiskVolume9", kCi, STATUS_OBJECT_NAME_NOT_FOUND},
        {"\\??\\Q:\\x", kCi, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\Device", kCi, STATUS_OBJECT_TYPE_MISMATCH},
        // Syntax.
        {"", kCi, STATUS_OBJECT_NAME_INVALID},
        {"C:\\Windows\\System32\\drv.sys", kCi, STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"\\??\\C:\\Windows\\System32\\drv.sys\\", kCi, STATUS_OBJECT_NAME_INVALID},
        {"\\??\\C:\\Windows\\\\System32\\drv.sys", kCi, STATUS_OBJECT_NAME_INVALID},
        {"\\??\\C:\\Windows\\System32\\dr*.sys", kCi, STATUS_OBJECT_NAME_INVALID},
        {"\\??\\C:\\Windows\\..\\Windows\\System32\\drv.sys", kCi, STATUS_OBJECT_NAME_INVALID},
        {"\\Device\\\\HarddiskVolume2", kCi, STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto &row : rows) {
        const Opened o = Open(row.name, FILE_READ_ATTRIBUTES | SYNCHRONIZE, FILE_OPEN, 0, kShareAll, row.attributes);
        EXPECT_EQ(Hex(o.status), Hex(row.status)) << row.name;
        if (NT_SUCCESS(o.status)) Close(o.handle);
    }
}

TEST_F(Files, DirectoryOptionsMustMatchWhatTheNameIs) {
    const struct {
        const char *name;
        ULONG options;
        NTSTATUS status;
    } rows[] = {
        {"\\??\\C:\\Windows", FILE_NON_DIRECTORY_FILE, STATUS_FILE_IS_A_DIRECTORY},
        {"\\??\\C:\\Windows\\System32\\drv.sys", FILE_DIRECTORY_FILE, STATUS_NOT_A_DIRECTORY},
        {"\\??\\C:\\Windows\\System32\\drv.sys\\", FILE_NON_DIRECTORY_FILE, STATUS_OBJECT_NAME_INVALID},
        {"\\??\\C:\\Windows\\", FILE_DIRECTORY_FILE, STATUS_SUCCESS},
        {"\\??\\C:\\", FILE_DIRECTORY_FILE, STATUS_SUCCESS},
        {"\\??\\C:", 0, STATUS_SUCCESS},  // the volume itself
    };
    for (const auto &row : rows) {
        const Opened o = Open(row.name, FILE_READ_ATTRIBUTES, FILE_OPEN, row.options);
        EXPECT_EQ(Hex(o.status), Hex(row.status)) << row.name;
        if (NT_SUCCESS(o.status)) Close(o.handle);
    }
    Opened made = Open("\\??\\C:\\Logs", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_CREATE, FILE_DIRECTORY_FILE | kSync);
    ASSERT_EQ(made.status, STATUS_SUCCESS);
    EXPECT_EQ(made.information, ULONG_PTR(FILE_CREATED));
    EXPECT_TRUE(std::filesystem::is_directory(host_ + "/Logs"));
    Close(made.handle);
    // What IoCreateFile refuses.
    EXPECT_EQ(Open("\\??\\C:\\x", FILE_WRITE_DATA, FILE_OVERWRITE_IF, FILE_DIRECTORY_FILE).status,
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Open("\\??\\C:\\x", FILE_WRITE_DATA, FILE_OPEN_IF, kSync).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Open("\\??\\C:\\x", FILE_WRITE_DATA, FILE_OPEN_IF, FILE_DELETE_ON_CLOSE).status, STATUS_INVALID_PARAMETER);
}

TEST_F(Files, DispositionsCreateOpenOrReplaceTheFile) {
    const struct {
        ULONG disposition;
        bool exists;
        NTSTATUS status;
        ULONG_PTR information;
        int size_after;  // -1: no file
    } rows[] = {
        {FILE_SUPERSEDE, true, STATUS_SUCCESS, FILE_SUPERSEDED, 0},
        {FILE_SUPERSEDE, false, STATUS_SUCCESS, FILE_CREATED, 0},
        {FILE_OPEN, true, STATUS_SUCCESS, FILE_OPENED, 3},
        {FILE_OPEN, false, STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST, -1},
        {FILE_CREATE, true, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS, 3},
        {FILE_CREATE, false, STATUS_SUCCESS, FILE_CREATED, 0},
        {FILE_OPEN_IF, true, STATUS_SUCCESS, FILE_OPENED, 3},
        {FILE_OPEN_IF, false, STATUS_SUCCESS, FILE_CREATED, 0},
        {FILE_OVERWRITE, true, STATUS_SUCCESS, FILE_OVERWRITTEN, 0},
        {FILE_OVERWRITE, false, STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST, -1},
        {FILE_OVERWRITE_IF, true, STATUS_SUCCESS, FILE_OVERWRITTEN, 0},
        {FILE_OVERWRITE_IF, false, STATUS_SUCCESS, FILE_CREATED, 0},
    };
    const std::string host_file = host_ + "/d.txt";
    for (const auto &row : rows) {
        std::filesystem::remove(host_file);
        if (row.exists) std::ofstream(host_file) << "abc";
        const Opened o = Open("\\??\\C:\\d.txt", GENERIC_WRITE, row.disposition, FILE_NON_DIRECTORY_FILE);
        EXPECT_EQ(Hex(o.status), Hex(row.status)) << row.disposition << " " << row.exists;
        EXPECT_EQ(o.information, row.information) << row.disposition << " " << row.exists;
        if (NT_SUCCESS(o.status)) Close(o.handle);
        const int size = std::filesystem::exists(host_file) ? int(std::filesystem::file_size(host_file)) : -1;
        EXPECT_EQ(size, row.size_after) << row.disposition << " " << row.exists;
    }
}

TEST_F(Files, ShareAccessIsCheckedBothWaysAsIoCheckShareAccessDoes) {
    constexpr ULONG R = FILE_SHARE_READ, W = FILE_SHARE_WRITE, D = FILE_SHARE_DELETE;
    const struct {
        ACCESS_MASK first_access;
        ULONG first_share;
        ACCESS_MASK second_access;
        ULONG second_share;
        bool shares;
    } rows[] = {
        {FILE_READ_DATA, R, FILE_READ_DATA, R, true},
        {FILE_READ_DATA, R, FILE_WRITE_DATA, R | W, false},  // the first does not share writing
        {FILE_READ_DATA, R | W, FILE_WRITE_DATA, R, true},   // nobody writes whom the second would refuse
        {FILE_WRITE_DATA, R | W, FILE_READ_DATA, R, false},  // the second would refuse the first's writing
        {FILE_READ_DATA, R | W | D, FILE_WRITE_DATA, W | D, false},  // ...or the first's reading
        {FILE_APPEND_DATA, R | W, FILE_READ_DATA, R, false},
        {FILE_READ_ATTRIBUTES, 0, FILE_READ_DATA | FILE_WRITE_DATA, 0, true},  // attributes alone take no part
        {FILE_READ_DATA, 0, FILE_READ_ATTRIBUTES | SYNCHRONIZE, 0, true},
        {FILE_READ_DATA, 0, FILE_READ_DATA, R | W | D, false},
        {FILE_READ_DATA, R | W, DELETE, R | W | D, false},
        {DELETE, R | W | D, FILE_READ_DATA, R | W, false},
        {FILE_READ_DATA, R | W | D, DELETE, R | W | D, true},
        {GENERIC_READ, R, GENERIC_WRITE, R | W, false},
        {FILE_EXECUTE, R, FILE_READ_DATA, R, true},
    };
    for (const auto &row : rows) {
        const Opened first = Open("\\??\\C:\\Windows\\System32\\drv.sys", row.first_access, FILE_OPEN, 0, row.first_share);
        ASSERT_EQ(first.status, STATUS_SUCCESS);
        const Opened second =
            Open("\\??\\C:\\Windows\\System32\\drv.sys", row.second_access, FILE_OPEN, 0, row.second_share);
        EXPECT_EQ(Hex(second.status), Hex(row.shares ? STATUS_SUCCESS : STATUS_SHARING_VIOLATION))
            << std::hex << row.first_access << "/" << row.first_share << " then " << row.second_access << "/"
            << row.second_share;
        if (NT_SUCCESS(second.status)) Close(second.handle);
        Close(first.handle);
        // The close gave the share access back.
        const Opened again =
            Open("\\??\\C:\\Windows\\System32\\drv.sys", row.second_access, FILE_OPEN, 0, row.second_share);
        EXPECT_EQ(again.status, STATUS_SUCCESS);
        Close(again.handle);
    }
}

TEST_F(Files, ReadsAndWritesMoveTheSynchronousPositionAndStopAtTheEnd) {
    Opened f = Open("\\??\\C:\\io.bin", GENERIC_READ | GENERIC_WRITE, FILE_CREATE, kSync | FILE_NON_DIRECTORY_FILE);
    ASSERT_EQ(f.status, STATUS_SUCCESS);
    ULONG_PTR written = 0;
    EXPECT_EQ(Write(f.handle, "hello world", kAtPosition, &written), STATUS_SUCCESS);
    EXPECT_EQ(written, 11u);
    FILE_POSITION_INFORMATION position{};
    EXPECT_EQ(Query(f.handle, FilePositionInformation, &position), STATUS_SUCCESS);
    EXPECT_EQ(position.CurrentByteOffset.QuadPart, 11);
    std::string text;
    EXPECT_EQ(Read(f.handle, 4, &text), STATUS_END_OF_FILE);
    EXPECT_EQ(text, "");
    EXPECT_EQ(Set(f.handle, FilePositionInformation, FILE_POSITION_INFORMATION{Ticks(6)}), STATUS_SUCCESS);
    EXPECT_EQ(Read(f.handle, 100, &text), STATUS_SUCCESS);  // a short read at the end
    EXPECT_EQ(text, "world");
    EXPECT_EQ(Read(f.handle, 1, &text), STATUS_END_OF_FILE);
    EXPECT_EQ(Read(f.handle, 5, &text, 0), STATUS_SUCCESS);
    EXPECT_EQ(text, "hello");
    EXPECT_EQ(Read(f.handle, 5, &text, 20), STATUS_END_OF_FILE);
    EXPECT_EQ(Write(f.handle, "!", LONGLONG(0xFFFFFFFFFFFFFFFFull)), STATUS_SUCCESS);  // FILE_WRITE_TO_END_OF_FILE
    FILE_STANDARD_INFORMATION standard{};
    EXPECT_EQ(Query(f.handle, FileStandardInformation, &standard), STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 12);
    EXPECT_EQ(standard.AllocationSize.QuadPart, 4096);
    EXPECT_EQ(standard.NumberOfLinks, 1u);
    EXPECT_FALSE(standard.Directory);
    EXPECT_EQ(Set(f.handle, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{Ticks(4)}), STATUS_SUCCESS);
    EXPECT_EQ(Read(f.handle, 100, &text, 0), STATUS_SUCCESS);
    EXPECT_EQ(text, "hell");
    Close(f.handle);

    // Without a synchronous handle there is no position to use, and a handle
    // that may not read cannot.
    Opened async = Open("\\??\\C:\\io.bin", FILE_READ_DATA | FILE_WRITE_ATTRIBUTES);
    ASSERT_EQ(async.status, STATUS_SUCCESS);
    EXPECT_EQ(Read(async.handle, 4, &text), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Write(async.handle, "x", 0), STATUS_ACCESS_DENIED);
    Close(async.handle);
    EXPECT_EQ(*hk::ReadFile("C:\\io.bin"), "hell");
}

TEST_F(Files, DeleteOnCloseAndDispositionDeleteAtTheLastClose) {
    ASSERT_TRUE(hk::WriteFile("C:\\tmp\\a.txt", "a"));
    Opened doomed = Open("\\??\\C:\\tmp\\a.txt", DELETE | FILE_READ_DATA, FILE_OPEN, FILE_DELETE_ON_CLOSE);
    ASSERT_EQ(doomed.status, STATUS_SUCCESS);
    // Delete-on-close takes effect at that handle's cleanup: until then others may open.
    Opened other = Open("\\??\\C:\\tmp\\a.txt", FILE_READ_DATA);
    ASSERT_EQ(other.status, STATUS_SUCCESS);
    Close(doomed.handle);
    EXPECT_EQ(Open("\\??\\C:\\tmp\\a.txt", FILE_READ_DATA).status, STATUS_DELETE_PENDING);
    FILE_STANDARD_INFORMATION standard{};
    EXPECT_EQ(Query(other.handle, FileStandardInformation, &standard), STATUS_SUCCESS);
    EXPECT_TRUE(standard.DeletePending);
    EXPECT_TRUE(hk::FileExists("C:\\tmp\\a.txt"));
    Close(other.handle);
    EXPECT_FALSE(hk::FileExists("C:\\tmp\\a.txt"));

    // A disposition can be withdrawn before the last close.
    ASSERT_TRUE(hk::WriteFile("C:\\tmp\\b.txt", "b"));
    Opened b = Open("\\??\\C:\\tmp\\b.txt", DELETE);
    EXPECT_EQ(Set(b.handle, FileDispositionInformation, FILE_DISPOSITION_INFORMATION{TRUE}), STATUS_SUCCESS);
    EXPECT_EQ(Set(b.handle, FileDispositionInformation, FILE_DISPOSITION_INFORMATION{FALSE}), STATUS_SUCCESS);
    Close(b.handle);
    EXPECT_TRUE(hk::FileExists("C:\\tmp\\b.txt"));

    Wide directory("\\??\\C:\\tmp"), file("\\??\\C:\\tmp\\b.txt");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &directory.us, kCi, nullptr, nullptr);
    EXPECT_EQ(ZwDeleteFile(&oa), STATUS_DIRECTORY_NOT_EMPTY);
    InitializeObjectAttributes(&oa, &file.us, kCi, nullptr, nullptr);
    EXPECT_EQ(ZwDeleteFile(&oa), STATUS_SUCCESS);
    EXPECT_FALSE(hk::FileExists("C:\\tmp\\b.txt"));
    InitializeObjectAttributes(&oa, &directory.us, kCi, nullptr, nullptr);
    EXPECT_EQ(ZwDeleteFile(&oa), STATUS_SUCCESS);
}

TEST_F(Files, DirectoriesEnumerateInOrderThroughAMaskThatRestartKeeps) {
    for (const char *name : {"C:\\Data\\b.txt", "C:\\Data\\A.txt", "C:\\Data\\c.log", "C:\\Data\\sub\\x"})
        ASSERT_TRUE(hk::WriteFile(name, "12345"));
    Opened dir = Open("\\??\\C:\\Data", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_OPEN, FILE_DIRECTORY_FILE | kSync);
    ASSERT_EQ(dir.status, STATUS_SUCCESS);
    Names names;
    EXPECT_EQ(List(dir.handle, &names, "*.TXT"), STATUS_SUCCESS);
    EXPECT_EQ(names, (Names{"A.txt", "b.txt"}));
    EXPECT_EQ(List(dir.handle, &names), STATUS_NO_MORE_FILES);
    EXPECT_EQ(List(dir.handle, &names, nullptr, true, true), STATUS_SUCCESS);  // restart keeps the mask
    EXPECT_EQ(names, (Names{"A.txt"}));
    EXPECT_EQ(List(dir.handle, &names, "*", true), STATUS_SUCCESS);  // ...unless given a new one
    EXPECT_EQ(names, (Names{".", "..", "A.txt", "b.txt", "c.log", "sub"}));
    Close(dir.handle);

    const struct {
        const char *mask;
        Names names;
        NTSTATUS status;
    } masks[] = {
        {"?.log", {"c.log"}, STATUS_SUCCESS},
        {"*.*", {".", "..", "A.txt", "b.txt", "c.log"}, STATUS_SUCCESS},  // NT's *.* wants a dot
        {"<\"", {".", "..", "sub"}, STATUS_SUCCESS},                      // Win32's *.
        {"a.txt", {"A.txt"}, STATUS_SUCCESS},
        {"nothing*", {}, STATUS_NO_SUCH_FILE},
        {"a\\b", {}, STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto &row : masks) {
        Opened d = Open("\\??\\C:\\Data", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
        EXPECT_EQ(Hex(List(d.handle, &names, row.mask)), Hex(row.status)) << row.mask;
        EXPECT_EQ(names, row.names) << row.mask;
        Close(d.handle);
    }

    // The root has no "." or "..", and entries carry what the file is.
    Opened root = Open("\\??\\C:\\", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
    alignas(8) uint8_t buffer[512];
    IO_STATUS_BLOCK iosb{};
    EXPECT_EQ(ZwQueryDirectoryFile(root.handle, nullptr, nullptr, nullptr, &iosb, buffer, 8,
                                   FileBothDirectoryInformation, TRUE, nullptr, FALSE),
              STATUS_INFO_LENGTH_MISMATCH);
    ASSERT_EQ(ZwQueryDirectoryFile(root.handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof(buffer),
                                   FileBothDirectoryInformation, TRUE, nullptr, FALSE),
              STATUS_SUCCESS);
    auto *both = reinterpret_cast<FILE_BOTH_DIR_INFORMATION *>(buffer);
    EXPECT_EQ(hk::Utf8(std::u16string(both->FileName, both->FileNameLength / 2)), "Data");
    EXPECT_EQ(both->FileAttributes, ULONG(FILE_ATTRIBUTE_DIRECTORY));
    // A name that does not fit still comes, cut short.
    const ULONG fixed = offsetof(FILE_DIRECTORY_INFORMATION, FileName);
    EXPECT_EQ(ZwQueryDirectoryFile(root.handle, nullptr, nullptr, nullptr, &iosb, buffer, fixed + 2,
                                   FileDirectoryInformation, FALSE, nullptr, FALSE),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(iosb.Information, fixed + 2);
    EXPECT_EQ(reinterpret_cast<FILE_DIRECTORY_INFORMATION *>(buffer)->FileNameLength, 14u);  // "Windows"
    EXPECT_EQ(reinterpret_cast<FILE_DIRECTORY_INFORMATION *>(buffer)->EndOfFile.QuadPart, 0);
    Close(root.handle);
}

TEST_F(Files, AFullDiskRefusesOnlyGrowth) {
    Opened f = Open("\\??\\C:\\full.bin", FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, FILE_CREATE, kSync);
    ASSERT_EQ(f.status, STATUS_SUCCESS);
    EXPECT_EQ(Write(f.handle, "abcd"), STATUS_SUCCESS);
    hk::SetDiskFull(kVolume, true);
    EXPECT_EQ(Write(f.handle, "more"), STATUS_DISK_FULL);
    EXPECT_EQ(Write(f.handle, "AB", 0), STATUS_SUCCESS);
    EXPECT_EQ(Set(f.handle, FileEndOfFileInformation, FILE_END_OF_FILE_INFORMATION{Ticks(100)}), STATUS_DISK_FULL);
    FILE_FS_SIZE_INFORMATION size{};
    IO_STATUS_BLOCK iosb{};
    EXPECT_EQ(ZwQueryVolumeInformationFile(f.handle, &iosb, &size, sizeof(size), FileFsSizeInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(size.AvailableAllocationUnits.QuadPart, 0);
    hk::SetDiskFull(kVolume, false);
    EXPECT_EQ(Write(f.handle, "more"), STATUS_SUCCESS);
    Close(f.handle);
    EXPECT_FALSE(hk::ReadFile("\\SystemRoot\\..\\full.bin"));  // ".." is a bad name, not a step up
    EXPECT_EQ(hk::ReadFile("C:\\full.bin"), "ABmore");  // the write at 0 moved the position to 2
}

TEST_F(Files, SymbolicLinksOpenAndReportTheirTargets) {
    const struct {
        const char *name;
        ULONG attributes;
        NTSTATUS status;
    } rows[] = {
        {"\\SystemRoot", OBJ_KERNEL_HANDLE, STATUS_SUCCESS},
        {"\\systemroot", OBJ_KERNEL_HANDLE, STATUS_OBJECT_NAME_NOT_FOUND},
        {"\\systemroot", kCi, STATUS_SUCCESS},
        {"\\GLOBAL??\\C:", OBJ_KERNEL_HANDLE, STATUS_SUCCESS},
        {"\\Device", kCi, STATUS_OBJECT_TYPE_MISMATCH},
        {"\\SystemRoot\\System32", kCi, STATUS_OBJECT_TYPE_MISMATCH},
        {"\\Nope\\x", kCi, STATUS_OBJECT_PATH_NOT_FOUND},
    };
    for (const auto &row : rows) {
        Wide name(row.name);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name.us, row.attributes, nullptr, nullptr);
        HANDLE link = nullptr;
        EXPECT_EQ(Hex(ZwOpenSymbolicLinkObject(&link, SYMBOLIC_LINK_QUERY, &oa)), Hex(row.status)) << row.name;
        if (link) Close(link);
    }

    Wide name("\\SystemRoot");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name.us, kCi, nullptr, nullptr);
    HANDLE link;
    ASSERT_EQ(ZwOpenSymbolicLinkObject(&link, SYMBOLIC_LINK_QUERY, &oa), STATUS_SUCCESS);
    const std::string target = std::string(kVolume) + "\\Windows";
    WCHAR buffer[64];
    UNICODE_STRING out{0, 8, buffer};
    ULONG returned = 0;
    EXPECT_EQ(ZwQuerySymbolicLinkObject(link, &out, &returned), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(returned, (target.size() + 1) * 2);  // with the terminating NUL
    out.MaximumLength = USHORT(returned);
    EXPECT_EQ(ZwQuerySymbolicLinkObject(link, &out, &returned), STATUS_SUCCESS);
    EXPECT_EQ(texprt_test::Text(&out), target);
    EXPECT_EQ(buffer[target.size()], 0);
    out.MaximumLength = USHORT(target.size() * 2);  // without asking for the length, the characters suffice
    EXPECT_EQ(ZwQuerySymbolicLinkObject(link, &out, nullptr), STATUS_SUCCESS);
    Close(link);

    Opened file = Open("\\SystemRoot\\System32\\drv.sys", FILE_READ_DATA);
    EXPECT_EQ(ZwQuerySymbolicLinkObject(file.handle, &out, &returned), STATUS_OBJECT_TYPE_MISMATCH);
    Close(file.handle);
}

TEST_F(Files, RelativeOpensRenamesAndNamesStayOnTheVolume) {
    Opened dir = Open("\\??\\C:\\Windows", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_OPEN, FILE_DIRECTORY_FILE | kSync);
    ASSERT_EQ(dir.status, STATUS_SUCCESS);
    EXPECT_EQ(Open("\\new.txt", FILE_WRITE_DATA, FILE_CREATE, 0, kShareAll, kCi, dir.handle).status,
              STATUS_INVALID_PARAMETER);
    Opened f = Open("system32\\new.txt", FILE_WRITE_DATA | DELETE, FILE_CREATE, 0, kShareAll, kCi, dir.handle);
    ASSERT_EQ(f.status, STATUS_SUCCESS);
    EXPECT_TRUE(std::filesystem::exists(host_ + "/Windows/System32/new.txt"));

    alignas(8) uint8_t buffer[256] = {};
    auto *rename = reinterpret_cast<FILE_RENAME_INFORMATION *>(buffer);
    auto rename_to = [&](const std::u16string &to, bool replace) {
        rename->ReplaceIfExists = replace;
        rename->RootDirectory = nullptr;
        rename->FileNameLength = ULONG(to.size() * 2);
        std::memcpy(rename->FileName, to.data(), to.size() * 2);
        IO_STATUS_BLOCK iosb{};
        return ZwSetInformationFile(f.handle, &iosb, buffer, sizeof(buffer), FileRenameInformation);
    };
    EXPECT_EQ(rename_to(u"drv.sys", false), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(rename_to(u"renamed.txt", false), STATUS_SUCCESS);
    EXPECT_EQ(rename_to(u"\\??\\C:\\Windows\\moved.txt", false), STATUS_SUCCESS);
    EXPECT_EQ(rename_to(u"\\??\\C:\\Nope\\moved.txt", false), STATUS_OBJECT_PATH_NOT_FOUND);
    alignas(8) uint8_t name_buffer[128];
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(ZwQueryInformationFile(f.handle, &iosb, name_buffer, sizeof(name_buffer), FileNameInformation),
              STATUS_SUCCESS);
    auto *name = reinterpret_cast<FILE_NAME_INFORMATION *>(name_buffer);
    EXPECT_EQ(hk::Utf8(std::u16string(name->FileName, name->FileNameLength / 2)), "\\Windows\\moved.txt");
    Close(f.handle);
    Close(dir.handle);
    EXPECT_EQ(hk::HostPathOf("\\SystemRoot\\MOVED.TXT"), host_ + "/Windows/moved.txt");
}

TEST_F(FilesConcurrency, ThreadsShareOneFileAndKeepTheirOwn) {
    constexpr int kThreads = 4, kRounds = 20;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string own = "\\??\\C:\\own" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                Opened shared = Open("\\??\\C:\\shared.bin", FILE_WRITE_DATA, FILE_OPEN_IF);
                EXPECT_EQ(shared.status, STATUS_SUCCESS);
                EXPECT_EQ(Write(shared.handle, std::string(1, char('a' + t)), t), STATUS_SUCCESS);
                Close(shared.handle);
                Opened mine = Open(own, GENERIC_READ | GENERIC_WRITE | DELETE, FILE_OVERWRITE_IF,
                                   kSync | FILE_DELETE_ON_CLOSE, 0);
                EXPECT_EQ(mine.status, STATUS_SUCCESS);
                std::string text;
                EXPECT_EQ(Write(mine.handle, "data"), STATUS_SUCCESS);
                EXPECT_EQ(Read(mine.handle, 8, &text, 0), STATUS_SUCCESS);
                EXPECT_EQ(text, "data");
                Close(mine.handle);
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(hk::ReadFile("C:\\shared.bin"), "abcd");
    for (int t = 0; t < kThreads; ++t) EXPECT_FALSE(hk::FileExists("C:\\own" + std::to_string(t)));
}

TEST_F(Files, TimesFollowTheMachineClockAndResetDismounts) {
    Opened f = Open("\\??\\C:\\t.txt", FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE, FILE_CREATE, kSync);
    ASSERT_EQ(f.status, STATUS_SUCCESS);
    const int64_t created = hk::SystemTime();
    hk::AdvanceClock(60 * kSecond);
    EXPECT_EQ(Write(f.handle, "x"), STATUS_SUCCESS);
    FILE_BASIC_INFORMATION basic{};
    EXPECT_EQ(Query(f.handle, FileBasicInformation, &basic), STATUS_SUCCESS);
    EXPECT_EQ(basic.CreationTime.QuadPart, created);
    EXPECT_EQ(basic.LastWriteTime.QuadPart, created + 60 * kSecond);
    EXPECT_EQ(basic.FileAttributes, ULONG(FILE_ATTRIBUTE_ARCHIVE));

    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    Opened raised = Open("\\??\\C:\\t.txt", FILE_READ_ATTRIBUTES);
    KeLowerIrql(old);
    ExpectComplaint("ZwCreateFile");
    if (NT_SUCCESS(raised.status)) Close(raised.handle);

    hk::Reset();
    EXPECT_EQ(Write(f.handle, "y"), STATUS_VOLUME_DISMOUNTED);
    Close(f.handle);
    EXPECT_EQ(Open("\\??\\C:\\t.txt", FILE_READ_DATA).status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_TRUE(std::filesystem::exists(host_ + "/t.txt"));  // the host directory is the test's
}

}  // namespace
