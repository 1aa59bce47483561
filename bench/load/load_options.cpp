#include "load_options.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

namespace {

const char *const USAGE =
    "velmar-load: sends a stated data set to a node and says what it cost.\n\n"
    "  --url URL            the node (default http://127.0.0.1:8112)\n"
    "Data set; every value is a function of series, step and seed:\n"
    "  --series N           metrics (1000)\n"
    "  --tags N             tags of a metric, 0 to 20 (3)\n"
    "  --steps N            samples of a metric (100)\n"
    "  --step-seconds S     between them, to the millisecond (10)\n"
    "  --start T            time of the first, in seconds (so that the last is now)\n"
    "  --seed N             (1)\n"
    "  --account N          account of the metrics (1)\n"
    "  --mix K=W,...        weights of the kinds of series: gauge, counter, integer, double,\n"
    "                       null (a gauge with every other sample missing), histogram\n"
    "                       (gauge=50,counter=25,integer=10,double=10,null=5)\n"
    "Sending:\n"
    "  --form F             text, relay, dorn, graphite (over TCP: it sends, closes, and waits until the last\n"
    "                       samples can be read back) or graphite-http (text); the last two know neither\n"
    "                       null nor histogram\n"
    "  --graphite-port N    the node's listener for graphite lines (2003)\n"
    "  --check UUID         check of all metrics of the graphite forms (the one of the shipped configuration)\n"
    "  --batch N            samples of a request (1000)\n"
    "  --per-metric N       consecutive samples of a metric within a batch (1)\n"
    "  --connections N      each has its own metrics and one request under way (4)\n"
    "  --rate N             samples a second in all; latency then counts from the time a request was\n"
    "                       due (0: flat out)\n"
    "Measuring:\n"
    "  --verify SHARE       read every acknowledged sample of this share of the metrics back, 0 to 1 (0)\n"
    "  --pid N              the node's process: CPU time and peak memory\n"
    "  --data-dir DIR       the node's data: bytes on disk\n"
    "  --json               the result as one JSON object\n"
    "  --sink PORT          be a node that only counts, to measure what this program itself costs\n"
    "  --help\n"
    "Exit status: 0 all sent, acknowledged and verified; 1 not; 2 wrong use.\n";

const char *const KIND_NAMES[KINDS] = {"gauge", "counter", "integer", "double", "null", "histogram"};

enum option_e {
  URL = 256,
  SERIES,
  TAGS,
  STEPS,
  STEP,
  START,
  SEED,
  ACCOUNT,
  MIX,
  FORM,
  GRAPHITE_PORT,
  CHECK,
  BATCH,
  PER_METRIC,
  CONNECTIONS,
  RATE,
  VERIFY,
  PID,
  DATA_DIR,
  JSON,
  SINK,
  HELP
};

const option OPTIONS[] = {{"url", 1, nullptr, URL},
                          {"series", 1, nullptr, SERIES},
                          {"tags", 1, nullptr, TAGS},
                          {"steps", 1, nullptr, STEPS},
                          {"step-seconds", 1, nullptr, STEP},
                          {"start", 1, nullptr, START},
                          {"seed", 1, nullptr, SEED},
                          {"account", 1, nullptr, ACCOUNT},
                          {"mix", 1, nullptr, MIX},
                          {"form", 1, nullptr, FORM},
                          {"graphite-port", 1, nullptr, GRAPHITE_PORT},
                          {"check", 1, nullptr, CHECK},
                          {"batch", 1, nullptr, BATCH},
                          {"per-metric", 1, nullptr, PER_METRIC},
                          {"connections", 1, nullptr, CONNECTIONS},
                          {"rate", 1, nullptr, RATE},
                          {"verify", 1, nullptr, VERIFY},
                          {"pid", 1, nullptr, PID},
                          {"data-dir", 1, nullptr, DATA_DIR},
                          {"json", 0, nullptr, JSON},
                          {"sink", 1, nullptr, SINK},
                          {"help", 0, nullptr, HELP},
                          {}};

template <typename T>
bool number(std::string_view text, T low, T high, T *out) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !(value >= low && value <= high))
    return false;
  *out = value;
  return true;
}

bool milliseconds(std::string_view text, uint64_t *out) {
  double seconds;
  if (!number(text, 0.001, 1e11, &seconds)) return false;
  *out = static_cast<uint64_t>(seconds * 1000 + 0.5);
  return true;
}

bool parse_url(std::string_view text, load_options_t *o) {
  if (text.rfind("http://", 0) != 0) return false;
  text.remove_prefix(7);
  if (!text.empty() && text.back() == '/') text.remove_suffix(1);
  if (text.find('/') != text.npos) return false;
  const size_t colon = text.rfind(':');
  o->host = text.substr(0, colon);
  o->port = colon == text.npos ? "80" : std::string(text.substr(colon + 1));
  uint16_t port;
  return !o->host.empty() && number<uint16_t>(o->port, 1, 65535, &port);
}

