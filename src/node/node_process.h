#pragma once

#include "node/command_line.h"

// What the command line asks for; the process's exit status.
int velmard_run(const command_line_t &line);
