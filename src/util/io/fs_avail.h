#pragma once
// How much room a file system has.

#include <cstdint>
#include <string>

// Of the file system that holds `path`: its id, its size and what an unprivileged writer can still take,
// in bytes, and the compression ratio (1.0 where there is none to tell). On ZFS the data set's own figures,
// when libzfs can be loaded. 0.0, or -1.0 on failure: then only *compress_ratio is set, to 1.0. Blocking.
double fs_get_avail(const std::string &path, uint64_t *fsid, uint64_t *space_total, uint64_t *space_avail,
                    double *compress_ratio);
