#pragma once
// The working form of cells that take the same samples, four side by side, so that one instruction serves
// several. Values are bit by bit those of add_data_to_bucket; a mean is a double here and gets its type when
// its cell is written.

#include <cstddef>
#include <cstdint>

constexpr size_t NNT_LANES = 4;

// Zeroed, with derivative and counter NaN: a cell without samples.
struct alignas(32) nnt_lanes_t {
  double mean[NNT_LANES];
  float stddev[NNT_LANES];
  float derivative[NNT_LANES], counter[NNT_LANES];
  uint32_t count[NNT_LANES];
  int32_t drun[NNT_LANES], crun[NNT_LANES];  // weights of derivative and counter, ms
};

struct nnt_step_t {
  double value;
  double rate;       // change per second, rounded to float; no NaN unless run is 0
  int32_t run;       // ms that the rate stands for; 0: there is no rate
  bool is_increase;  // the rate is not negative: it counts for the counter too
};

// Folds one sample into every lane of `count` groups.
using nnt_lanes_fold_t = void (*)(nnt_lanes_t *groups, size_t count, const nnt_step_t &step);
nnt_lanes_fold_t nnt_lanes_fold();           // the form for this processor
nnt_lanes_fold_t nnt_lanes_fold_baseline();  // the form for any
