#pragma once
// Sends the data set: a thread per connection, each with metrics of its own, so that the samples of a metric
// arrive in order. A request that fails is not sent again; its samples do not count as acknowledged.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "load_data.h"

// What one connection did; read it once the thread has ended, the atomics at any time.
struct connection_result_t {
  uint64_t first_series = 0, series = 0;
  std::atomic<uint64_t> acknowledged{0}, failed_requests{0};
  uint64_t bytes = 0, misdirected = 0, discarded = 0, refused = 0;  // refused: counted as errors by the node
  std::vector<uint32_t> latencies_us;
  std::vector<uint64_t> failed_batches;  // ascending
  std::string first_error;
};

class load_sender_c {
 public:
  load_sender_c(const load_options_t &options, const load_data_c &data);
  // Sends everything; `progress` runs now and then on the calling thread.
  void run(void (*progress)(const load_sender_c &));

  uint64_t acknowledged() const;
  uint64_t failed_requests() const;
  double seconds() const { return m_seconds; }
  const std::vector<std::unique_ptr<connection_result_t>> &results() const { return m_results; }
  // Was this sample in a request that was acknowledged?
  bool was_acknowledged(uint64_t series, uint64_t step) const;

 private:
  void send(connection_result_t *result);
  bool send_batch(class load_link_c *link, class load_encoder_c *encoder, uint64_t from, uint64_t count,
                  double due, connection_result_t *result);
  uint64_t batch_of(const connection_result_t &result, uint64_t series, uint64_t step) const;

  const load_options_t &m_options;
  const load_data_c &m_data;
  std::vector<std::unique_ptr<connection_result_t>> m_results;
  std::atomic<uint32_t> m_running{0};
  double m_begin = 0, m_seconds = 0;
};

// Seconds of a clock that only goes forward.
double clock_s();
void sleep_until(double when);
