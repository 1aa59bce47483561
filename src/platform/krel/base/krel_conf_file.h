#pragma once
// Files of the configuration: whole reads, and replacement by way of a temporary file.

#include <cstddef>
#include <string>
#include <string_view>

// Absolute, links resolved where the file exists.
std::string krel_conf_absolute(const std::string &path);
// `file` as seen from the directory of `path`.
std::string krel_conf_beside(const std::string &path, const std::string &file);
bool krel_conf_read_file(const std::string &path, size_t max_bytes, std::string *out, std::string *error);
// Writes a temporary file beside it, syncs, renames, syncs the directory. Keeps mode and owner.
bool krel_conf_replace_file(const std::string &path, std::string_view text, std::string *error);
