#include "be/rollup/rollup_fetcher.h"

#include <fmt/format.h>

#include <cstdlib>

#include "be/common/proxied_read.h"
#include "be/rollup/rest_closure.h"
#include "be/rollup/to_nnt.h"
#include "libvelmar/util/tolv_proxy_buffer.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace velmar_be_rollup {

namespace {

class read_rollup_local_c final : public rollup_fetcher_c {
 public:
  explicit read_rollup_local_c(const db::kv::ranged_reader_c *reader) : m_reader(reader) {}
  fetched_window_t fetch(const rollup_window_t &window, int) override;

 private:
  const db::kv::ranged_reader_c *const m_reader;
};

fetched_window_t read_rollup_local_c::fetch(const rollup_window_t &window, int) {
  db::kv::ranged_c::key_c key;
  key.m_metric_locator = window.metric_locator;
  key.m_start = window.start_s * 1000;
  key.m_end = window.end_s * 1000;
  key.m_rollup_span = uint64_t{window.period_s} * 1000;
  key.m_is_valid = true;
  auto image = to_nnt_factory_c::from_ranged_reader(key, *m_reader);
  fetched_window_t result;
  result.ok = image.view != nullptr;
  if (image.has_run) result.view = std::move(image.view);
  if (const auto epoch = m_reader->get_epoch(key)) result.original_epoch = *epoch / 1000;
  if (const auto last = m_reader->get_apocalypse(key)) result.original_last = *last / 1000;
  return result;
}

class read_rollup_remote_c final : public rollup_fetcher_c {
 public:
  fetched_window_t fetch(const rollup_window_t &window, int timeout_ms) override;

 private:
  static void open_view(tolv_proxy_buffer_t *answer, fetched_window_t *result);
};

void read_rollup_remote_c::open_view(tolv_proxy_buffer_t *answer, fetched_window_t *result) {
  result->ok = true;
  if (!answer->has_valid_fd()) return;  // an empty answer: no data
  result->ok = false;
  char *error = nullptr;
  const nnt_handle_up image(nnt_open_fd_sync(answer->transfer_fd_ownership(), false, &error));
  if (error) {
    krel_log(krel_error, "read_rollup_remote failed to open NNT file: %s\n", error);
    free(error);
  } else if (!image) {
    krel_log(krel_error, "read_rollup_remote failed to open NNT file: no error reported, but got no handle\n");
  } else {
    result->view.reset(nnt_acquire_readfast(image.get()));
    result->ok = result->view != nullptr;
    if (!result->ok) krel_log(krel_error, "read_rollup_remote failed to open readfast\n");
  }
}

fetched_window_t read_rollup_remote_c::fetch(const rollup_window_t &window, int timeout_ms) {
  fetched_window_t result;
  const velmar_metric_locator_t *locator = window.metric_locator.get();
  const host_config *host = velmar_be_common::pick_best_system(locator);
  if (!host) {
    krel_log(krel_error, "in proxy: could not locate metric %s on cluster\n",
             velmar_metric_locator_get_name_with_tags(locator));
    return result;
  }
  peer_request_t request = velmar_be_common::make_read(
      host, "rollup", locator,
      fmt::format("start_ts={}&end_ts={}&rollup_span={}s&type=all&get_metadata=true", window.start_s,
                  window.end_s, window.period_s));
  request.headers.push_back(fmt::format("Accept: {}; q=1.0", NNT_TYPE));
  request.headers.emplace_back("X-Velmar-Ephemeral: 1");
  request.timeout_ms = timeout_ms;
  const std::string url = request.url;
  tolv_proxy_buffer_t answer;
  const bool ok = answer.perform("read_rollup_remote", std::move(request),
                                 [&result](std::string_view name, std::string_view value) {
                                   uint64_t ms;
                                   if (name == "x-nnt-original-epoch-ms" && krel_parse_uint64(value, &ms))
                                     result.original_epoch = ms / 1000;
                                   if (name == "x-nnt-original-apocalypse-ms" && krel_parse_uint64(value, &ms))
                                     result.original_last = ms / 1000;
                                 });
  krel_log(krel_debug, "fetching \"%s\": curl result %d; code: %d; have_mask: %d\n", url.c_str(), ok ? 0 : 1,
           static_cast<int>(answer.get_httpcode()),
           (result.original_epoch ? 1 : 0) | (result.original_last ? 2 : 0));
  if (ok) open_view(&answer, &result);
  return result;
}

}  // namespace

std::unique_ptr<rollup_fetcher_c> make_read_rollup_local(const db::kv::ranged_reader_c *reader) {
  return std::make_unique<read_rollup_local_c>(reader);
}

std::unique_ptr<rollup_fetcher_c> make_read_rollup_remote() {
  return std::make_unique<read_rollup_remote_c>();
}

}  // namespace velmar_be_rollup
