#pragma once
// What a run of velmar-load does: the data set, how it is sent, what is measured.

#include <cstdint>
#include <optional>
#include <string>

enum class form_e { text, relay, dorn, graphite, graphite_http };
inline bool is_graphite(form_e form) {
  return form >= form_e::graphite;
}
const char *form_name(form_e form);

// What a series holds; the mix gives each kind a share of the series.
enum class kind_e : uint8_t { gauge, counter, integer, real, null, histogram };
constexpr int KINDS = 6;
const char *kind_name(int kind);

struct load_options_t {
  std::string host = "127.0.0.1", port = "8112";
  // the data set
  uint64_t series = 1000, steps = 100;
  uint32_t tags = 3;
  uint64_t step_ms = 10000, start_ms = 0;
  uint64_t seed = 1;
  uint32_t account = 1;
  uint32_t shares[KINDS] = {50, 25, 10, 10, 5, 0};
  // how it is sent
  uint64_t batch = 1000, per_metric = 1;
  uint32_t connections = 4;
  double rate = 0;  // samples a second over all connections; 0: flat out
  form_e form = form_e::text;
  std::string graphite_port = "2003", check_uuid = "5f0d3b1e-7c44-4a1b-9d3f-2b8e6a1c2003";
  // what is measured
  double verify = 0;  // share of the series that is read back, 0 to 1
  int pid = 0;
  std::string data_dir;
  bool json = false;
  // 0, or the port on which it only counts
  uint16_t sink_port = 0;

  uint64_t samples() const { return series * steps; }
};

// None when the run is to go on; else the exit status, with its words written.
std::optional<int> parse_options(int argc, char **argv, load_options_t *options);
