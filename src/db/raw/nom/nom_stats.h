#pragma once
// What the NOM databases of one kind count. Handles are null until registered, and then never change.

#include <cstdint>

#include "db/raw/nom/nom_format.h"

struct stats_handle_t;

namespace velmar_db_raw_nom {

struct nom_stats_t {
  stats_handle_t *put_tuples = nullptr;
  stats_handle_t *put_latency = nullptr;    // of a set
  stats_handle_t *put_batchsize = nullptr;  // samples of a set
  stats_handle_t *get_tuples = nullptr;
  stats_handle_t *get_latency = nullptr;  // of a find
  stats_handle_t *full_merges = nullptr;
  stats_handle_t *partial_merges = nullptr;
};
// Registered on first use, in the namespace db.raw.nom or db.hist_shard.nom.
const nom_stats_t &nom_stats(nom_merge_type_e datatype);

}  // namespace velmar_db_raw_nom
