#pragma once
// A stable sort that costs little where the input already consists of few ascending runs.

#include <algorithm>
#include <vector>

namespace db::surrogate3 {

template <typename T, typename Less>
void natural_merge_sort(std::vector<T> *values, Less less) {
  std::vector<size_t> ends;  // of the runs
  for (size_t i = 1; i < values->size(); ++i)
    if (less((*values)[i], (*values)[i - 1])) ends.push_back(i);
  ends.push_back(values->size());
  if (ends.size() > values->size() / 16) {  // no runs to speak of
    std::stable_sort(values->begin(), values->end(), less);
    return;
  }
  std::vector<T> merged(ends.size() > 1 ? values->size() : 0);
  while (ends.size() > 1) {
    std::vector<size_t> merged_ends;
    size_t begin = 0;
    for (size_t i = 0; i < ends.size(); i += 2) {
      const size_t middle = ends[i], end = i + 1 < ends.size() ? ends[i + 1] : middle;
      const auto at = [&](size_t offset) { return values->begin() + static_cast<ptrdiff_t>(offset); };
      std::merge(at(begin), at(middle), at(middle), at(end), merged.begin() + static_cast<ptrdiff_t>(begin),
                 less);
      merged_ends.push_back(end);
      begin = end;
    }
    values->swap(merged);
    ends.swap(merged_ends);
  }
}

}  // namespace db::surrogate3
