#pragma once
#include <cstdint>

// Accepts POST requests on the port of 127.0.0.1, throws the bodies away and answers that every sample is
// stored. Runs until it is stopped from outside; the exit status when it cannot start.
int run_sink(uint16_t port);
