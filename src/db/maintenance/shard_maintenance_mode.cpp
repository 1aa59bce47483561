#include "db/maintenance/shard_maintenance_mode.h"

namespace db {

const char *shard_maintenance_mode_to_string(shard_maintenance_mode_e mode) {
  switch (mode) {
    case ONLINE:
      return "ONLINE";
    case OFFLINE_PENDING:
      return "OFFLINE_PENDING";
    case OFFLINE_RECONSTITUTE:
      return "OFFLINE_RECONSTITUTE";
    case OFFLINE:
      return "OFFLINE";
    case OFFLINE_CLOSED_PENDING_DELETE:
      return "OFFLINE_CLOSED_PENDING_DELETE";
    case OFFLINE_CORRUPTED:
      return "OFFLINE_CORRUPTED";
    default:
      return "UNKNOWN_STATUS";
  }
}

}  // namespace db
