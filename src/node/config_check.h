#pragma once
// `velmard --check`: everything that is wrong with a configuration, in one go, without starting anything.

#include <cstdio>
#include <string>

// Reads the file and writes one line for each fault to `out`: unknown keys with the nearest known one, values
// that cannot be read, keys that are required, directories that cannot be made, ports that are taken. The
// result is the exit status: 0 when there was none, 1 with faults, 2 when the file could not be read.
int config_check(const std::string &config_file, FILE *out);
