// Files on volumes: the I/O manager's file routines and a file system
// behind each volume device, keeping its files in a host directory.
//
// A create walks the object namespace to a volume's device object and the
// rest of the name is walked on the host, component by component, matching
// names exactly or (with OBJ_CASE_INSENSITIVE) through the kernel's upcase
// table. Each open file has one control block, shared by its file objects,
// that keeps the share access (checked as IoCheckShareAccess checks it) and
// the delete disposition; a handle's close is the file object's cleanup,
// where delete-on-close takes effect and the last cleanup deletes.
//
// Timestamps follow the machine's clock, not the host's: a write stamps the
// host file's modification time from KeQuerySystemTime's clock, and what the
// host cannot keep (creation and change times, attributes) is kept beside
// the volume, tied to the host file's inode.
#include "ob/namespace.h"

#include <hk/hk.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace hk::detail {

namespace io {

// SHARE_ACCESS, counted as the I/O manager counts it.
struct ShareAccess {
    ULONG open_count = 0, readers = 0, writers = 0, deleters = 0;
    ULONG shared_read = 0, shared_write = 0, shared_delete = 0;
};

struct Fcb {
    std::string rel;  // below the volume's host directory, '/'-separated; "" is the root
    bool directory = false;
    bool whole_volume = false;  // the volume itself was opened (\??\C: with nothing after it)
    ULONG handles = 0;
    bool delete_pending = false;
    ShareAccess share;
};

// What the host file system cannot keep for us.
struct Meta {
    ino_t inode = 0;
    int64_t creation = 0, access = 0, change = 0;
    ULONG attributes = 0;
};

struct DirEntry {
    std::u16string name;
    std::string rel;
    struct stat st {};
};

struct FileObject {
    std::shared_ptr<Volume> volume;
    std::shared_ptr<Fcb> fcb;
    int fd = -1;
    ACCESS_MASK access = 0;   // granted
    ACCESS_MASK counted = 0;  // what the share access counts for this open
    ULONG share = 0;
    bool synchronous = false;
    bool delete_on_close = false;
    bool case_insensitive = false;
    bool cleaned_up = false;
    int64_t position = 0;
    // Directory enumeration: the mask is fixed by the first query.
    bool queried = false;
    std::u16string mask;
    std::vector<DirEntry> entries;
    size_t next_entry = 0;
};

}  // namespace io

struct Volume {
    std::u16string device_name;
    std::string host_root;
    hk::VolumeOptions options;
    bool dismounted = false;
    std::map<std::string, std::shared_ptr<io::Fcb>> fcbs;
    std::shared_ptr<io::Fcb> volume_fcb;
    std::map<std::string, io::Meta> meta;

    std::string HostPath(const std::string &rel) const { return rel.empty() ? host_root : host_root + "/" + rel; }
};

