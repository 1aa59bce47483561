#pragma once

#include <string>

// Prints the sections that match the xpath to standard output. 0 when there are some, else 2.
int config_dump(const std::string &config_file, const std::string &xpath);
