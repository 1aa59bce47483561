// Any lines as a merge from a peer: each one is a sample, a metric's name, an error or empty, and nothing is
// counted twice.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "be/raw/raw_merge_parse.h"
#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "util/metric_db_record.h"

// This node alone owns everything.
static bool be_the_owner() {
  krel_log_stream_switch("error", false);
  topo_init_globals();
  std::string error;
  auto topology = topo_compile_text(
      "<nodes write_copies=\"1\"><node id=\"11111111-1111-4111-8111-111111111111\" address=\"127.0.0.1\" "
      "port=\"1\" apiport=\"1\" weight=\"10\"/></nodes>",
      nullptr, &error);
  topo_uuid_t me;
  me.fill(0x11);
  me[6] = 0x41;
  me[8] = 0x81;
  topo_initialize(topo_retain(std::move(topology)), nullptr, me);
  topo_set_node(me);
  return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace be::raw;
  static const bool owner = be_the_owner();
  (void)owner;
  static known_metrics_c known;
  std::string text(reinterpret_cast<const char *>(data), size);
  text += '\n';
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  raw_put_request_t *request = raw_put_request_t::create(nullptr);
  {
    const krel_memory_section_c section;
    raw_batch_t batch;
    std::vector<metric_locator_sp> named;
    if (!rest_raw_mgr_reconstitute_metrics_parse(request, &known, text.data(), text.size(), lines, &batch,
                                                 &named))
      abort();
    if (request->counters.processed != lines || request->counters.noti != 0 ||
        batch.size() + named.size() + request->counters.errors > lines)
      abort();
    for (const metric_locator_sp &locator : named)
      if (velmar_metric_locator_get_name_len_with_tags(locator.get()) == 0) abort();
  }
  libvelmar_join_commit(request->joiner);
  request->let_go();
  return 0;
}
