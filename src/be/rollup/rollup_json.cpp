#include "be/rollup/rollup_json.h"

#include "be/nntbs/print_number.h"
#include "be/nntbs/rest_nnt_print.h"

namespace velmar_be_rollup {

void build_json_output(const db::kv::ranged_c::value_c &run, nnt_multitype_part type, bool *has_items,
                       std::string *payload) {
  char item[REST_NNT_CELL_MAX + 2 * PRINT_NUMBER_MAX];
  for (uint64_t i = 0; i < run.m_count; i++) {
    const uint64_t ms = run.m_beg + i * run.m_rollup_span;
    char *end = item;
    if (*has_items) *end++ = ',';
    *has_items = true;
    *end++ = '[';
    end = print_uint64(end, ms / 1000);
    if (const uint64_t fraction = ms % 1000) {
      *end++ = '.';
      end = print_padded(end, fraction, 3);
    }
    *end++ = ',';
    end += rest_nnt_print_to_buffer(type, end, REST_NNT_CELL_MAX, &run.m_value[i], ms, run.m_rollup_span,
                                    nullptr, static_cast<int>(i));
    *end++ = ']';
    payload->append(item, static_cast<size_t>(end - item));
  }
}

}  // namespace velmar_be_rollup