bool parse_mix(std::string_view text, load_options_t *o) {
  std::fill_n(o->shares, KINDS, 0);
  uint32_t sum = 0;
  while (!text.empty()) {
    const std::string_view item = text.substr(0, text.find(','));
    text.remove_prefix(std::min(text.size(), item.size() + 1));
    const size_t equals = item.find('=');
    int kind = 0;
    while (kind < KINDS && item.substr(0, equals) != KIND_NAMES[kind]) kind++;
    if (kind == KINDS || equals == item.npos ||
        !number<uint32_t>(item.substr(equals + 1), 0, 1000000, &o->shares[kind]))
      return false;
    sum += o->shares[kind];
  }
  return sum > 0;
}

bool parse_form(std::string_view text, form_e *form) {
  for (const form_e f : {form_e::text, form_e::relay, form_e::dorn, form_e::graphite, form_e::graphite_http})
    if (text == form_name(f)) {
      *form = f;
      return true;
    }
  return false;
}

bool set_option(int option, std::string_view text, load_options_t *o) {
  switch (option) {
    case URL:
      return parse_url(text, o);
    case SERIES:
      return number<uint64_t>(text, 1, 1000000000, &o->series);
    case TAGS:
      return number<uint32_t>(text, 0, 20, &o->tags);
    case STEPS:
      return number<uint64_t>(text, 1, 1000000000, &o->steps);
    case STEP:
      return milliseconds(text, &o->step_ms);
    case START:
      return milliseconds(text, &o->start_ms);
    case SEED:
      return number<uint64_t>(text, 0, UINT64_MAX, &o->seed);
    case ACCOUNT:
      return number<uint32_t>(text, 1, INT32_MAX, &o->account);
    case MIX:
      return parse_mix(text, o);
    case FORM:
      return parse_form(text, &o->form);
    case GRAPHITE_PORT: {
      uint16_t port;
      o->graphite_port = text;
      return number<uint16_t>(text, 1, 65535, &port);
    }
    case CHECK:
      o->check_uuid = text;
      return text.size() == 36;
    case BATCH:
      return number<uint64_t>(text, 1, 1000000, &o->batch);
    case PER_METRIC:
      return number<uint64_t>(text, 1, 1000000, &o->per_metric);
    case CONNECTIONS:
      return number<uint32_t>(text, 1, 1000, &o->connections);
    case RATE:
      return number<double>(text, 0, 1e12, &o->rate);
    case VERIFY:
      return number<double>(text, 0, 1, &o->verify);
    case PID:
      return number<int>(text, 1, INT32_MAX, &o->pid);
    case DATA_DIR:
      o->data_dir = text;
      return true;
    case JSON:
      return o->json = true;
    case SINK:
      return number<uint16_t>(text, 1, 65535, &o->sink_port);
    default:
      return false;
  }
}

}  // namespace

const char *form_name(form_e form) {
  static const char *const names[] = {"text", "relay", "dorn", "graphite", "graphite-http"};
  return names[static_cast<int>(form)];
}

const char *kind_name(int kind) {
  return KIND_NAMES[kind];
}

std::optional<int> parse_options(int argc, char **argv, load_options_t *o) {
  bool has_mix = false;
  for (int option, index = 0; (option = getopt_long(argc, argv, "", OPTIONS, &index)) != -1;) {
    if (option == HELP) {
      fputs(USAGE, stdout);
      return 0;
    }
    if (option == '?') return 2;
    if (!set_option(option, optarg ? optarg : "", o)) {
      fprintf(stderr, "velmar-load: --%s does not take \"%s\"\n", OPTIONS[option - URL].name, optarg);
      return 2;
    }
    has_mix |= option == MIX;
  }
  uint32_t &nulls = o->shares[static_cast<int>(kind_e::null)];
  if (is_graphite(o->form) && !has_mix) nulls = 0;
  const bool unsendable = is_graphite(o->form) && nulls + o->shares[static_cast<int>(kind_e::histogram)] > 0;
  const char *wrong = optind < argc                ? "it takes options only"
                      : o->steps % o->per_metric   ? "--steps is no multiple of --per-metric"
                      : unsendable                 ? "the graphite forms know neither null nor histogram"
                      : o->connections > o->series ? "there are more connections than series"
                                                   : nullptr;
  if (wrong) {
    fprintf(stderr, "velmar-load: %s; --help lists the options\n", wrong);
    return 2;
  }
  if (!o->start_ms) {
    const uint64_t now_ms = static_cast<uint64_t>(time(nullptr)) * 1000, span = (o->steps - 1) * o->step_ms;
    const uint64_t step = std::max<uint64_t>(o->step_ms, 1000);
    o->start_ms = (now_ms > span ? now_ms - span : 0) / step * step;
  }
  return {};
}
