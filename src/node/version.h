#pragma once

// Two 40-digit revision ids joined by a slash: the commit and the tree that was built. Zeros when the
// sources came without a repository.
const char *velmar_version();
