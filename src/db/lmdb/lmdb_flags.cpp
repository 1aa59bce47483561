#include "db/lmdb/lmdb_flags.h"

#include <lmdb.h>
#include <strings.h>

#include <algorithm>
#include <string>

#include "platform/krel/base/krel_log.h"

uint32_t velmar_db_lmdb_string_to_flags(std::string_view text) {
  static constexpr struct {
    const char *name;
    uint32_t flag;
  } NAMES[] = {
      {"RDONLY", MDB_RDONLY}, {"NOMETASYNC", MDB_NOMETASYNC}, {"NOSYNC", MDB_NOSYNC},
      {"NOTLS", MDB_NOTLS},   {"NORDAHEAD", MDB_NORDAHEAD},   {"NOMEMINIT", MDB_NOMEMINIT},
  };
  uint32_t flags = 0;
  while (!text.empty()) {
    const size_t end = std::min(text.find_first_of(" ,|\t\n"), text.size());
    std::string word(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (strncasecmp(word.c_str(), "MDB_", 4) == 0) word.erase(0, 4);
    if (word.empty()) continue;
    bool known = false;
    for (const auto &n : NAMES)
      if (strcasecmp(word.c_str(), n.name) == 0) {
        flags |= n.flag;
        known = true;
      }
    if (!known) krel_log(krel_error, "LMDB flag %s requested, but unknown. Ignoring\n", word.c_str());
  }
  return flags;
}
