#pragma once
// SHA-256: the identity of metrics and the signature of topologies.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr size_t TOPO_HASH_SIZE = 32;
constexpr size_t TOPO_HASH_HEX_SIZE = 2 * TOPO_HASH_SIZE + 1;  // with the terminator

// A hash in the making: init, any number of updates, then final, which also frees it.
struct topo_hash_ctx_t {
  void *m_state;
};
void topo_hash_ctx_init(topo_hash_ctx_t *ctx);
void topo_hash_ctx_update(topo_hash_ctx_t *ctx, const void *bytes, size_t size);
void topo_hash_ctx_final(topo_hash_ctx_t *ctx, uint8_t out[TOPO_HASH_SIZE]);

// All at once, without an allocation after a thread's first call. Safe from any thread.
void topo_hash(const void *bytes, size_t size, uint8_t out[TOPO_HASH_SIZE]);

// Lower-case digits and a terminator.
void topo_hash_to_hex(const uint8_t hash[TOPO_HASH_SIZE], char out[TOPO_HASH_HEX_SIZE]);
