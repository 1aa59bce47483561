#include "db/surrogate3/codec/decoder.h"

#include <algorithm>

#include "util/wyhash.h"

namespace db::surrogate3 {

metric_key_c::metric_key_c(const velmar_metric_locator_t *ml) {
  krel_assert(velmar_metric_locator_get_key(ml, _bytes, sizeof _bytes));
  _size = velmar_metric_locator_get_name_len_with_tags(ml) + EXTRA;
  _hash = util::wyhash(_bytes, _size);
}

oil_ptr oil_from_pairs(const std::vector<oil_interval_t> &pairs) {
  const auto before = [](const oil_interval_t &a, const oil_interval_t &b) { return a.first < b.first; };
  std::vector<oil_interval_t> sorted;
  const std::vector<oil_interval_t> *source = &pairs;
  if (!std::is_sorted(pairs.begin(), pairs.end(),
                      before)) {  // not as we write it: a put would cost a move each
    sorted = pairs;
    std::stable_sort(sorted.begin(), sorted.end(), before);
    source = &sorted;
  }
  oil_ptr list(oil_alloc_cap(static_cast<uint32_t>(source->size())));
  for (const oil_interval_t &pair : *source) oil_put(list.get(), pair.first, pair.last);
  return list;
}

}  // namespace db::surrogate3
