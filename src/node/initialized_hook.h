#pragma once
// Functions that run at the end of the start, just before the node listens.

// 0: go on, 1: done but go on, 2: abort the start.
using velmar_initialized_hook_f = int (*)(void *closure);
// From any thread; the last registered runs first. The name is copied.
void velmar_initialized_hook_register(const char *name, velmar_initialized_hook_f function, void *closure);
// 2 as soon as one returns 2, else 1 if any returned 1, else 0.
int velmar_initialized_hook_invoke();
