#pragma once
#include <cstdint>
#include <string>

// CPU seconds that the process has used; 0 for a process that is not there.
double process_cpu_seconds(int pid);
// The most memory it has held at once, in bytes.
uint64_t process_peak_bytes(int pid);
// Bytes of all files below the directory; neither holes nor room set aside counts.
uint64_t directory_bytes(const std::string &path);
