// Loading a library image as the kernel loads an export driver: each load
// gets fresh static storage, and the image's message table becomes readable
// by the event log.
#include "internal.h"

#include <hk/hk.h>

#include <dlfcn.h>

namespace hk {

Image::Image(Image &&other) noexcept : handle_(other.handle_) { other.handle_ = nullptr; }

Image &Image::operator=(Image &&other) noexcept {
    if (this != &other) {
        Unload();
        handle_ = other.handle_;
        other.handle_ = nullptr;
    }
    return *this;
}

Image::~Image() { Unload(); }

std::string Image::Load(const std::string &path, const std::string &source) {
    Unload();
    if (void *already = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD)) {
        dlclose(already);
        return path + ": the image is already loaded; a second copy would share its static storage";
    }
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) return dlerror();
    using Table = const MessageTableEntry;
    auto *table = static_cast<Table *>(dlsym(handle_, "TexprtMessageTable"));
    auto *count = static_cast<const unsigned *>(dlsym(handle_, "TexprtMessageTableCount"));
    if (table != nullptr && count != nullptr) RegisterMessageTable(source, table, *count);
    return {};
}

void Image::Unload() {
    if (handle_ == nullptr) return;
    Dl_info info{};
    std::string path;
    if (void *sym = dlsym(handle_, "DllInitialize"); sym && dladdr(sym, &info) && info.dli_fname)
        path = info.dli_fname;
    dlclose(handle_);
    handle_ = nullptr;
    // The image's spin locks went with it; their ranks must not stick to
    // whatever is mapped at those addresses next.
    detail::ForgetSpinLockRanks();
    // The next load must start from zeroed storage again, so the image has
    // to be really gone.
    if (!path.empty()) {
        if (void *still = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD)) {
            dlclose(still);
            detail::Complain("image " + path + " stayed mapped after its unload");
        }
    }
}

void *Image::Symbol(const char *name) const { return handle_ ? dlsym(handle_, name) : nullptr; }

}  // namespace hk
