// velmar-load: sends a stated data set to a node and says what it cost.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "load_node.h"
#include "load_options.h"
#include "load_send.h"
#include "load_sink.h"
#include "load_verify.h"

namespace {

const load_options_t *options;  // for the progress lines

struct report_t {
  double seconds = 0, own_cpu_s = 0, node_cpu_s = 0;
  uint64_t acknowledged = 0, failed_requests = 0, refused = 0, misdirected = 0, discarded = 0, body_bytes = 0,
           requests = 0, peak_bytes = 0, disk_before = 0, disk_after = 0;
  double p50_ms = 0, p90_ms = 0, p99_ms = 0, max_ms = 0;
  std::string first_error;

  double per_sample(double value) const { return acknowledged ? value / static_cast<double>(acknowledged) : 0; }
};

double own_cpu_seconds() {
  rusage r{};
  getrusage(RUSAGE_SELF, &r);
  const auto seconds = [](const timeval &t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(r.ru_utime) + seconds(r.ru_stime);
}

void show_sending(const load_sender_c &sender) {
  if (!isatty(STDERR_FILENO)) return;
  const auto done = static_cast<double>(sender.acknowledged()), all = static_cast<double>(options->samples());
  fprintf(stderr, "\r%5.1f %%  %.0f samples/s  %llu failed requests ", 100 * done / all,
          done / sender.seconds(), static_cast<unsigned long long>(sender.failed_requests()));
}

void show_verifying(uint64_t done, uint64_t of) {
  if (isatty(STDERR_FILENO))
    fprintf(stderr, "\rread back %llu of %llu metrics ", static_cast<unsigned long long>(done),
            static_cast<unsigned long long>(of));
}

report_t summarise(const load_sender_c &sender) {
  report_t r;
  std::vector<uint32_t> latencies;
  for (const auto &c : sender.results()) {
    latencies.insert(latencies.end(), c->latencies_us.begin(), c->latencies_us.end());
    r.refused += c->refused;
    r.misdirected += c->misdirected;
    r.discarded += c->discarded;
    r.body_bytes += c->bytes;
    if (r.first_error.empty()) r.first_error = c->first_error;
  }
  std::sort(latencies.begin(), latencies.end());
  const auto quantile = [&](double q) {
    if (latencies.empty()) return 0.0;
    return latencies[std::min(latencies.size() - 1,
                              static_cast<size_t>(q * static_cast<double>(latencies.size())))] /
           1e3;
  };
  r.requests = latencies.size();
  r.p50_ms = quantile(0.5);
  r.p90_ms = quantile(0.9);
  r.p99_ms = quantile(0.99);
  r.max_ms = quantile(1);
  r.seconds = sender.seconds();
  r.acknowledged = sender.acknowledged();
  r.failed_requests = sender.failed_requests();
  return r;
}

std::string json_quote(const std::string &text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += static_cast<unsigned char>(c) < 32 ? ' ' : c;
  }
  return out + "\"";
}

void print_json(const load_options_t &o, const report_t &r, const verify_result_t &v) {
  const auto u = [](uint64_t n) { return static_cast<unsigned long long>(n); };
  printf(
      "{\"form\":\"%s\",\"series\":%llu,\"steps\":%llu,\"tags\":%u,\"seed\":%llu,\"start\":%.3f,\"batch\":%llu,"
      "\"per_metric\":%llu,\"connections\":%u,\"rate\":%.1f,\"seconds\":%.3f,\"samples\":%llu,"
      "\"acknowledged\":%llu,\"samples_per_second\":%.0f,\"requests\":%llu,\"failed_requests\":%llu,"
      "\"refused\":%llu,\"misdirected\":%llu,\"discarded\":%llu,\"p50_ms\":%.3f,\"p90_ms\":%.3f,\"p99_ms\":%."
      "3f,"
      "\"max_ms\":%.3f,\"body_bytes_per_sample\":%.2f,\"own_cpu_us_per_sample\":%.4f",
      form_name(o.form), u(o.series), u(o.steps), o.tags, u(o.seed), static_cast<double>(o.start_ms) / 1000,
      u(o.batch), u(o.per_metric), o.connections, o.rate, r.seconds, u(o.samples()), u(r.acknowledged),
      static_cast<double>(r.acknowledged) / r.seconds, u(r.requests), u(r.failed_requests), u(r.refused),
      u(r.misdirected), u(r.discarded), r.p50_ms, r.p90_ms, r.p99_ms, r.max_ms,
      r.per_sample(static_cast<double>(r.body_bytes)), r.per_sample(r.own_cpu_s * 1e6));
  if (o.pid)
    printf(",\"node_cpu_us_per_sample\":%.4f,\"node_peak_bytes\":%llu", r.per_sample(r.node_cpu_s * 1e6),
           u(r.peak_bytes));
  if (!o.data_dir.empty())
    printf(",\"disk_bytes\":%llu,\"disk_bytes_per_sample\":%.3f", u(r.disk_after),
           r.per_sample(static_cast<double>(r.disk_after) - static_cast<double>(r.disk_before)));
  if (o.verify > 0)
    printf(
        ",\"verified_metrics\":%llu,\"verified_samples\":%llu,\"lost\":%llu,\"wrong\":%llu,\"failed_reads\":%"
        "llu,"
        "\"verify_seconds\":%.3f,\"first_difference\":%s",
        u(v.metrics), u(v.samples), u(v.lost), u(v.wrong), u(v.failed_reads), v.seconds,
        json_quote(v.first_difference).c_str());
  printf(",\"first_error\":%s}\n", json_quote(r.first_error).c_str());
}

void print_text(const load_options_t &o, const report_t &r, const verify_result_t &v) {
  const auto u = [](uint64_t n) { return static_cast<unsigned long long>(n); };
  printf("data set      %llu series, %u tags, %llu steps of %.3f s from %.3f, seed %llu, mix", u(o.series),
         o.tags, u(o.steps), static_cast<double>(o.step_ms) / 1000, static_cast<double>(o.start_ms) / 1000,
         u(o.seed));
  for (int k = 0; k < KINDS; k++)
    if (o.shares[k]) printf(" %s=%u", kind_name(k), o.shares[k]);
  printf("\nsent as       %s, %llu samples a request, %llu of a metric at a time, %u connections, %s\n",
         form_name(o.form), u(o.batch), u(o.per_metric), o.connections,
         o.rate > 0 ? "at a limited rate" : "flat out");
  printf("acknowledged  %llu of %llu samples in %.3f s: %.0f samples/s\n", u(r.acknowledged), u(o.samples()),
         r.seconds, static_cast<double>(r.acknowledged) / r.seconds);
  printf("latency       p50 %.3f ms, p90 %.3f ms, p99 %.3f ms, max %.3f ms of %llu requests\n", r.p50_ms,
         r.p90_ms, r.p99_ms, r.max_ms, u(r.requests));
  if (o.pid)
    printf("node          %.3f CPU s per million samples, peak memory %.1f MB\n",
           r.per_sample(r.node_cpu_s * 1e6), static_cast<double>(r.peak_bytes) / 1e6);
  if (!o.data_dir.empty())
    printf("disk          %.2f bytes per sample, %.1f MB in all\n",
           r.per_sample(static_cast<double>(r.disk_after) - static_cast<double>(r.disk_before)),
           static_cast<double>(r.disk_after) / 1e6);
  printf("this program  %.3f CPU s per million samples, %.1f bytes of body per sample\n",
         r.per_sample(r.own_cpu_s * 1e6), r.per_sample(static_cast<double>(r.body_bytes)));
  if (r.failed_requests || r.refused)
    printf("FAILED        %llu requests, %llu samples refused; the first: %s\n", u(r.failed_requests),
           u(r.refused), r.first_error.c_str());
  if (o.verify > 0)
    printf(
        "%s      %llu metrics, %llu samples read back in %.1f s: %llu lost, %llu wrong, %llu reads "
        "failed%s%s\n",
        v.good() ? "verified" : "DIFFERS ", u(v.metrics), u(v.samples), v.seconds, u(v.lost), u(v.wrong),
        u(v.failed_reads), v.good() ? "" : "; the first: ", v.first_difference.c_str());
}

}  // namespace

int main(int argc, char **argv) {
  load_options_t o;
  if (const auto status = parse_options(argc, argv, &o)) return *status;
  if (o.sink_port) return run_sink(o.sink_port);
  options = &o;
  const load_data_c data(o);
  load_sender_c sender(o, data);
  const uint64_t disk_before = o.data_dir.empty() ? 0 : directory_bytes(o.data_dir);
  const double own_before = own_cpu_seconds(), node_before = o.pid ? process_cpu_seconds(o.pid) : 0;
  sender.run(show_sending);
  report_t report = summarise(sender);
  report.own_cpu_s = own_cpu_seconds() - own_before;
  if (o.pid) {
    report.node_cpu_s = process_cpu_seconds(o.pid) - node_before;
    report.peak_bytes = process_peak_bytes(o.pid);
  }
  report.disk_before = disk_before;
  if (!o.data_dir.empty()) report.disk_after = directory_bytes(o.data_dir);
  verify_result_t verified;
  if (o.verify > 0) verified = verify(o, data, sender, show_verifying);
  if (isatty(STDERR_FILENO)) fputs("\r\033[K", stderr);
  (o.json ? print_json : print_text)(o, report, verified);
  return report.acknowledged == o.samples() && verified.good() ? 0 : 1;
}
