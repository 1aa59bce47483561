#pragma once
// Whether a shard of time serves reads and writes, and why not. The numbers are those of the cluster's
// messages.

namespace db {

enum shard_maintenance_mode_e {
  ONLINE = 0,
  OFFLINE_PENDING = 1,  // to be OFFLINE once its last user has left
  OFFLINE_RECONSTITUTE = 2,
  OFFLINE = 3,
  OFFLINE_CLOSED_PENDING_DELETE = 4,
  OFFLINE_CORRUPTED = 5,
  UNKNOWN_STATUS = 6,
};
const char *shard_maintenance_mode_to_string(shard_maintenance_mode_e mode);

// A set of modes.
class shard_modes_c {
 public:
  constexpr shard_modes_c(shard_maintenance_mode_e mode) : m_bits(1U << mode) {}
  constexpr shard_modes_c operator|(shard_modes_c other) const { return shard_modes_c(m_bits | other.m_bits); }
  constexpr bool has(shard_maintenance_mode_e mode) const { return (m_bits >> mode & 1) != 0; }

 private:
  constexpr explicit shard_modes_c(unsigned bits) : m_bits(bits) {}
  unsigned m_bits;
};

}  // namespace db
