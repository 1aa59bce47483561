#include "util/io/fs_avail.h"

#include <dlfcn.h>
#include <sys/vfs.h>

#include <cstring>

#include "platform/krel/base/krel_log.h"

namespace {

constexpr long k_zfs_magic = 0x2fc12fc1;

// The part of libzfs in use, loaded when a ZFS file system is first met; it is no dependency of the build.
struct zfsinfo_t {
  void *(*init)();
  void (*fini)(void *lib);
  void *(*path_to_zhandle)(void *lib, const char *path, int types);
  int (*prop_get_numeric)(void *zhandle, int property, uint64_t *value, void *source, char *status,
                          size_t size);
  void (*close)(void *zhandle);
};
enum zfs_property_e : int { ZFS_PROP_USED = 2, ZFS_PROP_AVAILABLE = 3, ZFS_PROP_COMPRESSRATIO = 5 };
constexpr int k_zfs_type_filesystem = 1;

template <typename F>
bool locate(void *library, const char *name, F *function) {
  void *symbol = dlsym(library, name);
  if (!symbol) {
    krel_log(krel_error, "Cannot locate %s function: %s\n", name, dlerror());
    return false;
  }
  memcpy(function, &symbol, sizeof symbol);
  return true;
}

// Null when the library cannot be used; tried once.
const zfsinfo_t *zfsinfo_dlopen() {
  static const zfsinfo_t *const info = []() -> const zfsinfo_t * {
    static zfsinfo_t z;
    void *library = dlopen("libzfs.so.2", RTLD_NOW);
    if (!library) library = dlopen("libzfs.so", RTLD_NOW);
    if (!library) return nullptr;
    const bool complete = locate(library, "libzfs_init", &z.init) && locate(library, "libzfs_fini", &z.fini) &&
                          locate(library, "zfs_path_to_zhandle", &z.path_to_zhandle) &&
                          locate(library, "zfs_prop_get_numeric", &z.prop_get_numeric) &&
                          locate(library, "zfs_close", &z.close);
    return complete ? &z : nullptr;
  }();
  return info;
}

void replace_by_zfs_figures(const std::string &path, uint64_t *space_total, uint64_t *space_avail,
                            double *compress_ratio) {
  const zfsinfo_t *zfs = zfsinfo_dlopen();
  void *lib = zfs ? zfs->init() : nullptr;
  if (!lib) return;
  if (void *handle = zfs->path_to_zhandle(lib, path.c_str(), k_zfs_type_filesystem)) {
    char status[64];
    const auto get = [&](int property, uint64_t *value) {
      return zfs->prop_get_numeric(handle, property, value, nullptr, status, sizeof status) == 0;
    };
    uint64_t used = 0, available = 0, ratio_hundredths = 0;
    if (get(ZFS_PROP_USED, &used) && get(ZFS_PROP_AVAILABLE, &available)) {
      *space_total = used + available;
      *space_avail = available;
    }
    if (get(ZFS_PROP_COMPRESSRATIO, &ratio_hundredths) && ratio_hundredths > 0)
      *compress_ratio = static_cast<double>(ratio_hundredths) / 100.0;
    zfs->close(handle);
  }
  zfs->fini(lib);
}

}  // namespace

double fs_get_avail(const std::string &path, uint64_t *fsid, uint64_t *space_total, uint64_t *space_avail,
                    double *compress_ratio) {
  *compress_ratio = 1.0;
  struct statfs st;
  if (statfs(path.c_str(), &st) != 0) return -1.0;
  static_assert(sizeof st.f_fsid == sizeof *fsid);
  memcpy(fsid, &st.f_fsid, sizeof *fsid);
  *space_total = static_cast<uint64_t>(st.f_blocks) * static_cast<uint64_t>(st.f_bsize);
  *space_avail = static_cast<uint64_t>(st.f_bavail) * static_cast<uint64_t>(st.f_bsize);
  if (static_cast<long>(st.f_type) == k_zfs_magic)
    replace_by_zfs_figures(path, space_total, space_avail, compress_ratio);
  return 0.0;
}
