#include "util/topo_hash.h"

#include <openssl/evp.h>

#include <memory>

#include "platform/krel/base/krel_log.h"

namespace {

struct ctx_free_t {
  void operator()(EVP_MD_CTX *ctx) const { EVP_MD_CTX_free(ctx); }
};
using ctx_ptr = std::unique_ptr<EVP_MD_CTX, ctx_free_t>;

// Fetched once for the life of the process: a fetch costs more than hashing a name.
const EVP_MD *sha256() {
  static const EVP_MD *const md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  if (!md) krel_fatal("SHA-256 is missing in the cryptographic library\n");
  return md;
}

void start(EVP_MD_CTX *ctx) {
  if (!ctx || EVP_DigestInit_ex2(ctx, sha256(), nullptr) != 1) krel_fatal("SHA-256 cannot be started\n");
}

void finish(EVP_MD_CTX *ctx, uint8_t *out) {
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(ctx, out, &size) != 1 || size != TOPO_HASH_SIZE) krel_fatal("SHA-256 failed\n");
}

}  // namespace

void topo_hash_ctx_init(topo_hash_ctx_t *ctx) {
  EVP_MD_CTX *state = EVP_MD_CTX_new();
  start(state);
  ctx->m_state = state;
}

void topo_hash_ctx_update(topo_hash_ctx_t *ctx, const void *bytes, size_t size) {
  if (EVP_DigestUpdate(static_cast<EVP_MD_CTX *>(ctx->m_state), bytes, size) != 1)
    krel_fatal("SHA-256 failed\n");
}

void topo_hash_ctx_final(topo_hash_ctx_t *ctx, uint8_t out[TOPO_HASH_SIZE]) {
  const ctx_ptr state(static_cast<EVP_MD_CTX *>(ctx->m_state));
  ctx->m_state = nullptr;
  finish(state.get(), out);
}

void topo_hash(const void *bytes, size_t size, uint8_t out[TOPO_HASH_SIZE]) {
  thread_local const ctx_ptr state(EVP_MD_CTX_new());
  start(state.get());
  if (EVP_DigestUpdate(state.get(), bytes, size) != 1) krel_fatal("SHA-256 failed\n");
  finish(state.get(), out);
}

void topo_hash_to_hex(const uint8_t hash[TOPO_HASH_SIZE], char out[TOPO_HASH_HEX_SIZE]) {
  static const char digits[] = "0123456789abcdef";
  for (size_t i = 0; i < TOPO_HASH_SIZE; i++) {
    *out++ = digits[hash[i] >> 4];
    *out++ = digits[hash[i] & 15];
  }
  *out = 0;
}
