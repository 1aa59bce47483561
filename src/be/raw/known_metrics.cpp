#include "be/raw/known_metrics.h"

#include <cstring>

#include "platform/krel/base/krel_memory.h"
#include "util/wyhash.h"

namespace be::raw {

namespace {

void release_entry(void *block) {
  velmar_metric_locator_deref(static_cast<known_metrics_c::entry_t *>(block)->locator);
}

}  // namespace

known_metrics_c::known_metrics_c() {
  for (shard_t &shard : m_shards) shard.table = make_table(FIRST_SLOTS);
}

known_metrics_c::~known_metrics_c() {
  for (shard_t &shard : m_shards) {
    table_t *table = shard.table;
    for (size_t i = 0; i <= table->mask; i++) krel_memory_safe_free(table->slots[i].load());
    krel_memory_safe_free(table);
  }
}

known_metrics_c::table_t *known_metrics_c::make_table(size_t slots) {
  auto *table = static_cast<table_t *>(
      krel_memory_safe_calloc(1, sizeof(table_t) + slots * sizeof(std::atomic<entry_t *>)));
  table->mask = slots - 1;
  return table;
}

uint64_t known_metrics_c::hash_of(const metric_name_t &name) {
  uint64_t high, low;
  memcpy(&high, name.uuid, 8);
  memcpy(&low, name.uuid + 8, 8);
  const uint64_t mixed = high * 0xff51afd7ed558ccd ^ low ^ static_cast<uint64_t>(name.form);
  return util::wyhash(name.name.data(), name.name.size()) ^ mixed * 0xc4ceb9fe1a85ec53;
}

bool known_metrics_c::matches(const entry_t &entry, uint64_t hash, const metric_name_t &name) {
  if (entry.hash != hash || entry.form != name.form) return false;
  const auto *immutable = entry.locator->immutable;
  const bool alias = entry.alias_size != 0;
  const size_t size = alias ? entry.alias_size : immutable->key_len;
  return size == name.name.size() &&
         memcmp(alias ? entry.alias() : immutable->key_mem, name.name.data(), size) == 0 &&
         memcmp(immutable->check_uuid, name.uuid, 16) == 0 &&
         (name.account_id == ANY_ACCOUNT ||
          velmar_metric_locator_get_account_id(entry.locator) == name.account_id);
}

known_metrics_c::entry_t *known_metrics_c::find(const metric_name_t &name) const {
  const uint64_t hash = hash_of(name);
  const table_t *table = shard_for(hash).table.load(std::memory_order_acquire);
  for (size_t i = hash & table->mask;; i = (i + 1) & table->mask) {
    entry_t *entry = table->slots[i].load(std::memory_order_acquire);
    if (!entry) return nullptr;
    if (matches(*entry, hash, name))
      return velmar_metric_locator_is_canonical(entry->locator) ? entry : nullptr;
  }
}

void known_metrics_c::grow(shard_t *shard) {
  table_t *old = shard->table.load(std::memory_order_relaxed);
  table_t *larger = make_table((old->mask + 1) * 2);
  for (size_t i = 0; i <= old->mask; i++) {
    entry_t *entry = old->slots[i].load(std::memory_order_relaxed);
    if (!entry) continue;
    size_t at = entry->hash & larger->mask;
    while (larger->slots[at].load(std::memory_order_relaxed)) at = (at + 1) & larger->mask;
    larger->slots[at].store(entry, std::memory_order_relaxed);
  }
  larger->used = old->used;
  shard->table.store(larger, std::memory_order_release);
  krel_memory_safe_free(old);
}

void known_metrics_c::insert(const metric_name_t &name, velmar_metric_locator_t *canonical) {
  const auto *immutable = canonical->immutable;
  const bool alias =
      name.form != name_form_e::metric || name.name != std::string_view(immutable->key_mem, immutable->key_len);
  const size_t aliases = m_aliases.load(std::memory_order_relaxed);
  // an empty name as sent has no bytes to tell an alias by; a changed account is another identity of the sender
  if ((alias && (name.name.empty() || aliases >= SPARE_ALIASES + size() - aliases)) ||
      velmar_metric_locator_get_account_id(canonical) != name.account_id)
    return;
  const uint64_t hash = hash_of(name);
  shard_t &shard = shard_for(hash);
  const krel_lock_c lock(shard.mutex);
  table_t *table = shard.table.load(std::memory_order_relaxed);
  if ((table->used + 1) * 3 > (table->mask + 1) * 2) {
    grow(&shard);
    table = shard.table.load(std::memory_order_relaxed);
  }
  size_t at = hash & table->mask;
  entry_t *old = nullptr;
  while ((old = table->slots[at].load(std::memory_order_relaxed)) && !matches(*old, hash, name))
    at = (at + 1) & table->mask;
  if (old && old->locator == canonical) return;
  const size_t alias_size = alias ? name.name.size() : 0;
  auto *entry =
      static_cast<entry_t *>(krel_memory_safe_malloc_cleanup(sizeof(entry_t) + alias_size, release_entry));
  new (entry) entry_t{hash, canonical, 0, nullptr, static_cast<uint32_t>(alias_size), name.form};
  if (alias) memcpy(const_cast<char *>(entry->alias()), name.name.data(), alias_size);
  velmar_metric_locator_ref(canonical);
  table->slots[at].store(entry, std::memory_order_release);
  if (old) {
    krel_memory_safe_free(old);
    return;
  }
  table->used++;
  m_size.fetch_add(1, std::memory_order_relaxed);
  if (alias) m_aliases.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace be::raw
