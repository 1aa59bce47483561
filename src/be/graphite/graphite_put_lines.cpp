#include "be/graphite/graphite_put_lines.h"

#include <algorithm>
#include <memory>

#include "be/raw/raw_put_budget.h"
#include "be/raw/raw_put_request.h"
#include "be/raw/raw_put_write.h"
#include "platform/krel/event/krelev.h"

namespace be::graphite {

namespace {

constexpr int64_t NEVER_STALE_MS = int64_t{365} * 86400 * 1000;

// From the loop to the last sample's store.
struct lines_t {
  source_t source;
  std::string text;
  size_t charge;
  std::function<void(const atomic_counters_t &)> done;

  void parse(raw::raw_put_request_t *request) {
    raw::raw_batch_t batch;
    const auto count = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    rest_graphite_mgr_parse_ingestion_data(source, &request->counters, &raw::raw_mgr().known, text.data(),
                                           text.size(), count, &batch);
    text = {};
    raw_mgr_process_batch(request, request->joiner, std::move(batch));
    libvelmar_join_commit(request->joiner);
  }
  void stored(const raw::raw_put_request_t *request) const {
    raw::raw_put_budget().give_back(charge);
    done(request->counters);
  }
};

}  // namespace

void put_lines(const source_t &source, std::string text, std::function<void(const atomic_counters_t &)> done) {
  const size_t charge = text.size();
  auto lines = std::make_shared<lines_t>(lines_t{source, std::move(text), charge, std::move(done)});
  raw::raw_put_request_t *request =
      raw::raw_put_request_t::create([lines](raw::raw_put_request_t *r) { lines->stored(r); });
  request->set_stale_time_out(NEVER_STALE_MS);
  raw::ingestion_gate_mgr_c::count_start();
  // leaves the loop, reaches a thread of the parse queue
  krelev_jobq_run(raw::raw_mgr().parse_jobq, [lines, request] { lines->parse(request); });
  request->let_go();
}

}  // namespace be::graphite
