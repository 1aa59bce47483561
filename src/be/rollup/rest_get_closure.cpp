#include "be/rollup/rest_get_closure.h"

#include <algorithm>
#include <cstdlib>

#include "be/raw/find_metric.h"
#include "be/rollup/rollup_json.h"
#include "be/rollup/to_nnt.h"

namespace velmar_be_rollup {

namespace {

constexpr size_t STREAM_BYTES = 256 * 1024;  // an answer that grows larger is sent as it is made
constexpr uint64_t CELLS_AT_ONCE = 512;
constexpr size_t CELL_BYTES = 28;  // of a usual item
constexpr size_t FIRST_RESERVE = 64 * 1024;

}  // namespace

void rest_get_closure_c::work() {
  metric_locator_sp &locator = m_search_key.m_metric_locator;
  if (!m_params.m_ranged_reader) return fail("not configured to store raw numeric data");
  if (!velmar_metric_locator_get_surrogate_id(locator.get()))
    if (metric_locator_sp stored = be::raw::find_canonical_metric(locator)) locator = std::move(stored);
  if (m_params.m_get_metadata) search_metadata();
  if (m_data_type == data_type_e::json)
    build_json();
  else
    build_nnt();
}

void rest_get_closure_c::search_metadata() {
  if (const auto epoch = m_params.m_ranged_reader->get_epoch(m_search_key)) set_epoch(*epoch);
  if (const auto apocalypse = m_params.m_ranged_reader->get_apocalypse(m_search_key))
    set_apocalypse(*apocalypse);
}

// ---- JSON

void rest_get_closure_c::build_json() {
  const db::kv::iter_synch_up iter = m_params.m_ranged_reader->find_synch(m_search_key);
  m_payload.buffer.reserve(std::min(FIRST_RESERVE, m_params.get_cell_count() * CELL_BYTES + 2));
  m_payload.buffer += '[';
  for (; iter->is_valid(); iter->next())
    if (!send_run(iter->get_value())) return;  // the client is gone
  if (iter->get_error().m_is_valid) {
    m_broken = m_streams;
    return fail(iter->get_error().m_code);
  }
  m_payload.buffer += ']';
  if (m_streams) {
    flush();
    return;
  }
  start_answer(JSON_TYPE);
  krel_http_response_option_set(m_session, KREL_HTTP_COMPRESS);
  krel_http_response_append(m_session, m_payload.buffer.data(), m_payload.buffer.size());
}

bool rest_get_closure_c::send_run(const db::kv::ranged_c::value_c &run) {
  for (uint64_t i = 0; i < run.m_count; i += CELLS_AT_ONCE) {
    db::kv::ranged_c::value_c part = run;
    part.m_beg += i * run.m_rollup_span;
    part.m_value += i;
    part.m_count = std::min(CELLS_AT_ONCE, run.m_count - i);
    build_json_output(part, m_params.m_type, &m_has_items, &m_payload.buffer);
    if (m_payload.buffer.size() >= STREAM_BYTES && !flush()) return false;
  }
  return true;
}

bool rest_get_closure_c::flush() {
  if (!m_streams) {
    m_streams = true;
    start_answer(JSON_TYPE);
    krel_http_response_option_set(m_session, KREL_HTTP_COMPRESS);
    krel_http_response_option_set(m_session, KREL_HTTP_CHUNKED);
  }
  return rest_flush_http_buffer(&m_payload) == 0;
}

// ---- NNT

void rest_get_closure_c::build_nnt() {
  const auto image = to_nnt_factory_c::from_ranged_reader(m_search_key, *m_params.m_ranged_reader);
  if (image.read_error == db::kv::code_e::NO_SUCH_ROLLUP) return fail(image.read_error);
  if (!image.view) return fail("failed to build .nnt file");
  nnt_range_raw_data range;
  if (nnt_get_raw_range(image.view.get(), m_params.m_start / 1000, m_params.get_cell_count(), &range) != 0)
    return fail("failed to build .nnt file");
  const std::unique_ptr<nnt_hdr, decltype(&free)> header(range.new_hdr, free);
  start_answer(NNT_TYPE);
  krel_http_response_option_set(m_session, KREL_HTTP_COMPRESS);
  if (image.has_run) krel_http_response_append(m_session, header.get(), sizeof(nnt_hdr));
  if (range.data_size) krel_http_response_append(m_session, range.data, static_cast<size_t>(range.data_size));
}

}  // namespace velmar_be_rollup
