#pragma once
// LMDB's environment flags as an operator writes them.

#include <cstdint>
#include <string_view>

// Names as in "nosync, notls", in any case, separated by blanks, "," or "|": RDONLY, NOMETASYNC, NOSYNC, NOTLS,
// NORDAHEAD, NOMEMINIT, with or without "MDB_" in front. Others are logged and passed over.
uint32_t velmar_db_lmdb_string_to_flags(std::string_view text);
