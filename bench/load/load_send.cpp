#include "load_send.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "load_encode.h"
#include "load_link.h"

namespace {

constexpr int GIVE_UP_AFTER = 20;  // failed requests in a row
constexpr double RETRY_S = 0.1, PROGRESS_S = 0.5;

}  // namespace

void sleep_until(double when) {
  const double left = when - clock_s();
  if (left <= 0) return;
  const timespec t{static_cast<time_t>(left), static_cast<long>((left - std::floor(left)) * 1e9)};
  nanosleep(&t, nullptr);
}

double clock_s() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

load_sender_c::load_sender_c(const load_options_t &options, const load_data_c &data)
    : m_options(options), m_data(data) {
  for (uint64_t c = 0; c < options.connections; c++) {
    m_results.push_back(std::make_unique<connection_result_t>());
    m_results.back()->first_series = options.series * c / options.connections;
    m_results.back()->series = options.series * (c + 1) / options.connections - m_results.back()->first_series;
  }
}

// A connection's samples in the order they are sent: blocks of `per_metric` steps, within a block series by
// series. The batch that a sample is in follows from its place.
uint64_t load_sender_c::batch_of(const connection_result_t &result, uint64_t series, uint64_t step) const {
  const uint64_t k = m_options.per_metric;
  const uint64_t place = (step / k * result.series + series - result.first_series) * k + step % k;
  return place / m_options.batch;
}

bool load_sender_c::was_acknowledged(uint64_t series, uint64_t step) const {
  for (const auto &r : m_results)
    if (series >= r->first_series && series < r->first_series + r->series)
      return !std::binary_search(r->failed_batches.begin(), r->failed_batches.end(),
                                 batch_of(*r, series, step));
  return false;
}

bool load_sender_c::send_batch(load_link_c *link, load_encoder_c *encoder, uint64_t from, uint64_t count,
                               double due, connection_result_t *result) {
  const uint64_t k = m_options.per_metric;
  encoder->begin();
  for (uint64_t at = from; at < from + count;) {
    const uint64_t in_run = at % k, run = std::min(k - in_run, from + count - at);
    const uint64_t pair = at / k;
    encoder->add(result->first_series + pair % result->series, pair / result->series * k + in_run, run);
    at += run;
  }
  const std::string_view body = encoder->end();
  const double begin = due > 0 ? due : clock_s();
  const bool ok = link->send(body, count, result);
  result->latencies_us.push_back(static_cast<uint32_t>(std::min((clock_s() - begin) * 1e6, 4e9)));
  result->bytes += body.size();
  return ok;
}

void load_sender_c::send(connection_result_t *result) {
  const auto encoder = make_encoder(m_options.form, m_data, result->first_series, result->series);
  const auto link = make_link(m_options, m_data, *result, encoder->content_type());
  const uint64_t total = result->series * m_options.steps;
  const double own_rate =
      m_options.rate * static_cast<double>(result->series) / static_cast<double>(m_options.series);
  // connections take turns, as clients that know nothing of each other would
  const double turn = static_cast<double>(result->first_series) / static_cast<double>(m_options.series);
  int failed_in_a_row = 0;
  for (uint64_t from = 0, batch = 0; from < total; from += m_options.batch, batch++) {
    const uint64_t count = std::min(m_options.batch, total - from);
    const double due =
        own_rate > 0
            ? m_begin + (static_cast<double>(from) + turn * static_cast<double>(m_options.batch)) / own_rate
            : 0;
    sleep_until(due);
    if (send_batch(link.get(), encoder.get(), from, count, due, result)) {
      failed_in_a_row = 0;
      continue;
    }
    result->failed_requests++;
    result->failed_batches.push_back(batch);
    if (++failed_in_a_row < GIVE_UP_AFTER) {
      sleep_until(clock_s() + RETRY_S);
      continue;
    }
    while ((from += m_options.batch) < total) result->failed_batches.push_back(++batch);
  }
  if (!link->finish(result)) {
    result->failed_requests++;
    result->acknowledged = 0;
    result->failed_batches.clear();
    for (uint64_t batch = 0; batch * m_options.batch < total; batch++) result->failed_batches.push_back(batch);
  }
  m_running--;
}

void load_sender_c::run(void (*progress)(const load_sender_c &)) {
  m_begin = clock_s();
  m_running = m_options.connections;
  std::vector<std::thread> threads;
  for (const auto &result : m_results) threads.emplace_back([this, r = result.get()] { send(r); });
  for (double next = PROGRESS_S; m_running > 0;) {
    sleep_until(clock_s() + 0.005);
    m_seconds = clock_s() - m_begin;
    if (m_seconds < next) continue;
    progress(*this);
    next = m_seconds + PROGRESS_S;
  }
  for (std::thread &t : threads) t.join();
}

uint64_t load_sender_c::acknowledged() const {
  uint64_t sum = 0;
  for (const auto &r : m_results) sum += r->acknowledged;
  return sum;
}

uint64_t load_sender_c::failed_requests() const {
  uint64_t sum = 0;
  for (const auto &r : m_results) sum += r->failed_requests;
  return sum;
}