namespace io {
namespace {

constexpr int64_t kUnixEpochAsSystemTime = 116444736000000000LL;
constexpr int64_t kClusterSize = 4096;
constexpr size_t kMaximumComponentLength = 255;

struct FilesState {
    std::recursive_mutex lock;
    std::vector<std::shared_ptr<Volume>> volumes;
};

FilesState &Files() {
    static FilesState *state = [] {
        auto *s = new FilesState;
        RegisterReset([s] {
            std::lock_guard guard(s->lock);
            // Handles still open keep their volume, which answers every
            // request with STATUS_VOLUME_DISMOUNTED from now on.
            for (auto &volume : s->volumes) {
                volume->dismounted = true;
                volume->fcbs.clear();
                volume->meta.clear();
            }
            s->volumes.clear();
        });
        return s;
    }();
    return *state;
}

// ------------------------------------------------------------ small helpers

NTSTATUS StatusFromErrno(int error) {
    switch (error) {
    case EACCES:
    case EPERM:
    case EROFS: return STATUS_ACCESS_DENIED;
    case ENOSPC:
    case EDQUOT:
    case EFBIG: return STATUS_DISK_FULL;
    case ENOENT: return STATUS_OBJECT_NAME_NOT_FOUND;
    case ENOTDIR: return STATUS_OBJECT_PATH_NOT_FOUND;
    case EEXIST: return STATUS_OBJECT_NAME_COLLISION;
    case ENOTEMPTY: return STATUS_DIRECTORY_NOT_EMPTY;
    case EISDIR: return STATUS_FILE_IS_A_DIRECTORY;
    case ENAMETOOLONG: return STATUS_OBJECT_NAME_INVALID;
    case EBUSY: return STATUS_SHARING_VIOLATION;
    case EXDEV: return STATUS_NOT_SAME_DEVICE;
    case ENOMEM:
    case EMFILE:
    case ENFILE: return STATUS_INSUFFICIENT_RESOURCES;
    default: return STATUS_UNSUCCESSFUL;
    }
}

int64_t SystemTimeOf(const timespec &t) { return int64_t(t.tv_sec) * 10'000'000 + t.tv_nsec / 100 + kUnixEpochAsSystemTime; }

timespec HostTimeOf(int64_t system_time) {
    const int64_t unix_ticks = system_time - kUnixEpochAsSystemTime;
    int64_t seconds = unix_ticks / 10'000'000, rest = unix_ticks % 10'000'000;
    if (rest < 0) {
        rest += 10'000'000;
        --seconds;
    }
    return timespec{time_t(seconds), long(rest * 100)};
}

std::string Join(const std::string &rel, const std::string &name) { return rel.empty() ? name : rel + "/" + name; }

bool Under(const std::string &rel, const std::string &directory) {
    return directory.empty() || (rel.size() > directory.size() && rel.compare(0, directory.size(), directory) == 0 &&
                                 rel[directory.size()] == '/');
}

std::vector<std::u16string> Split(const std::u16string &path) {
    std::vector<std::u16string> parts;
    if (path.empty()) return parts;
    size_t start = 0;
    for (;;) {
        const size_t end = path.find(u'\\', start);
        parts.push_back(path.substr(start, end == std::u16string::npos ? std::u16string::npos : end - start));
        if (end == std::u16string::npos) return parts;
        start = end + 1;
    }
}

// A file name component as NTFS accepts it. "." and ".." are names the file
// system refuses rather than steps up and down: only Win32 folds them.
// Stream names (a colon) are not modelled and refused with the rest.
bool ValidComponent(const std::u16string &name, bool wildcards_allowed) {
    if (name.empty() || name.size() > kMaximumComponentLength) return false;
    if (!wildcards_allowed && (name == u"." || name == u"..")) return false;
    for (char16_t c : name) {
        if (c < 0x20 || c == u'\\' || c == u'/' || c == u':' || c == u'|') return false;
        const bool wildcard = c == u'*' || c == u'?' || c == u'<' || c == u'>' || c == u'"';
        if (wildcard && !wildcards_allowed) return false;
    }
    return true;
}

ACCESS_MASK MapGenericAccess(ACCESS_MASK access) {
    if (access & GENERIC_READ) access |= FILE_GENERIC_READ;
    if (access & GENERIC_WRITE) access |= FILE_GENERIC_WRITE;
    if (access & GENERIC_EXECUTE) access |= FILE_GENERIC_EXECUTE;
    // Kernel callers are granted everything the file allows.
    if (access & (GENERIC_ALL | MAXIMUM_ALLOWED)) access |= FILE_ALL_ACCESS;
    return access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
}

// ------------------------------------------------------------ name matching

// A directory query's mask is matched as NTFS matches it: with the kernel's
// own FsRtlIsNameInExpression, the expression upcased when case is ignored.
bool MatchesExpression(const std::u16string &expression, const std::u16string &name, bool ignore_case) {
    std::u16string expr = ignore_case ? Upcase(expression) : expression;
    std::u16string text = name;
    UNICODE_STRING e{USHORT(expr.size() * 2), USHORT(expr.size() * 2), expr.data()};
    UNICODE_STRING n{USHORT(text.size() * 2), USHORT(text.size() * 2), text.data()};
    return FsRtlIsNameInExpression(&e, &n, ignore_case ? TRUE : FALSE, nullptr) != FALSE;
}

// ------------------------------------------------------------ host directory walking

// Finds `name` in a host directory: the exact spelling first, then (when
// case-insensitive) any entry equal under the upcase table.
bool FindEntry(const std::string &directory, const std::u16string &name, bool case_insensitive,
               std::string *host_name, struct stat *st) {
    const std::string exact = ToUtf8(name);
    if (::stat((directory + "/" + exact).c_str(), st) == 0) {
        *host_name = exact;
        return true;
    }
    if (!case_insensitive) return false;
    DIR *dir = ::opendir(directory.c_str());
    if (dir == nullptr) return false;
    bool found = false;
    while (dirent *d = ::readdir(dir)) {
        if (!std::strcmp(d->d_name, ".") || !std::strcmp(d->d_name, "..")) continue;
        if (!NamesEqualInsensitive(ToU16(d->d_name), name)) continue;
        if (::fstatat(::dirfd(dir), d->d_name, st, 0) != 0) continue;
        *host_name = d->d_name;
        found = true;
        break;
    }
    ::closedir(dir);
    return found;
}

// ------------------------------------------------------------ metadata and information

struct FileInfo {
    int64_t creation = 0, access = 0, write = 0, change = 0;
    int64_t end_of_file = 0, allocation = 0;
    ULONG attributes = 0;
    bool directory = false;
};

Meta *FindMeta(Volume &volume, const std::string &rel, const struct stat &st) {
    auto it = volume.meta.find(rel);
    if (it == volume.meta.end() || it->second.inode != st.st_ino) return nullptr;
    return &it->second;
}

// The record for a file we are about to change, started from what the host
// knows when we have none.
Meta &TouchMeta(Volume &volume, const std::string &rel, const struct stat &st) {
    if (Meta *meta = FindMeta(volume, rel, st)) return *meta;
    Meta &meta = volume.meta[rel];
    meta.inode = st.st_ino;
    meta.creation = SystemTimeOf(st.st_mtim);
    meta.access = SystemTimeOf(st.st_atim);
    meta.change = SystemTimeOf(st.st_ctim);
    meta.attributes = S_ISDIR(st.st_mode) ? 0 : FILE_ATTRIBUTE_ARCHIVE;
    return meta;
}

FileInfo InfoOf(Volume &volume, const std::string &rel, const struct stat &st) {
    FileInfo info;
    info.directory = S_ISDIR(st.st_mode);
    info.write = SystemTimeOf(st.st_mtim);
    info.creation = info.write;  // the host keeps no birth time we can set
    info.access = SystemTimeOf(st.st_atim);
    info.change = SystemTimeOf(st.st_ctim);
    ULONG attributes = info.directory ? 0 : FILE_ATTRIBUTE_ARCHIVE;
    if (const Meta *meta = FindMeta(volume, rel, st)) {
        info.creation = meta->creation;
        info.access = meta->access;
        info.change = meta->change;
        attributes = meta->attributes;
    }
    if (info.directory) {
        info.attributes = attributes | FILE_ATTRIBUTE_DIRECTORY;
    } else {
        info.end_of_file = st.st_size;
        info.allocation = (int64_t(st.st_size) + kClusterSize - 1) / kClusterSize * kClusterSize;
        info.attributes = attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
    }
    return info;
}

// Stamps a change to a file's data with the machine's clock.
void DataChanged(FileObject &file) {
    const int64_t now = NowSystemTime();
    const timespec times[2] = {{0, UTIME_OMIT}, HostTimeOf(now)};
    ::futimens(file.fd, times);
    struct stat st;
    if (::fstat(file.fd, &st) != 0) return;
    Meta &meta = TouchMeta(*file.volume, file.fcb->rel, st);
    meta.change = now;
    if (!file.fcb->directory) meta.attributes |= FILE_ATTRIBUTE_ARCHIVE;
}

void ForgetMeta(Volume &volume, const std::string &rel) {
    for (auto it = volume.meta.begin(); it != volume.meta.end();)
        it = (it->first == rel || Under(it->first, rel)) ? volume.meta.erase(it) : std::next(it);
}

// ------------------------------------------------------------ share access

bool ParticipatesInSharing(ACCESS_MASK access) {
    return access & (FILE_READ_DATA | FILE_EXECUTE | FILE_WRITE_DATA | FILE_APPEND_DATA | DELETE);
}

bool ShareAccessAllows(const ShareAccess &s, ACCESS_MASK access, ULONG share) {
    if (!ParticipatesInSharing(access)) return true;
    const bool read = access & (FILE_READ_DATA | FILE_EXECUTE);
    const bool write = access & (FILE_WRITE_DATA | FILE_APPEND_DATA);
    const bool del = access & DELETE;
    if (read && s.shared_read < s.open_count) return false;
    if (write && s.shared_write < s.open_count) return false;
    if (del && s.shared_delete < s.open_count) return false;
    if (s.readers && !(share & FILE_SHARE_READ)) return false;
    if (s.writers && !(share & FILE_SHARE_WRITE)) return false;
    if (s.deleters && !(share & FILE_SHARE_DELETE)) return false;
    return true;
}

void CountShareAccess(ShareAccess &s, ACCESS_MASK access, ULONG share, int delta) {
    if (!ParticipatesInSharing(access)) return;
    s.open_count += delta;
    if (access & (FILE_READ_DATA | FILE_EXECUTE)) s.readers += delta;
    if (access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) s.writers += delta;
    if (access & DELETE) s.deleters += delta;
    if (share & FILE_SHARE_READ) s.shared_read += delta;
    if (share & FILE_SHARE_WRITE) s.shared_write += delta;
    if (share & FILE_SHARE_DELETE) s.shared_delete += delta;
}

// ------------------------------------------------------------ file objects

std::shared_ptr<Fcb> FcbFor(Volume &volume, const std::string &rel, bool directory, bool fresh) {
    auto &slot = volume.fcbs[rel];
    // A file created where a file object still names a vanished one (deleted
    // behind the kernel's back) starts a control block of its own.
    if (!slot || fresh) {
        slot = std::make_shared<Fcb>();
        slot->rel = rel;
    }
    slot->directory = directory;
    return slot;
}

bool DirectoryEmpty(const std::string &host_path) {
    DIR *dir = ::opendir(host_path.c_str());
    if (dir == nullptr) return true;
    bool empty = true;
    while (dirent *d = ::readdir(dir))
        if (std::strcmp(d->d_name, ".") && std::strcmp(d->d_name, "..")) {
            empty = false;
            break;
        }
    ::closedir(dir);
    return empty;
}

// IRP_MJ_CLEANUP: the handle is gone.
void Cleanup(FileObject *file) {
    std::lock_guard guard(Files().lock);
    if (file->cleaned_up) return;
    file->cleaned_up = true;
    Fcb &fcb = *file->fcb;
    CountShareAccess(fcb.share, file->counted, file->share, -1);
    --fcb.handles;
    Volume &volume = *file->volume;
    if (volume.dismounted) return;
    if (file->delete_on_close) fcb.delete_pending = true;
    if (fcb.handles != 0 || fcb.whole_volume) return;
    // A control block that lost its name to a newer file (the old one went
    // behind the kernel's back) no longer speaks for what is at that name.
    auto it = volume.fcbs.find(fcb.rel);
    if (it == volume.fcbs.end() || it->second != file->fcb) return;
    volume.fcbs.erase(it);
    if (!fcb.delete_pending) return;
    const std::string path = volume.HostPath(fcb.rel);
    if ((fcb.directory ? ::rmdir(path.c_str()) : ::unlink(path.c_str())) == 0) ForgetMeta(volume, fcb.rel);
}

HANDLE PublishFile(FileObject *file) {
    ObjectCreated(file, ObjectKind::File, [](void *p) {
        auto *f = static_cast<FileObject *>(p);
        if (f->fd >= 0) ::close(f->fd);
        delete f;
    });
    HANDLE handle = HandleCreate(file, ObjectKind::File, file->access, [file] { Cleanup(file); });
    ObjectDereference(file);  // the handle holds it now
    return handle;
}

NTSTATUS FileFromHandle(HANDLE handle, FileObject **file) {
    NTSTATUS status;
    *file = static_cast<FileObject *>(HandleLookup(handle, ObjectKind::File, &status));
    if (*file == nullptr) return status;
    if ((*file)->volume->dismounted) return STATUS_VOLUME_DISMOUNTED;
    return STATUS_SUCCESS;
}

// Event handles name KEVENTs. The host completes every request at once, so
// the event is signalled before the routine returns.
NTSTATUS EventFromHandle(HANDLE handle, PKEVENT *event) {
    *event = nullptr;
    if (handle == nullptr) return STATUS_SUCCESS;
    NTSTATUS status;
    *event = static_cast<PKEVENT>(HandleLookup(handle, ObjectKind::Event, &status));
    if (*event == nullptr) return status;
    KeClearEvent(*event);
    return STATUS_SUCCESS;
}

NTSTATUS Complete(PIO_STATUS_BLOCK iosb, NTSTATUS status, ULONG_PTR information, PKEVENT event = nullptr) {
    iosb->Status = status;
    iosb->Information = information;
    if (event != nullptr) KeSetEvent(event, 0, FALSE);
    return status;
}

void CheckApc(PIO_APC_ROUTINE apc, const char *routine) {
    if (apc != nullptr) Complain(std::string(routine) + ": APC completion routines are not modelled");
}

// ------------------------------------------------------------ create

struct CreateRequest {
    ACCESS_MASK access = 0;
    ULONG attributes = 0;
    ULONG share = 0;
    ULONG disposition = 0;
    ULONG options = 0;
    bool case_insensitive = false;
};

// IoCreateFile's parameter checks. The I/O manager makes them only for
// user-mode callers; the host makes them for everyone so that a driver
// passing what Windows calls invalid hears about it.
NTSTATUS CheckCreateParameters(const CreateRequest &rq) {
    const ULONG o = rq.options;
    if (rq.disposition > FILE_MAXIMUM_DISPOSITION) return STATUS_INVALID_PARAMETER;
    if (o & ~FILE_VALID_OPTION_FLAGS) return STATUS_INVALID_PARAMETER;
    if (rq.share & ~FILE_SHARE_VALID_FLAGS) return STATUS_INVALID_PARAMETER;
    if (rq.attributes & ~FILE_ATTRIBUTE_VALID_FLAGS) return STATUS_INVALID_PARAMETER;
    if ((o & FILE_SYNCHRONOUS_IO_ALERT) && (o & FILE_SYNCHRONOUS_IO_NONALERT)) return STATUS_INVALID_PARAMETER;
    if ((o & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) && !(rq.access & SYNCHRONIZE))
        return STATUS_INVALID_PARAMETER;
    if ((o & FILE_DIRECTORY_FILE) && (o & FILE_NON_DIRECTORY_FILE)) return STATUS_INVALID_PARAMETER;
    if ((o & FILE_DIRECTORY_FILE) && rq.disposition != FILE_CREATE && rq.disposition != FILE_OPEN &&
        rq.disposition != FILE_OPEN_IF)
        return STATUS_INVALID_PARAMETER;
    if ((o & FILE_DELETE_ON_CLOSE) && !(rq.access & DELETE)) return STATUS_INVALID_PARAMETER;
    if ((o & FILE_NO_INTERMEDIATE_BUFFERING) && (rq.access & FILE_APPEND_DATA)) return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

int OpenHostFile(const std::string &path, bool directory, bool writable, bool reads) {
    if (directory) return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int fd = ::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    // An open for attributes alone needs no data access on the host either.
    if (fd < 0 && errno == EACCES && !writable && !reads) fd = ::open(path.c_str(), O_PATH | O_CLOEXEC);
    return fd;
}

// The file system's part of a create: `path` is below `base_rel` on the
// volume, without a leading backslash. `information` receives what the
// create reports in IoStatusBlock->Information.
NTSTATUS CreateOnVolume(const std::shared_ptr<Volume> &volume_ptr, const std::string &base_rel,
                        std::u16string path, bool whole_volume, const CreateRequest &rq, FileObject **out,
                        ULONG_PTR *information) {
    Volume &volume = *volume_ptr;
    auto file = std::make_unique<FileObject>();
    file->volume = volume_ptr;
    file->access = rq.access;
    file->share = rq.share;
    file->case_insensitive = rq.case_insensitive;
    file->synchronous = rq.options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT);
    file->delete_on_close = rq.options & FILE_DELETE_ON_CLOSE;
    file->counted = rq.access;

    if (whole_volume) {
        if (rq.options & FILE_DIRECTORY_FILE) return STATUS_NOT_A_DIRECTORY;
        if (!volume.volume_fcb) {
            volume.volume_fcb = std::make_shared<Fcb>();
            volume.volume_fcb->whole_volume = true;
        }
        Fcb &fcb = *volume.volume_fcb;
        if (!ShareAccessAllows(fcb.share, rq.access, rq.share)) return STATUS_SHARING_VIOLATION;
        file->fd = ::open(volume.host_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (file->fd < 0) return StatusFromErrno(errno);
        file->delete_on_close = false;
        file->fcb = volume.volume_fcb;
        CountShareAccess(fcb.share, rq.access, rq.share, +1);
        ++fcb.handles;
        *information = FILE_OPENED;
        *out = file.release();
        return STATUS_SUCCESS;
    }

    bool trailing = false;
    if (!path.empty() && path.back() == u'\\') {
        trailing = true;
        path.pop_back();
        if (path.empty()) return STATUS_OBJECT_NAME_INVALID;
    }
    const auto parts = Split(path);
    std::string rel = base_rel;
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        if (!ValidComponent(parts[i], false)) return STATUS_OBJECT_NAME_INVALID;
        std::string host_name;
        struct stat st;
        if (!FindEntry(volume.HostPath(rel), parts[i], rq.case_insensitive, &host_name, &st) ||
            !S_ISDIR(st.st_mode))
            return STATUS_OBJECT_PATH_NOT_FOUND;
        rel = Join(rel, host_name);
    }

    const std::string parent_rel = rel;
    bool exists;
    struct stat st {};
    if (parts.empty()) {
        exists = ::stat(volume.HostPath(rel).c_str(), &st) == 0;
        if (!exists) return StatusFromErrno(errno);
    } else {
        if (!ValidComponent(parts.back(), false)) return STATUS_OBJECT_NAME_INVALID;
        std::string host_name;
        exists = FindEntry(volume.HostPath(parent_rel), parts.back(), rq.case_insensitive, &host_name, &st);
        rel = Join(parent_rel, exists ? host_name : ToUtf8(parts.back()));
    }
    const std::string host_path = volume.HostPath(rel);
    const ULONG o = rq.options;
    const ULONG d = rq.disposition;

    if (exists) {
        const bool directory = S_ISDIR(st.st_mode);
        auto known = volume.fcbs.find(rel);
        Fcb *open_fcb = known != volume.fcbs.end() ? known->second.get() : nullptr;
        if (open_fcb && open_fcb->delete_pending) return STATUS_DELETE_PENDING;
        if (d == FILE_CREATE) {
            *information = FILE_EXISTS;
            return STATUS_OBJECT_NAME_COLLISION;
        }
        const bool replaces = d == FILE_SUPERSEDE || d == FILE_OVERWRITE || d == FILE_OVERWRITE_IF;
        if (directory) {
            if (o & FILE_NON_DIRECTORY_FILE) return STATUS_FILE_IS_A_DIRECTORY;
            if (replaces) return STATUS_FILE_IS_A_DIRECTORY;
        } else {
            if (o & FILE_DIRECTORY_FILE) return STATUS_NOT_A_DIRECTORY;
            if (trailing) return STATUS_OBJECT_NAME_INVALID;
        }
        const FileInfo info = InfoOf(volume, rel, st);
        const bool read_only = info.attributes & FILE_ATTRIBUTE_READONLY;
        if (read_only && ((rq.access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) || replaces))
            return STATUS_ACCESS_DENIED;
        if (o & FILE_DELETE_ON_CLOSE) {
            if (read_only || (directory && rel.empty())) return STATUS_CANNOT_DELETE;
            if (directory && !DirectoryEmpty(host_path)) return STATUS_DIRECTORY_NOT_EMPTY;
        }
        // Replacing the data is a write (overwrite) or a delete (supersede)
        // as far as the other opens' share modes are concerned.
        if (d == FILE_SUPERSEDE) file->counted |= DELETE;
        else if (replaces) file->counted |= FILE_WRITE_DATA;
        const ShareAccess none;
        if (!ShareAccessAllows(open_fcb ? open_fcb->share : none, file->counted, rq.share))
            return STATUS_SHARING_VIOLATION;
        const bool writable = (rq.access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) || replaces;
        file->fd = OpenHostFile(host_path, directory, writable, rq.access & (FILE_READ_DATA | FILE_EXECUTE));
        if (file->fd < 0) return StatusFromErrno(errno);
        if (replaces) {
            if (::ftruncate(file->fd, 0) != 0) return StatusFromErrno(errno);
            file->fcb = FcbFor(volume, rel, false, false);
            DataChanged(*file);
            struct stat now_st;
            ::fstat(file->fd, &now_st);
            Meta &meta = TouchMeta(volume, rel, now_st);
            const ULONG given = rq.attributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL;
            meta.attributes = (d == FILE_SUPERSEDE ? 0 : meta.attributes) | given | FILE_ATTRIBUTE_ARCHIVE;
            *information = d == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
        } else {
            file->fcb = FcbFor(volume, rel, directory, false);
            *information = FILE_OPENED;
        }
    } else {
        if (d == FILE_OPEN || d == FILE_OVERWRITE) {
            *information = FILE_DOES_NOT_EXIST;
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        const bool directory = o & FILE_DIRECTORY_FILE;
        if (trailing && !directory) return STATUS_OBJECT_NAME_INVALID;
        auto parent = volume.fcbs.find(parent_rel);
        if (parent != volume.fcbs.end() && parent->second->delete_pending) return STATUS_DELETE_PENDING;
        if (directory) {
            if (::mkdir(host_path.c_str(), 0777) != 0) return StatusFromErrno(errno);
            file->fd = ::open(host_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        } else {
            file->fd = ::open(host_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        }
        if (file->fd < 0) return StatusFromErrno(errno);
        file->fcb = FcbFor(volume, rel, directory, true);
        const int64_t now = NowSystemTime();
        const timespec times[2] = {HostTimeOf(now), HostTimeOf(now)};
        ::futimens(file->fd, times);
        struct stat created;
        ::fstat(file->fd, &created);
        Meta &meta = volume.meta[rel];
        meta = Meta{created.st_ino, now, now, now, 0};
        meta.attributes = rq.attributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL;
        if (!directory) meta.attributes |= FILE_ATTRIBUTE_ARCHIVE;
        *information = FILE_CREATED;
    }
    Fcb &fcb = *file->fcb;
    CountShareAccess(fcb.share, file->counted, rq.share, +1);
    ++fcb.handles;
    *out = file.release();
    return STATUS_SUCCESS;
}

// Where a name leads before the file system sees it: a volume, a place on
// it and the rest of the name.
struct CreateTarget {
    std::shared_ptr<Volume> volume;
    std::string base_rel;
    std::u16string path;
    bool whole_volume = false;
};

NTSTATUS FindCreateTarget(const OBJECT_ATTRIBUTES *attributes, const std::u16string &name, CreateTarget *target) {
    const bool case_insensitive = attributes->Attributes & OBJ_CASE_INSENSITIVE;
    if (attributes->RootDirectory != nullptr) {
        FileObject *root;
        NTSTATUS status = FileFromHandle(attributes->RootDirectory, &root);
        if (!NT_SUCCESS(status)) return status;
        if (!root->fcb->directory || root->fcb->whole_volume) return STATUS_INVALID_PARAMETER;
        if (!name.empty() && name[0] == u'\\') return STATUS_INVALID_PARAMETER;
        target->volume = root->volume;
        target->base_rel = root->fcb->rel;
        target->path = name;
        return STATUS_SUCCESS;
    }
    if (name.empty()) return STATUS_OBJECT_NAME_INVALID;
    if (name[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    NameLookup found;
    NTSTATUS status = LookupObjectName(name, case_insensitive, false, &found);
    if (!NT_SUCCESS(status)) return status;
    if (found.kind != NameLookup::Kind::Device) return STATUS_OBJECT_TYPE_MISMATCH;
    if (found.volume->dismounted) return STATUS_VOLUME_DISMOUNTED;
    target->volume = found.volume;
    target->whole_volume = found.remainder.empty();
    target->path = target->whole_volume ? std::u16string() : found.remainder.substr(1);
    return STATUS_SUCCESS;
}

NTSTATUS Create(PHANDLE handle, ACCESS_MASK desired_access, POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK iosb,
                ULONG file_attributes, ULONG share, ULONG disposition, ULONG options, bool has_ea,
                const char *routine) {
    CheckIrql(PASSIVE_LEVEL, routine);
    if (handle == nullptr || iosb == nullptr) return STATUS_INVALID_PARAMETER;
    *handle = nullptr;
    std::u16string name;
    NTSTATUS status = CaptureObjectName(attributes, &name);
    if (!NT_SUCCESS(status)) return status;
    CreateRequest rq;
    rq.access = MapGenericAccess(desired_access);
    rq.attributes = file_attributes;
    rq.share = share;
    rq.disposition = disposition;
    rq.options = options;
    rq.case_insensitive = attributes->Attributes & OBJ_CASE_INSENSITIVE;
    status = CheckCreateParameters(rq);
    if (!NT_SUCCESS(status)) return status;
    if (has_ea || (options & FILE_OPEN_BY_FILE_ID)) return STATUS_NOT_SUPPORTED;

    auto &files = Files();
    FileObject *file = nullptr;
    {
        std::lock_guard guard(files.lock);
        CreateTarget target;
        status = FindCreateTarget(attributes, name, &target);
        if (!NT_SUCCESS(status)) return status;
        ULONG_PTR information = 0;
        status = CreateOnVolume(target.volume, target.base_rel, target.path, target.whole_volume, rq, &file,
                                &information);
        Complete(iosb, status, information);
        if (!NT_SUCCESS(status)) return status;
    }
    *handle = PublishFile(file);
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------ read and write

// The offset a read or write starts at: the caller's, or the file
// object's current position on a synchronous handle.
NTSTATUS StartingOffset(const FileObject &file, const LARGE_INTEGER *byte_offset, int64_t *offset) {
    const bool use_position = byte_offset == nullptr ||
                              (byte_offset->HighPart == -1 && byte_offset->LowPart == FILE_USE_FILE_POINTER_POSITION);
    if (use_position) {
        if (!file.synchronous) return STATUS_INVALID_PARAMETER;
        *offset = file.position;
        return STATUS_SUCCESS;
    }
    if (byte_offset->QuadPart < 0) return STATUS_INVALID_PARAMETER;
    *offset = byte_offset->QuadPart;
    return STATUS_SUCCESS;
}

NTSTATUS ReadOrWrite(bool write, HANDLE handle, HANDLE event_handle, PIO_APC_ROUTINE apc, PIO_STATUS_BLOCK iosb,
                     PVOID buffer, ULONG length, PLARGE_INTEGER byte_offset) {
    const char *routine = write ? "ZwWriteFile" : "ZwReadFile";
    CheckIrql(PASSIVE_LEVEL, routine);
    CheckApc(apc, routine);
    std::lock_guard guard(Files().lock);
    FileObject *file;
    NTSTATUS status = FileFromHandle(handle, &file);
    if (!NT_SUCCESS(status)) return status;
    if (iosb == nullptr || (buffer == nullptr && length != 0)) return STATUS_INVALID_PARAMETER;
    if (file->fcb->directory || file->fcb->whole_volume) return STATUS_INVALID_DEVICE_REQUEST;
    const ACCESS_MASK needed = write ? (FILE_WRITE_DATA | FILE_APPEND_DATA) : FILE_READ_DATA;
    if (!(file->access & needed)) return STATUS_ACCESS_DENIED;
    PKEVENT event;
    status = EventFromHandle(event_handle, &event);
    if (!NT_SUCCESS(status)) return status;

    struct stat st;
    if (::fstat(file->fd, &st) != 0) return Complete(iosb, StatusFromErrno(errno), 0, event);
    const int64_t size = st.st_size;
    int64_t offset;
    // A handle that may only append writes at the end whatever it asks;
    // so does FILE_WRITE_TO_END_OF_FILE.
    const bool to_end = write && ((!(file->access & FILE_WRITE_DATA)) ||
                                  (byte_offset && byte_offset->HighPart == -1 &&
                                   byte_offset->LowPart == FILE_WRITE_TO_END_OF_FILE));
    if (to_end) {
        offset = size;
    } else {
        status = StartingOffset(*file, byte_offset, &offset);
        if (!NT_SUCCESS(status)) return status;
    }
    if (length == 0) return Complete(iosb, STATUS_SUCCESS, 0, event);

    auto *bytes = static_cast<uint8_t *>(buffer);
    size_t done = 0;
    if (write) {
        if (offset + int64_t(length) > size && file->volume->options.disk_full)
            return Complete(iosb, STATUS_DISK_FULL, 0, event);
        while (done < length) {
            const ssize_t n = ::pwrite(file->fd, bytes + done, length - done, off_t(offset + done));
            if (n < 0) {
                if (errno == EINTR) continue;
                // Nothing half-written is reported: the file keeps its old size.
                const NTSTATUS failure = StatusFromErrno(errno);
                if (::ftruncate(file->fd, size) != 0) {}
                return Complete(iosb, failure, 0, event);
            }
            done += size_t(n);
        }
        DataChanged(*file);
    } else {
        if (offset >= size) return Complete(iosb, STATUS_END_OF_FILE, 0, event);
        const size_t wanted = size_t(std::min<int64_t>(length, size - offset));
        while (done < wanted) {
            const ssize_t n = ::pread(file->fd, bytes + done, wanted - done, off_t(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return Complete(iosb, StatusFromErrno(errno), 0, event);
            if (n == 0) break;
            done += size_t(n);
        }
    }
    if (file->synchronous) file->position = offset + int64_t(done);
    return Complete(iosb, STATUS_SUCCESS, done, event);
}

// ------------------------------------------------------------ information

template <typename T>
void Put(void *buffer, const T &value) {
    std::memcpy(buffer, &value, sizeof(T));
}

LARGE_INTEGER Large(int64_t value) {
    LARGE_INTEGER v;
    v.QuadPart = value;
    return v;
}

std::u16string NameOnVolume(const Fcb &fcb) {
    if (fcb.whole_volume) return u"";
    std::u16string name = u"\\" + ToU16(fcb.rel);
    std::replace(name.begin(), name.end(), u'/', u'\\');
    return name;
}

// Fixed part, then as much of a name as fits: STATUS_BUFFER_OVERFLOW when it
// does not all fit, with the full length in the fixed part.
ULONG PutName(uint8_t *out, ULONG length, ULONG name_offset, const std::u16string &name, NTSTATUS *status) {
    const ULONG bytes = ULONG(name.size() * sizeof(WCHAR));
    ULONG room = length > name_offset ? (length - name_offset) & ~1u : 0;
    ULONG copied = std::min(room, bytes);
    if (copied) std::memcpy(out + name_offset, name.data(), copied);
    *status = copied < bytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
    return name_offset + copied;
}

NTSTATUS QueryInformation(FileObject &file, void *buffer, ULONG length, FILE_INFORMATION_CLASS info_class,
                          ULONG *written) {
    Fcb &fcb = *file.fcb;
    struct stat st;
    if (::fstat(file.fd, &st) != 0) return StatusFromErrno(errno);
    const FileInfo info = InfoOf(*file.volume, fcb.rel, st);
    auto *out = static_cast<uint8_t *>(buffer);
    switch (info_class) {
    case FileBasicInformation: {
        if (length < sizeof(FILE_BASIC_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        if (!(file.access & FILE_READ_ATTRIBUTES)) return STATUS_ACCESS_DENIED;
        FILE_BASIC_INFORMATION b{};
        b.CreationTime = Large(info.creation);
        b.LastAccessTime = Large(info.access);
        b.LastWriteTime = Large(info.write);
        b.ChangeTime = Large(info.change);
        b.FileAttributes = info.attributes;
        Put(out, b);
        *written = sizeof(b);
        return STATUS_SUCCESS;
    }
    case FileStandardInformation: {
        if (length < sizeof(FILE_STANDARD_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        FILE_STANDARD_INFORMATION s{};
        s.AllocationSize = Large(info.allocation);
        s.EndOfFile = Large(info.end_of_file);
        s.NumberOfLinks = 1;
        s.DeletePending = fcb.delete_pending;
        s.Directory = info.directory;
        Put(out, s);
        *written = sizeof(s);
        return STATUS_SUCCESS;
    }
    case FilePositionInformation: {
        if (length < sizeof(FILE_POSITION_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        FILE_POSITION_INFORMATION p{};
        p.CurrentByteOffset = Large(file.position);
        Put(out, p);
        *written = sizeof(p);
        return STATUS_SUCCESS;
    }
    case FileNameInformation: {
        constexpr ULONG fixed = offsetof(FILE_NAME_INFORMATION, FileName);
        if (length < fixed) return STATUS_INFO_LENGTH_MISMATCH;
        const std::u16string name = NameOnVolume(fcb);
        Put(out, ULONG(name.size() * sizeof(WCHAR)));
        NTSTATUS status;
        *written = PutName(out, length, fixed, name, &status);
        return status;
    }
    default: return STATUS_INVALID_INFO_CLASS;
    }
}

// Resolves the new name of a rename to a parent directory and a name in it.
NTSTATUS RenameTarget(FileObject &file, const FILE_RENAME_INFORMATION &info, const std::u16string &name,
                      std::string *parent_rel, std::u16string *leaf) {
    Volume &volume = *file.volume;
    std::string base;
    std::u16string path;
    if (info.RootDirectory != nullptr) {
        FileObject *root;
        NTSTATUS status = FileFromHandle(info.RootDirectory, &root);
        if (!NT_SUCCESS(status)) return status;
        if (!root->fcb->directory || root->volume != file.volume) return STATUS_INVALID_PARAMETER;
        if (name.empty() || name[0] == u'\\') return STATUS_INVALID_PARAMETER;
        base = root->fcb->rel;
        path = name;
    } else if (!name.empty() && name[0] == u'\\') {
        NameLookup found;
        NTSTATUS status = LookupObjectName(name, file.case_insensitive, false, &found);
        if (!NT_SUCCESS(status)) return status;
        if (found.kind != NameLookup::Kind::Device || found.volume != file.volume) return STATUS_NOT_SAME_DEVICE;
        if (found.remainder.size() < 2) return STATUS_OBJECT_NAME_INVALID;
        path = found.remainder.substr(1);
    } else {
        // A bare name renames within the same directory.
        if (name.find(u'\\') != std::u16string::npos) return STATUS_INVALID_PARAMETER;
        const size_t slash = file.fcb->rel.rfind('/');
        base = slash == std::string::npos ? std::string() : file.fcb->rel.substr(0, slash);
        path = name;
    }
    const auto parts = Split(path);
    if (parts.empty()) return STATUS_OBJECT_NAME_INVALID;
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        if (!ValidComponent(parts[i], false)) return STATUS_OBJECT_NAME_INVALID;
        std::string host_name;
        struct stat st;
        if (!FindEntry(volume.HostPath(base), parts[i], file.case_insensitive, &host_name, &st) ||
            !S_ISDIR(st.st_mode))
            return STATUS_OBJECT_PATH_NOT_FOUND;
        base = Join(base, host_name);
    }
    if (!ValidComponent(parts.back(), false)) return STATUS_OBJECT_NAME_INVALID;
    *parent_rel = base;
    *leaf = parts.back();
    return STATUS_SUCCESS;
}

NTSTATUS Rename(FileObject &file, const void *buffer, ULONG length) {
    constexpr ULONG fixed = offsetof(FILE_RENAME_INFORMATION, FileName);
    if (length < fixed) return STATUS_INFO_LENGTH_MISMATCH;
    FILE_RENAME_INFORMATION info;
    std::memcpy(&info, buffer, fixed);
    if (info.FileNameLength > length - fixed || (info.FileNameLength & 1)) return STATUS_INVALID_PARAMETER;
    if (!(file.access & DELETE)) return STATUS_ACCESS_DENIED;
    Volume &volume = *file.volume;
    Fcb &fcb = *file.fcb;
    if (fcb.whole_volume || fcb.rel.empty()) return STATUS_INVALID_PARAMETER;
    std::u16string name(info.FileNameLength / sizeof(WCHAR), u'\0');
    std::memcpy(name.data(), static_cast<const uint8_t *>(buffer) + fixed, info.FileNameLength);

    std::string parent_rel;
    std::u16string leaf;
    NTSTATUS status = RenameTarget(file, info, name, &parent_rel, &leaf);
    if (!NT_SUCCESS(status)) return status;
    std::string existing;
    struct stat target_st;
    const bool exists = FindEntry(volume.HostPath(parent_rel), leaf, file.case_insensitive, &existing, &target_st);
    const std::string new_rel = Join(parent_rel, exists ? existing : ToUtf8(leaf));
    struct stat own;
    ::fstat(file.fd, &own);
    const bool same_file = exists && target_st.st_ino == own.st_ino && target_st.st_dev == own.st_dev;
    if (exists && !same_file) {
        if (!info.ReplaceIfExists) return STATUS_OBJECT_NAME_COLLISION;
        if (S_ISDIR(target_st.st_mode)) return STATUS_ACCESS_DENIED;
        if (volume.fcbs.count(new_rel)) return STATUS_ACCESS_DENIED;
        if (InfoOf(volume, new_rel, target_st).attributes & FILE_ATTRIBUTE_READONLY) return STATUS_ACCESS_DENIED;
    }
    // A directory cannot move while anything below it is open.
    if (fcb.directory)
        for (auto &[rel, other] : volume.fcbs)
            if (Under(rel, fcb.rel)) return STATUS_ACCESS_DENIED;
    // Only the spelling changes when the new name finds the file itself.
    const std::string final_rel = same_file ? Join(parent_rel, ToUtf8(leaf)) : new_rel;
    if (final_rel == fcb.rel) return STATUS_SUCCESS;
    if (::rename(volume.HostPath(fcb.rel).c_str(), volume.HostPath(final_rel).c_str()) != 0)
        return StatusFromErrno(errno);

    const std::string old_rel = fcb.rel;
    auto self = volume.fcbs[old_rel];
    volume.fcbs.erase(old_rel);
    fcb.rel = final_rel;
    volume.fcbs[final_rel] = self;
    std::map<std::string, Meta> moved;
    for (auto it = volume.meta.begin(); it != volume.meta.end();) {
        if (it->first == old_rel || Under(it->first, old_rel)) {
            moved[final_rel + it->first.substr(old_rel.size())] = it->second;
            it = volume.meta.erase(it);
        } else {
            ++it;
        }
    }
    for (auto &[rel, meta] : moved) volume.meta[rel] = meta;
    TouchMeta(volume, final_rel, own).change = NowSystemTime();
    return STATUS_SUCCESS;
}

NTSTATUS SetInformation(FileObject &file, const void *buffer, ULONG length, FILE_INFORMATION_CLASS info_class) {
    Volume &volume = *file.volume;
    Fcb &fcb = *file.fcb;
    struct stat st;
    if (::fstat(file.fd, &st) != 0) return StatusFromErrno(errno);
    switch (info_class) {
    case FilePositionInformation: {
        if (length < sizeof(FILE_POSITION_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        FILE_POSITION_INFORMATION p;
        std::memcpy(&p, buffer, sizeof(p));
        if (p.CurrentByteOffset.QuadPart < 0) return STATUS_INVALID_PARAMETER;
        file.position = p.CurrentByteOffset.QuadPart;
        return STATUS_SUCCESS;
    }
    case FileEndOfFileInformation:
    case FileAllocationInformation: {
        if (length < sizeof(LARGE_INTEGER)) return STATUS_INFO_LENGTH_MISMATCH;
        if (!(file.access & FILE_WRITE_DATA)) return STATUS_ACCESS_DENIED;
        if (fcb.directory || fcb.whole_volume) return STATUS_INVALID_PARAMETER;
        LARGE_INTEGER size;
        std::memcpy(&size, buffer, sizeof(size));
        if (size.QuadPart < 0) return STATUS_INVALID_PARAMETER;
        const bool allocation = info_class == FileAllocationInformation;
        if (size.QuadPart > st.st_size && volume.options.disk_full) return STATUS_DISK_FULL;
        // Allocation beyond the end of file reserves space without moving
        // the end; allocation below it cuts the file there.
        if (allocation && size.QuadPart >= st.st_size) return STATUS_SUCCESS;
        if (::ftruncate(file.fd, off_t(size.QuadPart)) != 0) return StatusFromErrno(errno);
        DataChanged(file);
        return STATUS_SUCCESS;
    }
    case FileDispositionInformation: {
        if (length < sizeof(FILE_DISPOSITION_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        if (!(file.access & DELETE)) return STATUS_ACCESS_DENIED;
        FILE_DISPOSITION_INFORMATION disposition;
        std::memcpy(&disposition, buffer, sizeof(disposition));
        if (!disposition.DeleteFile) {
            fcb.delete_pending = false;
            return STATUS_SUCCESS;
        }
        if (fcb.whole_volume || fcb.rel.empty()) return STATUS_CANNOT_DELETE;
        if (InfoOf(volume, fcb.rel, st).attributes & FILE_ATTRIBUTE_READONLY) return STATUS_CANNOT_DELETE;
        if (fcb.directory && !DirectoryEmpty(volume.HostPath(fcb.rel))) return STATUS_DIRECTORY_NOT_EMPTY;
        fcb.delete_pending = true;
        return STATUS_SUCCESS;
    }
    case FileRenameInformation: return Rename(file, buffer, length);
    case FileBasicInformation: {
        if (length < sizeof(FILE_BASIC_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        if (!(file.access & FILE_WRITE_ATTRIBUTES)) return STATUS_ACCESS_DENIED;
        FILE_BASIC_INFORMATION b;
        std::memcpy(&b, buffer, sizeof(b));
        ULONG attributes = b.FileAttributes;
        if (attributes & ~(FILE_ATTRIBUTE_VALID_SET_FLAGS | FILE_ATTRIBUTE_DIRECTORY)) return STATUS_INVALID_PARAMETER;
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && !fcb.directory) return STATUS_INVALID_PARAMETER;
        Meta &meta = TouchMeta(volume, fcb.rel, st);
        // Zero leaves a time alone; -1 and -2 (stop and resume automatic
        // updates) leave it alone as well.
        auto given = [](const LARGE_INTEGER &t) { return t.QuadPart > 0; };
        if (given(b.CreationTime)) meta.creation = b.CreationTime.QuadPart;
        if (given(b.LastAccessTime)) meta.access = b.LastAccessTime.QuadPart;
        if (given(b.ChangeTime)) meta.change = b.ChangeTime.QuadPart;
        if (given(b.LastWriteTime)) {
            const timespec times[2] = {{0, UTIME_OMIT}, HostTimeOf(b.LastWriteTime.QuadPart)};
            if (::futimens(file.fd, times) != 0) return StatusFromErrno(errno);
        }
        if (attributes != 0)
            meta.attributes = attributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL;
        return STATUS_SUCCESS;
    }
    default: return STATUS_INVALID_INFO_CLASS;
    }
}

// ------------------------------------------------------------ directories

ULONG EntryBaseSize(FILE_INFORMATION_CLASS info_class) {
    switch (info_class) {
    case FileDirectoryInformation: return offsetof(FILE_DIRECTORY_INFORMATION, FileName);
    case FileFullDirectoryInformation: return offsetof(FILE_FULL_DIR_INFORMATION, FileName);
    case FileBothDirectoryInformation: return offsetof(FILE_BOTH_DIR_INFORMATION, FileName);
    case FileNamesInformation: return offsetof(FILE_NAMES_INFORMATION, FileName);
    default: return 0;
    }
}

// The directory as NTFS lists it: "." and ".." first (except in the root),
// then the names in upcased order.
std::vector<DirEntry> ListDirectory(Volume &volume, const std::string &rel, const std::u16string &mask,
                                    bool case_insensitive) {
    std::vector<DirEntry> entries;
    const std::string path = volume.HostPath(rel);
    if (!rel.empty()) {
        const size_t slash = rel.rfind('/');
        const std::string parent = slash == std::string::npos ? std::string() : rel.substr(0, slash);
        DirEntry self{u".", rel, {}}, up{u"..", parent, {}};
        if (::stat(path.c_str(), &self.st) == 0 && MatchesExpression(mask, self.name, case_insensitive))
            entries.push_back(self);
        if (::stat(volume.HostPath(parent).c_str(), &up.st) == 0 && MatchesExpression(mask, up.name, case_insensitive))
            entries.push_back(up);
    }
    const size_t dots = entries.size();
    if (DIR *dir = ::opendir(path.c_str())) {
        while (dirent *d = ::readdir(dir)) {
            if (!std::strcmp(d->d_name, ".") || !std::strcmp(d->d_name, "..")) continue;
            DirEntry entry{ToU16(d->d_name), Join(rel, d->d_name), {}};
            if (!MatchesExpression(mask, entry.name, case_insensitive)) continue;
            if (::fstatat(::dirfd(dir), d->d_name, &entry.st, 0) != 0) continue;
            entries.push_back(std::move(entry));
        }
        ::closedir(dir);
    }
    std::sort(entries.begin() + dots, entries.end(), [](const DirEntry &a, const DirEntry &b) {
        const auto ua = Upcase(a.name), ub = Upcase(b.name);
        return ua != ub ? ua < ub : a.name < b.name;
    });
    return entries;
}

void PutEntry(uint8_t *out, FILE_INFORMATION_CLASS info_class, const FileInfo &info, ULONG name_length) {
    auto fill = [&](auto &e) {
        e.CreationTime = Large(info.creation);
        e.LastAccessTime = Large(info.access);
        e.LastWriteTime = Large(info.write);
        e.ChangeTime = Large(info.change);
        e.EndOfFile = Large(info.end_of_file);
        e.AllocationSize = Large(info.allocation);
        e.FileAttributes = info.attributes;
        e.FileNameLength = name_length;
    };
    const ULONG base = EntryBaseSize(info_class);
    switch (info_class) {
    case FileDirectoryInformation: {
        FILE_DIRECTORY_INFORMATION e{};
        fill(e);
        std::memcpy(out, &e, base);
        break;
    }
    case FileFullDirectoryInformation: {
        FILE_FULL_DIR_INFORMATION e{};
        fill(e);
        std::memcpy(out, &e, base);
        break;
    }
    case FileBothDirectoryInformation: {
        FILE_BOTH_DIR_INFORMATION e{};  // no 8.3 names, as on a volume with their creation turned off
        fill(e);
        std::memcpy(out, &e, base);
        break;
    }
    default: {
        FILE_NAMES_INFORMATION e{};
        e.FileNameLength = name_length;
        std::memcpy(out, &e, base);
        break;
    }
    }
}

NTSTATUS QueryDirectory(FileObject &file, PIO_STATUS_BLOCK iosb, void *buffer, ULONG length,
                        FILE_INFORMATION_CLASS info_class, bool single, PUNICODE_STRING file_name, bool restart,
                        PKEVENT event) {
    const ULONG base = EntryBaseSize(info_class);
    if (base == 0) return STATUS_INVALID_INFO_CLASS;
    if (length < base) return STATUS_INFO_LENGTH_MISMATCH;
    if (!file.fcb->directory || file.fcb->whole_volume) return STATUS_INVALID_PARAMETER;
    if (!(file.access & FILE_LIST_DIRECTORY)) return STATUS_ACCESS_DENIED;
    if (file_name != nullptr && (file_name->Length & 1)) return STATUS_INVALID_PARAMETER;
    const std::u16string mask = FromUnicodeString(file_name);
    const bool first = !file.queried;
    if (first || (restart && !mask.empty())) {
        if (!mask.empty() && !ValidComponent(mask, true)) return STATUS_OBJECT_NAME_INVALID;
        file.mask = mask.empty() ? u"*" : mask;
    }
    if (first || restart) {
        file.entries = ListDirectory(*file.volume, file.fcb->rel, file.mask, file.case_insensitive);
        file.next_entry = 0;
        file.queried = true;
    }

    auto *out = static_cast<uint8_t *>(buffer);
    ULONG at = 0, previous = 0, written = 0;
    bool any = false;
    NTSTATUS status = STATUS_SUCCESS;
    while (file.next_entry < file.entries.size()) {
        const DirEntry &entry = file.entries[file.next_entry];
        const ULONG name_bytes = ULONG(entry.name.size() * sizeof(WCHAR));
        if (any && (at + base + name_bytes > length || at >= length)) break;
        if (any) {
            Put(out + previous, at - previous);  // NextEntryOffset
            std::memset(out + written, 0, at - written);
        }
        PutEntry(out + at, info_class, InfoOf(*file.volume, entry.rel, entry.st), name_bytes);
        NTSTATUS name_status;
        written = PutName(out + at, length - at, base, entry.name, &name_status) + at;
        // The first entry goes out even when its name does not fit.
        if (name_status != STATUS_SUCCESS) status = name_status;
        previous = at;
        at = (written + 7) & ~7u;
        any = true;
        ++file.next_entry;
        if (single || status != STATUS_SUCCESS) break;
    }
    if (!any) return Complete(iosb, first ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES, 0, event);
    return Complete(iosb, status, written, event);
}

// ------------------------------------------------------------ volume information

NTSTATUS QueryVolume(FileObject &file, void *buffer, ULONG length, FS_INFORMATION_CLASS info_class, ULONG *written) {
    Volume &volume = *file.volume;
    auto *out = static_cast<uint8_t *>(buffer);
    struct statvfs fs {};
    ::statvfs(volume.host_root.c_str(), &fs);
    const int64_t total = int64_t(fs.f_blocks) * int64_t(fs.f_frsize) / kClusterSize;
    const int64_t available = volume.options.disk_full ? 0 : int64_t(fs.f_bavail) * int64_t(fs.f_frsize) / kClusterSize;
    switch (info_class) {
    case FileFsDeviceInformation: {
        if (length < sizeof(FILE_FS_DEVICE_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        FILE_FS_DEVICE_INFORMATION d{};
        d.DeviceType = volume.options.device_type;
        d.Characteristics = volume.options.characteristics | FILE_DEVICE_IS_MOUNTED;
        Put(out, d);
        *written = sizeof(d);
        return STATUS_SUCCESS;
    }
    case FileFsSizeInformation: {
        if (length < sizeof(FILE_FS_SIZE_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        FILE_FS_SIZE_INFORMATION s{};
        s.TotalAllocationUnits = Large(total);
        s.AvailableAllocationUnits = Large(available);
        s.SectorsPerAllocationUnit = kClusterSize / 512;
        s.BytesPerSector = 512;
        Put(out, s);
        *written = sizeof(s);
        return STATUS_SUCCESS;
    }
    case FileFsFullSizeInformation: {
        if (length < sizeof(FILE_FS_FULL_SIZE_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
        FILE_FS_FULL_SIZE_INFORMATION s{};
        s.TotalAllocationUnits = Large(total);
        s.CallerAvailableAllocationUnits = Large(available);
        s.ActualAvailableAllocationUnits = Large(available);
        s.SectorsPerAllocationUnit = kClusterSize / 512;
        s.BytesPerSector = 512;
        Put(out, s);
        *written = sizeof(s);
        return STATUS_SUCCESS;
    }
    case FileFsAttributeInformation: {
        constexpr ULONG fixed = offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName);
        if (length < fixed) return STATUS_INFO_LENGTH_MISMATCH;
        const std::u16string name = ToU16(volume.options.file_system);
        FILE_FS_ATTRIBUTE_INFORMATION a{};
        a.FileSystemAttributes =
            FILE_CASE_SENSITIVE_SEARCH | FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK | FILE_PERSISTENT_ACLS;
        a.MaximumComponentNameLength = kMaximumComponentLength;
        a.FileSystemNameLength = ULONG(name.size() * sizeof(WCHAR));
        std::memcpy(out, &a, fixed);
        NTSTATUS status;
        *written = PutName(out, length, fixed, name, &status);
        return status;
    }
    default: return STATUS_INVALID_INFO_CLASS;
    }
}

// ------------------------------------------------------------ machine-model access

// An NT path, or a DOS path mapped through \??.
std::u16string NtPathOf(const std::string &path) {
    std::u16string p = ToU16(path);
    const auto letter = [](char16_t c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); };
    if (p.size() >= 4 && p.compare(0, 4, u"\\\\?\\") == 0) return u"\\??\\" + p.substr(4);
    if (p.size() >= 2 && letter(p[0]) && p[1] == u':') {
        std::replace(p.begin(), p.end(), u'/', u'\\');
        return u"\\??\\" + p;
    }
    return p;
}

struct MachinePath {
    std::shared_ptr<Volume> volume;
    std::string rel;          // as far as it exists, then as given
    bool exists = false;      // the whole path
    struct stat st {};
};

// Resolves a path for the machine-model calls, case-insensitively, making
// missing directories on the way when asked. Caller holds the files lock.
bool ResolveMachinePath(const std::string &path, bool make_directories, MachinePath *out) {
    NameLookup found;
    if (!NT_SUCCESS(LookupObjectName(NtPathOf(path), true, false, &found)) ||
        found.kind != NameLookup::Kind::Device || found.volume->dismounted)
        return false;
    out->volume = found.volume;
    std::u16string rest = found.remainder.empty() ? std::u16string() : found.remainder.substr(1);
    while (!rest.empty() && rest.back() == u'\\') rest.pop_back();
    const auto parts = Split(rest);
    std::string rel;
    bool present = true;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (!ValidComponent(parts[i], false)) return false;
        const bool last = i + 1 == parts.size();
        std::string host_name;
        if (present && FindEntry(out->volume->HostPath(rel), parts[i], true, &host_name, &out->st)) {
            rel = Join(rel, host_name);
            if (!last && !S_ISDIR(out->st.st_mode)) return false;
            continue;
        }
        rel = Join(rel, ToUtf8(parts[i]));
        if (!last && make_directories) {
            if (::mkdir(out->volume->HostPath(rel).c_str(), 0777) != 0) return false;
            continue;
        }
        present = false;
    }
    out->rel = rel;
    out->exists = present && (!parts.empty() || ::stat(out->volume->HostPath(rel).c_str(), &out->st) == 0);
    return true;
}

}  // namespace
}  // namespace io
}  // namespace hk::detail

using namespace hk::detail;
using namespace hk::detail::io;

extern "C" {

NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                            PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                            ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                            ULONG EaLength) {
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, FileAttributes, ShareAccess,
                  CreateDisposition, CreateOptions, EaBuffer != nullptr && EaLength != 0, "ZwCreateFile");
}

NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) {
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, 0, ShareAccess, FILE_OPEN, OpenOptions,
                  false, "ZwOpenFile");
}

NTSTATUS NTAPI ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                          PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                          PULONG Key) {
    return ReadOrWrite(false, FileHandle, Event, ApcRoutine, IoStatusBlock, Buffer, Length, ByteOffset);
}

NTSTATUS NTAPI ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                           PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                           PULONG Key) {
    return ReadOrWrite(true, FileHandle, Event, ApcRoutine, IoStatusBlock, Buffer, Length, ByteOffset);
}

NTSTATUS NTAPI ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass) {
    CheckIrql(PASSIVE_LEVEL, "ZwQueryInformationFile");
    std::lock_guard guard(Files().lock);
    FileObject *file;
    NTSTATUS status = FileFromHandle(FileHandle, &file);
    if (!NT_SUCCESS(status)) return status;
    if (IoStatusBlock == nullptr || FileInformation == nullptr) return STATUS_INVALID_PARAMETER;
    ULONG written = 0;
    status = QueryInformation(*file, FileInformation, Length, FileInformationClass, &written);
    if (status == STATUS_INFO_LENGTH_MISMATCH || status == STATUS_INVALID_INFO_CLASS) return status;
    return Complete(IoStatusBlock, status, NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW ? written : 0);
}

NTSTATUS NTAPI ZwSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                    ULONG Length, FILE_INFORMATION_CLASS FileInformationClass) {
    CheckIrql(PASSIVE_LEVEL, "ZwSetInformationFile");
    std::lock_guard guard(Files().lock);
    FileObject *file;
    NTSTATUS status = FileFromHandle(FileHandle, &file);
    if (!NT_SUCCESS(status)) return status;
    if (IoStatusBlock == nullptr || FileInformation == nullptr) return STATUS_INVALID_PARAMETER;
    status = SetInformation(*file, FileInformation, Length, FileInformationClass);
    if (status == STATUS_INFO_LENGTH_MISMATCH || status == STATUS_INVALID_INFO_CLASS) return status;
    return Complete(IoStatusBlock, status, 0);
}

NTSTATUS NTAPI ZwQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                    PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                    FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                                    PUNICODE_STRING FileName, BOOLEAN RestartScan) {
    CheckIrql(PASSIVE_LEVEL, "ZwQueryDirectoryFile");
    CheckApc(ApcRoutine, "ZwQueryDirectoryFile");
    std::lock_guard guard(Files().lock);
    FileObject *file;
    NTSTATUS status = FileFromHandle(FileHandle, &file);
    if (!NT_SUCCESS(status)) return status;
    if (IoStatusBlock == nullptr || FileInformation == nullptr) return STATUS_INVALID_PARAMETER;
    PKEVENT event;
    status = EventFromHandle(Event, &event);
    if (!NT_SUCCESS(status)) return status;
    return QueryDirectory(*file, IoStatusBlock, FileInformation, Length, FileInformationClass, ReturnSingleEntry,
                          FileName, RestartScan, event);
}

NTSTATUS NTAPI ZwQueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                            ULONG Length, FS_INFORMATION_CLASS FsInformationClass) {
    CheckIrql(PASSIVE_LEVEL, "ZwQueryVolumeInformationFile");
    std::lock_guard guard(Files().lock);
    FileObject *file;
    NTSTATUS status = FileFromHandle(FileHandle, &file);
    if (!NT_SUCCESS(status)) return status;
    if (IoStatusBlock == nullptr || FsInformation == nullptr) return STATUS_INVALID_PARAMETER;
    ULONG written = 0;
    status = QueryVolume(*file, FsInformation, Length, FsInformationClass, &written);
    if (status == STATUS_INFO_LENGTH_MISMATCH || status == STATUS_INVALID_INFO_CLASS) return status;
    return Complete(IoStatusBlock, status, written);
}

NTSTATUS NTAPI ZwFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) {
    CheckIrql(PASSIVE_LEVEL, "ZwFlushBuffersFile");
    std::lock_guard guard(Files().lock);
    FileObject *file;
    NTSTATUS status = FileFromHandle(FileHandle, &file);
    if (!NT_SUCCESS(status)) return status;
    if (IoStatusBlock == nullptr) return STATUS_INVALID_PARAMETER;
    if (!(file->access & (FILE_WRITE_DATA | FILE_APPEND_DATA))) return STATUS_ACCESS_DENIED;
    if (!file->fcb->directory && ::fsync(file->fd) != 0) return Complete(IoStatusBlock, StatusFromErrno(errno), 0);
    return Complete(IoStatusBlock, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI ZwDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes) {
    CheckIrql(PASSIVE_LEVEL, "ZwDeleteFile");
    // An open for DELETE that shares everything, the delete disposition, and
    // the close that carries it out (at once, unless others have it open).
    HANDLE handle;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = Create(&handle, DELETE, ObjectAttributes, &iosb, 0,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                             FILE_OPEN_REPARSE_POINT | FILE_OPEN_FOR_BACKUP_INTENT, false, "ZwDeleteFile");
    if (!NT_SUCCESS(status)) return status;
    FILE_DISPOSITION_INFORMATION disposition{TRUE};
    status = ZwSetInformationFile(handle, &iosb, &disposition, sizeof(disposition), FileDispositionInformation);
    ZwClose(handle);
    return status;
}

}  // extern "C"

namespace hk {

void AddVolume(const std::string &device_name, const std::string &host_directory, const VolumeOptions &options) {
    std::error_code error;
    const auto root = std::filesystem::canonical(host_directory, error);
    if (error || !std::filesystem::is_directory(root)) {
        Complain("AddVolume: " + host_directory + " is not a directory");
        return;
    }
    auto volume = std::make_shared<Volume>();
    volume->device_name = ToU16(device_name);
    volume->host_root = root.string();
    volume->options = options;
    auto &files = Files();
    std::lock_guard guard(files.lock);
    if (!InsertDevice(volume->device_name, volume)) {
        Complain("AddVolume: cannot insert a device named " + device_name);
        return;
    }
    files.volumes.push_back(volume);
}

void SetDiskFull(const std::string &device_name, bool full) {
    auto &files = Files();
    std::lock_guard guard(files.lock);
    for (auto &volume : files.volumes) {
        if (NamesEqualInsensitive(volume->device_name, ToU16(device_name))) {
            volume->options.disk_full = full;
            return;
        }
    }
    Complain("SetDiskFull: no volume named " + device_name);
}

bool WriteFile(const std::string &path, const std::string &bytes) {
    std::lock_guard guard(Files().lock);
    MachinePath where;
    if (!ResolveMachinePath(path, true, &where) || where.rel.empty()) return false;
    if (where.exists && S_ISDIR(where.st.st_mode)) return false;
    const int fd = ::open(where.volume->HostPath(where.rel).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += size_t(n);
    }
    const int64_t now = NowSystemTime();
    const timespec times[2] = {HostTimeOf(now), HostTimeOf(now)};
    ::futimens(fd, times);
    struct stat st;
    ::fstat(fd, &st);
    ::close(fd);
    Meta &meta = TouchMeta(*where.volume, where.rel, st);
    if (!where.exists) meta.creation = meta.access = now;
    meta.change = now;
    meta.attributes |= FILE_ATTRIBUTE_ARCHIVE;
    return done == bytes.size();
}

std::optional<std::string> ReadFile(const std::string &path) {
    std::lock_guard guard(Files().lock);
    MachinePath where;
    if (!ResolveMachinePath(path, false, &where) || !where.exists || S_ISDIR(where.st.st_mode)) return std::nullopt;
    const int fd = ::open(where.volume->HostPath(where.rel).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string bytes;
    char chunk[65536];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        bytes.append(chunk, size_t(n));
    }
    ::close(fd);
    return bytes;
}

bool DeleteFile(const std::string &path) {
    std::lock_guard guard(Files().lock);
    MachinePath where;
    if (!ResolveMachinePath(path, false, &where) || !where.exists || where.rel.empty()) return false;
    std::error_code error;
    std::filesystem::remove_all(where.volume->HostPath(where.rel), error);
    if (error) return false;
    ForgetMeta(*where.volume, where.rel);
    return true;
}

bool FileExists(const std::string &path) {
    std::lock_guard guard(Files().lock);
    MachinePath where;
    return ResolveMachinePath(path, false, &where) && where.exists;
}

std::string HostPathOf(const std::string &path) {
    std::lock_guard guard(Files().lock);
    MachinePath where;
    if (!ResolveMachinePath(path, false, &where)) return {};
    return where.volume->HostPath(where.rel);
}

}  // namespace hk
