#include "be/rollup/to_nnt.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "platform/krel/base/krel_log.h"

namespace velmar_be_rollup {

namespace {

using db::kv::ranged_c;

constexpr const char *TEMPORARY = "/var/tmp/rollup_to_nnt";

nnt_handle_up create_image(uint64_t epoch_s, uint32_t period_s) {
  const int fd = nnt_create_tmp(nullptr, TEMPORARY, epoch_s, period_s, 0600);
  if (fd < 0) return nullptr;
  char *error = nullptr;
  nnt_handle_up image(nnt_open_fd_sync(fd, false, &error));
  if (!image) krel_log(krel_error, "to_nnt reader: could not open temporary NNT file: %s\n", error);
  free(error);
  return image;
}

// A lone cell without data is a slot left alone.
bool put(nnt_handle *image, uint64_t start_ms, size_t count, const nnt_multitype *cells) {
  if (count == 0 || (count == 1 && cells->type == NNT_TYPE_ABSENT)) return true;
  return nnt_put_range(image, start_ms / 1000, count, cells) >= 0;
}

// Each cell of the run fills `multiple` slots, as far as they lie in the key's range.
bool put_expanded(nnt_handle *image, const ranged_c::key_c &key, const ranged_c::value_c &run,
                  uint64_t multiple) {
  std::vector<nnt_multitype> copies;
  for (uint64_t i = 0; i < run.m_count; i++) {
    const uint64_t cell_ms = run.m_beg + i * run.m_rollup_span;
    const uint64_t from = cell_ms < key.m_start ? (key.m_start - cell_ms) / key.m_rollup_span : 0;
    if (cell_ms >= key.m_end) break;
    const uint64_t to = std::min(multiple, (key.m_end - cell_ms) / key.m_rollup_span);
    if (from >= to) continue;
    copies.assign(to - from, run.m_value[i]);
    if (!put(image, cell_ms + from * key.m_rollup_span, copies.size(), copies.data())) return false;
  }
  return true;
}

bool put_run(nnt_handle *image, const ranged_c::key_c &key, const ranged_c::value_c &run) {
  if (run.m_rollup_span == key.m_rollup_span) return put(image, run.m_beg, run.m_count, run.m_value);
  if (run.m_rollup_span % key.m_rollup_span == 0)
    return put_expanded(image, key, run, run.m_rollup_span / key.m_rollup_span);
  krel_log(
      krel_error,
      "to_nnt reader: error generating temporary NNT file, value rollup (%li) is not an even multiple of key "
      "rollup (%li)\n",
      static_cast<long>(run.m_rollup_span), static_cast<long>(key.m_rollup_span));
  return false;
}

}  // namespace

const char *to_nnt_factory_c::error_text(error_e error) {
  switch (error) {
    case SUCCESS:
      return "No error.";
    case ERROR_ROLLUP_SPAN_UNITS:
      return "NNT-format output requires rollup-span in seconds units.";
    case ERROR_NNT_OPEN:
      return "Could not open temp .nnt file.";
    default:
      return "Internal error.";
  }
}

to_nnt_factory_c::result_t to_nnt_factory_c::from_ranged_reader(const ranged_c::key_c &key,
                                                                const db::kv::ranged_reader_c &reader) {
  result_t result;
  const auto fail = [&](error_e error) {
    krel_log(error == ERROR_ROLLUP_SPAN_UNITS ? krel_debug : krel_error, "to_nnt reader: %s\n",
             error_text(error));
    result.error = error;
    return std::move(result);
  };
  const uint64_t span_s = key.m_rollup_span / 1000;
  if (key.m_rollup_span % 1000 != 0 || span_s > UINT32_MAX) return fail(ERROR_ROLLUP_SPAN_UNITS);
  const nnt_handle_up image = create_image(key.m_start / 1000, static_cast<uint32_t>(span_s));
  if (!image) return fail(ERROR_NNT_OPEN);
  const db::kv::iter_synch_up iter = reader.find_synch(key);
  for (; iter->is_valid(); iter->next()) {
    result.has_run = true;
    if (!put_run(image.get(), key, iter->get_value())) return fail(ERROR_ERRNO);
  }
  if (iter->get_error().m_is_valid) {
    result.read_error = iter->get_error().m_code;
    return result;
  }
  result.view.reset(nnt_acquire_readfast(image.get()));
  if (!result.view) return fail(ERROR_ERRNO);
  result.error = SUCCESS;
  return result;
}

}  // namespace velmar_be_rollup
