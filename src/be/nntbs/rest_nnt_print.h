#pragma once
// Rollup cells as JSON.

#include <cstddef>
#include <cstdint>

#include "be/nntbs/nnt_multitype_part.h"
#include "libvelmar/nnt/nnt_multitype.h"

// Cells of a finer period, from one before the first answer cell on: what second order values are made of.
struct nnt_part_t {
  const nnt_multitype *v;
  int32_t count;
  int32_t collapse;  // of them to an answer cell
  int32_t period_ms;
};

struct second_order_derivative_t {
  float derivative, counter, derivative_stddev, counter_stddev;
};

constexpr size_t REST_NNT_CELL_MAX = 2176;  // what a cell's text needs at most

// Writes one part of a cell, unterminated, and returns its length; the buffer has room for REST_NNT_CELL_MAX
// bytes. Null for a cell without data. Numbers as by "%.20g" and for integers in full; what is not finite is
// null. part and location give second order values, which are null without them: the finer cells and the answer
// cell's index; offset_ms is its time.
int rest_nnt_print_to_buffer(nnt_multitype_part type, char *buffer, size_t buf_size, const nnt_multitype *v,
                             uint64_t offset_ms, uint64_t period_ms, const nnt_part_t *part, int location);

// Changes of the rates between the finer cells of answer cell `start`: means weighted by time, 0 when there are
// none; the deviations need two changes and otherwise stay as they are. offset_ms: time of the answer cell.
void rest_nnt_get_second_order(second_order_derivative_t *second_order, const nnt_part_t *part,
                               uint64_t offset_ms, int start);
