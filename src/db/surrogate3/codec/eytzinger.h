#pragma once
// Sorted ids laid out breadth first: position 0 is unused and holds 0, the children of k are 2k and 2k + 1.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace db::surrogate3 {

// visit(position, rank) for every position of a tree of `n` values, ranks ascending from 0.
template <typename F>
size_t for_each_eytzinger(size_t n, F &&visit, size_t rank = 0, size_t k = 1) {
  if (2 * k <= n) rank = for_each_eytzinger(n, visit, rank, 2 * k);
  if (k <= n) visit(k, rank++);
  if (2 * k + 1 <= n) rank = for_each_eytzinger(n, visit, rank, 2 * k + 1);
  return rank;
}

// `output` gets n + 1 positions for the n sorted values of `input`.
inline void make_eytzinger_binary_search_tree(const std::vector<uint64_t> &input,
                                              std::vector<uint64_t> *output) {
  output->assign(input.size() + 1, 0);
  for_each_eytzinger(input.size(), [&](size_t k, size_t rank) { (*output)[k] = input[rank]; });
}

// The position of `id`, 0 when it is not there. at(k) gives the value at k, 1 <= k <= n.
template <typename F>
size_t eytzinger_find(size_t n, uint64_t id, F &&at) {
  size_t k = 1;
  while (k <= n) k = 2 * k + (at(k) < id ? 1 : 0);
  k >>= std::countr_one(k) + 1;
  return k != 0 && at(k) == id ? k : 0;
}

}  // namespace db::surrogate3
