#include "load_verify.h"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "load_http.h"

namespace {

constexpr double HALF_OF_THE_LAST_DIGIT = 5.1e-7;  // the node writes doubles with six digits

// The text of one sample's value as the node writes it, from `[time,value],[time,value],...`.
class answer_reader_c {
 public:
  explicit answer_reader_c(const std::string &text) : m_text(text) {}
  // False at the end of the array.
  bool next(uint64_t *time, std::string *value) {
    const size_t open = m_text.find('[', m_at);
    if (open == m_text.npos) return false;
    char *end;
    *time = strtoull(m_text.c_str() + open + 1, &end, 10);
    if (*end != ',') return false;
    const size_t from = static_cast<size_t>(end - m_text.c_str()) + 1, close = m_text.find(']', from);
    if (close == m_text.npos) return false;
    value->assign(m_text, from, close - from);
    m_at = close + 1;
    return true;
  }

 private:
  const std::string &m_text;
  size_t m_at = 1;  // behind the array's own bracket
};

std::string histogram_text(const load_value_t &value) {
  std::string text = "{";
  char bin[64];
  for (int i = 0; i < value.bin_count; i++) {
    const load_bin_t &b = value.bins[i];
    snprintf(bin, sizeof(bin), "%s\"%+03de%+04d\":%llu", i ? "," : "", b.val, b.exp - 1,
             static_cast<unsigned long long>(b.count));
    text += bin;
  }
  return text + "}";
}

bool matches(const load_value_t &value, const std::string &got) {
  if (value.is_null) return got == "null";
  if (value.kind == kind_e::histogram) return got == histogram_text(value);
  if (value.kind == kind_e::counter || value.kind == kind_e::integer) {
    // the node writes a series of signed and unsigned numbers as doubles
    const std::string text = std::to_string(value.integer);
    return got == text || got == text + ".000000";
  }
  char *end;
  const double read = strtod(got.c_str(), &end);
  const double sent = value.kind == kind_e::real ? value.real : static_cast<double>(value.integer) / 100;
  return !*end && end != got.c_str() && std::fabs(read - sent) <= HALF_OF_THE_LAST_DIGIT;
}

class verifier_c {
 public:
  verifier_c(const load_options_t &options, const load_data_c &data, const load_sender_c &sent)
      : m_options(options), m_data(data), m_sent(sent), m_client(options.host, options.port) {}
  void metric(uint64_t series);
  verify_result_t result;

 private:
  void compare(uint64_t series, const std::string &name, const std::string &body);
  void differs(const std::string &what) {
    if (result.first_difference.empty()) result.first_difference = what;
  }

  const load_options_t &m_options;
  const load_data_c &m_data;
  const load_sender_c &m_sent;
  http_client_c m_client;
};

void verifier_c::metric(uint64_t series) {
  const bool is_histogram = m_data.kind(series) == kind_e::histogram;
  const std::string name = m_data.metric_name(series);
  const uint64_t end_ms = m_data.time_ms(m_options.steps - 1) + 1;
  char range[96];
  snprintf(range, sizeof(range), "?start_ts=%llu.%03llu&end_ts=%llu.%03llu",
           static_cast<unsigned long long>(m_options.start_ms / 1000),
           static_cast<unsigned long long>(m_options.start_ms % 1000),
           static_cast<unsigned long long>(end_ms / 1000), static_cast<unsigned long long>(end_ms % 1000));
  const std::string path = std::string(is_histogram ? "/histogram_raw/" : "/raw/") + m_data.uuid(series) + "/" +
                           url_escape(name) + range;
  http_answer_t answer;
  result.metrics++;
  if (m_client.request("GET " + path + " HTTP/1.1\r\n", "", &answer) && answer.status == 200)
    return compare(series, name, answer.body);
  result.failed_reads++;
  differs(name + ": " + (answer.status ? std::to_string(answer.status) + " " + answer.body : m_client.error()));
}

void verifier_c::compare(uint64_t series, const std::string &name, const std::string &body) {
  const bool is_histogram = m_data.kind(series) == kind_e::histogram;
  answer_reader_c reader(body);
  uint64_t time = 0;
  std::string text;
  bool more = reader.next(&time, &text);
  load_value_t value;
  for (uint64_t step = 0; step < m_options.steps; step++) {
    const uint64_t at = m_data.time_ms(step) / (is_histogram ? 1000 : 1);
    while (more && time < at) more = reader.next(&time, &text);
    const bool there = more && time == at;
    if (m_sent.was_acknowledged(series, step)) {
      result.samples++;
      m_data.value(series, step, &value);
      if (!there) {
        result.lost++;
        differs(name + " at " + std::to_string(at) + ": lost");
      } else if (!matches(value, text)) {
        result.wrong++;
        differs(name + " at " + std::to_string(at) + ": read back as " + text);
      }
    }
    if (there) more = reader.next(&time, &text);
  }
}

}  // namespace

verify_result_t verify(const load_options_t &options, const load_data_c &data, const load_sender_c &sent,
                       void (*progress)(uint64_t done, uint64_t of)) {
  const double begin = clock_s();
  std::vector<uint64_t> chosen;
  for (uint64_t s = 0; s < options.series; s++)
    if (static_cast<double>(data.lot(s) >> 11) < options.verify * 9007199254740992.0) chosen.push_back(s);
  if (chosen.empty()) chosen.push_back(0);
  std::atomic<size_t> next{0};
  std::vector<std::unique_ptr<verifier_c>> verifiers;
  for (uint32_t c = 0; c < options.connections; c++)
    verifiers.push_back(std::make_unique<verifier_c>(options, data, sent));
  const auto work = [&](uint32_t c) {
    double shown = clock_s();
    for (size_t i; (i = next++) < chosen.size();) {
      verifiers[c]->metric(chosen[i]);
      if (c == 0 && clock_s() - shown > 0.5) {
        shown = clock_s();
        progress(i, chosen.size());
      }
    }
  };
  std::vector<std::thread> threads;
  for (uint32_t c = 1; c < options.connections; c++) threads.emplace_back(work, c);
  work(0);
  for (std::thread &t : threads) t.join();
  verify_result_t sum;
  for (const auto &v : verifiers) {
    sum.metrics += v->result.metrics;
    sum.samples += v->result.samples;
    sum.lost += v->result.lost;
    sum.wrong += v->result.wrong;
    sum.failed_reads += v->result.failed_reads;
    if (sum.first_difference.empty()) sum.first_difference = v->result.first_difference;
  }
  sum.seconds = clock_s() - begin;
  return sum;
}
