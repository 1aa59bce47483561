#include "libvelmar/nnt/nnt_accumulator.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "libvelmar/nnt/nnt_lanes.h"
#include "platform/krel/base/krel_log.h"

namespace {

struct free_t {
  void operator()(void *memory) const { free(memory); }
};

// One period: its cells, and the one that takes samples now.
struct period_t {
  uint64_t period_ms = 0;
  std::unique_ptr<nnt_multitype, free_t> cells;  // zeroed pages, touched where samples are
  size_t cell_count = 0;
  size_t slot = 0;
  uint64_t end_ms = 0;        // of the open cell; 0: none is open
  bool without_prev = false;  // the open cell began with a sample that nothing came before
  nnt_accumulator_c::range_t filled{0, 0};
};

}  // namespace

struct nnt_accumulator_c::impl_t {
  uint64_t start_ms = 0, length_ms = 0;
  std::vector<period_t> periods;
  std::vector<nnt_lanes_t> lanes;
  const nnt_lanes_fold_t fold = nnt_lanes_fold();
  uint64_t next_end_ms = 0;  // the earliest end of an open cell
  uint64_t sample_count = 0;
  bool has_last = false;
  metric_value_t last{};
  double last_value = 0;
  // since a first sample that nothing came before: a rate came, one that counts for the counter came
  bool has_rate = false, has_increase = false;

  nnt_multitype *open_cell(const period_t &p) const { return p.cells.get() + p.slot; }
  bool make_step(const metric_value_t &value, nnt_step_t *step);
  void fold_nan_rate(int32_t run);
  void turn(const metric_value_t &value);
  void open(size_t index, const metric_value_t &value);
  void write(size_t index);
};

// What the sample adds to each cell. False: its rate is NaN though time has passed since the last one.
bool nnt_accumulator_c::impl_t::make_step(const metric_value_t &value, nnt_step_t *step) {
  const double number = metric_value_double(value);
  *step = {number, 0, 0, false};
  if (has_last) {
    double dy;
    int dt;
    if (value.type == VELMAR_METRIC_DOUBLE && last.type == VELMAR_METRIC_DOUBLE) {
      dy = number - last_value;
      dt = static_cast<int>(static_cast<uint32_t>(value.whence_ms - last.whence_ms));
    } else {
      calculate_change(last, value, &dy, &dt);
    }
    if (dt > 0) {
      const double rate = dy * 1000.0 / dt;
      step->run = dt;
      step->is_increase = rate >= 0;
      step->rate = static_cast<float>(rate);
      has_rate = true;
      has_increase = has_increase || step->is_increase;
    }
  }
  last_value = number;
  return !std::isnan(step->rate);
}

// Time without a rate: only a derivative that is not known yet takes it.
void nnt_accumulator_c::impl_t::fold_nan_rate(int32_t run) {
  for (nnt_lanes_t &group : lanes) {
    for (size_t i = 0; i < NNT_LANES; i++) {
      const auto total =
          static_cast<int32_t>(static_cast<uint32_t>(group.drun[i]) + static_cast<uint32_t>(run));
      if (total != 0 && group.drun[i] == 0) group.derivative[i] = libvelmar_private_nan_float;
      group.drun[i] = total;
    }
  }
}

// Closes the cells that end before the sample and opens those that it falls in.
void nnt_accumulator_c::impl_t::turn(const metric_value_t &value) {
  next_end_ms = UINT64_MAX;
  for (size_t i = 0; i < periods.size(); i++) {
    if (value.whence_ms >= periods[i].end_ms) {
      if (periods[i].end_ms) write(i);
      open(i, value);
    }
    next_end_ms = std::min(next_end_ms, periods[i].end_ms);
  }
}

void nnt_accumulator_c::impl_t::open(size_t index, const metric_value_t &value) {
  period_t &p = periods[index];
  const bool follows = p.end_ms && value.whence_ms - p.end_ms < p.period_ms;
  p.slot = follows ? p.slot + 1 : (value.whence_ms - start_ms) / p.period_ms;
  p.end_ms = start_ms + (p.slot + 1) * p.period_ms;
  p.without_prev = !has_last;
  if (p.filled.begin == p.filled.end) p.filled.begin = p.slot;
  p.filled.end = p.slot + 1;
  nnt_lanes_t &group = lanes[index / NNT_LANES];
  const size_t lane = index % NNT_LANES;
  const float unknown = has_last ? libvelmar_private_nan_float : 0.0F;
  group.mean[lane] = 0;
  group.stddev[lane] = 0;
  group.derivative[lane] = group.counter[lane] = unknown;
  group.count[lane] = 0;
  group.drun[lane] = group.crun[lane] = 0;
  // a cell of one sample keeps the sample's own type
  nnt_multitype *cell = open_cell(p);
  cell->type = metric_to_nnt_type(value.type);
  cell->value = value.storage;
  if (cell->type <= NNT_TYPE_UINT32) cell->value.v_uint64 = value.storage.v_uint32;
}

