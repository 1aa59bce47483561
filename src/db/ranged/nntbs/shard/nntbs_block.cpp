#include "db/ranged/nntbs/shard/nntbs_block.h"

#include <libdeflate.h>

#include <algorithm>

namespace db::ranged::nntbs {

void block_init(nntbs_block_t *block, uint64_t now_us) {
  memset(block, 0, sizeof *block);
  block->version = BLOCK_VERSION;
  block->type = nntbs_block_type_e::all;
  block->creation_ts = now_us;
}

uint32_t block_crc(const nntbs_block_t &block) {
  return libdeflate_crc32(0, block.datum, sizeof block.datum);
}

void block_seal(nntbs_block_t *block) {
  block->crc = block_crc(*block);
}

bool block_is_sound(const nntbs_block_t &block) {
  return block.version == BLOCK_VERSION && block.crc == block_crc(block);
}

void block_clear_before(nntbs_block_t *block, uint64_t block_floor, uint64_t period, uint64_t before) {
  if (before <= block_floor) return;
  const uint64_t slots = std::min<uint64_t>((before - block_floor + period - 1) / period, BLOCK_SLOTS);
  memset(block->datum, 0, static_cast<size_t>(slots) * sizeof(nntbs_datum_t));
}

size_t block_first_filled(const nntbs_block_t &block) {
  size_t slot = 0;
  while (slot < BLOCK_SLOTS && block_slot_is_empty(block, slot)) ++slot;
  return slot;
}

size_t block_last_filled(const nntbs_block_t &block) {
  for (size_t slot = BLOCK_SLOTS; slot-- > 0;)
    if (!block_slot_is_empty(block, slot)) return slot;
  return BLOCK_SLOTS;
}

}  // namespace db::ranged::nntbs