// Puts the open cell's state into its slot; the cell stays open.
void nnt_accumulator_c::impl_t::write(size_t index) {
  const period_t &p = periods[index];
  const nnt_lanes_t &group = lanes[index / NNT_LANES];
  const size_t lane = index % NNT_LANES;
  nnt_multitype *cell = open_cell(p);
  const float nan = libvelmar_private_nan_float, unknown = p.without_prev ? 0.0F : nan;
  cell->count = group.count[lane];
  if (cell->count > 1) nnt_multitype_set_mean(cell, group.mean[lane]);
  cell->stddev_present = !p.without_prev || cell->count > 1;
  cell->stddev = group.stddev[lane];
  cell->min = cell->max = unknown;
  cell->derivative = group.derivative[lane];
  cell->derivative_stddev = has_rate ? nan : unknown;
  cell->derivative_min = cell->derivative_max = unknown;
  cell->counter = group.counter[lane];
  cell->counter_stddev = has_increase ? nan : unknown;
  cell->counter_min = cell->counter_max = unknown;
}

nnt_accumulator_c::nnt_accumulator_c(uint64_t start_ms, uint64_t end_ms, std::span<const uint64_t> periods_ms)
    : m(new impl_t) {
  m->start_ms = start_ms;
  m->length_ms = end_ms - start_ms;
  krel_assert(start_ms < end_ms);
  m->lanes.resize((periods_ms.size() + NNT_LANES - 1) / NNT_LANES);  // zeroed
  for (const uint64_t period_ms : periods_ms) {
    krel_assert(period_ms && start_ms % period_ms == 0);
    period_t &p = m->periods.emplace_back();
    p.period_ms = period_ms;
    p.cell_count = (m->length_ms - 1) / period_ms + 1;
    p.cells.reset(static_cast<nnt_multitype *>(calloc(p.cell_count, sizeof(nnt_multitype))));
    krel_assert(p.cells);
  }
}

nnt_accumulator_c::~nnt_accumulator_c() {
  delete m;
}

void nnt_accumulator_c::set_prev(const metric_value_t &value) {
  if (value.is_null) return;
  m->last = value;
  m->last_value = metric_value_double(value);
  m->has_last = true;
}

void nnt_accumulator_c::add(const metric_value_t &value) {
  if (value.is_null || value.whence_ms - m->start_ms >= m->length_ms) return;
  if (m->sample_count && value.whence_ms < m->last.whence_ms) return;
  if (metric_to_nnt_type(value.type) == NNT_TYPE_NULL) krel_fatal("Unknown type: 0x%04x\n", value.type);
  if (value.whence_ms >= m->next_end_ms) m->turn(value);
  nnt_step_t step;
  if (!m->make_step(value, &step)) {
    m->fold_nan_rate(step.run);
    step.run = 0;
  }
  m->fold(m->lanes.data(), m->lanes.size(), step);
  m->last = value;
  m->has_last = true;
  m->sample_count++;
}

size_t nnt_accumulator_c::get_period_count() const {
  return m->periods.size();
}

std::span<const nnt_multitype> nnt_accumulator_c::get_cells(size_t period) {
  const period_t &p = m->periods[period];
  if (p.end_ms) m->write(period);
  return {p.cells.get(), p.cell_count};
}

nnt_accumulator_c::range_t nnt_accumulator_c::get_filled(size_t period) const {
  return m->periods[period].filled;
}

const metric_value_t *nnt_accumulator_c::get_last() const {
  return m->has_last ? &m->last : nullptr;
}

uint64_t nnt_accumulator_c::get_sample_count() const {
  return m->sample_count;
}

void nnt_accumulator_c::reset() {
  for (period_t &p : m->periods) {
    if (p.filled.end)
      memset(p.cells.get() + p.filled.begin, 0, (p.filled.end - p.filled.begin) * sizeof(nnt_multitype));
    p.filled = {0, 0};
    p.end_ms = 0;
  }
  m->next_end_ms = 0;
  m->sample_count = 0;
  m->has_last = m->has_rate = m->has_increase = false;
}
