// The Prometheus text format, version 0.0.4. Figures count from the start: a reset of the JSON forms does
// not show here.

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>
#include <iterator>
#include <map>
#include <set>

#include "platform/tolvmetrics/stats_tree.h"

namespace {

std::string clean_name(std::string_view text, bool colon) {
  std::string result;
  for (char c : text) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (colon && c == ':');
    const bool digit = c >= '0' && c <= '9';
    if (digit && result.empty()) result += '_';
    result += letter || digit ? c : '_';
  }
  return result.empty() ? "_" : result;
}

void escape_help(std::string *to, char c) {
  if (c == '\n') {
    *to += "\\n";
  } else {
    if (c == '\\') *to += '\\';
    *to += c;
  }
}

void escape_label(std::string *to, char c) {
  if (c == '"') *to += '\\';
  escape_help(to, c);
}

// `a="x",b="y"`: values of categories that come to the same name are joined.
std::string labels_of(const stats_tags_t &tags) {
  std::map<std::string, std::string> values;
  for (const auto &[category, value] : tags) {
    std::string name = clean_name(category, false);
    if (name == "le" || name == "value") name += '_';  // taken by the format and by our texts
    std::string &at = values[name];
    if (!at.empty()) at += ',';
    stats_append_clean(&at, value, escape_label);
  }
  std::string result;
  for (const auto &[name, value] : values)
    result += fmt::format("{}{}=\"{}\"", result.empty() ? "" : ",", name, value);
  return result;
}

// {labels} or {labels,more}; nothing when there is none of both.
std::string in_braces(const std::string &labels, const std::string &more) {
  if (labels.empty() && more.empty()) return "";
  return "{" + labels + (labels.empty() || more.empty() ? "" : ",") + more + "}";
}

std::string number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  return fmt::format("{}", value);
}

struct family_t {
  const char *type;
  std::string help;
  std::set<std::string> seen;  // labels
  std::string lines;
};

// Buckets end at 0 and at 1, 2 and 5 times the powers of ten that have samples between them: edges of bins,
// so that the counts are exact and the edges stay where they are from one reading to the next.
class buckets_c {
 public:
  explicit buckets_c(const histogram_t *hist) {
    for (int i = 0; i < hist_num_buckets(hist); ++i) {
      hist_bucket_t bucket;
      uint64_t count;
      if (!hist_bucket_idx_bucket(hist, i, &bucket, &count) || count == 0 || bucket.val == -1) continue;
      m_total += count;
      if (bucket.val <= 0) {
        m_to_zero += count;
      } else {
        m_by_edge[bucket.exp * 3 + (bucket.val < 20 ? 0 : bucket.val < 50 ? 1 : 2)] += count;
      }
    }
  }

  void write(const std::string &name, const std::string &labels, double sum, std::string *out) const {
    uint64_t below = m_to_zero;
    line(name, labels, "0", below, out);
    if (!m_by_edge.empty()) {
      const int first = m_by_edge.begin()->first, last = m_by_edge.rbegin()->first;
      for (int edge = floor3(first); edge < floor3(last) + 3; ++edge) {
        const auto at = m_by_edge.find(edge);
        if (at != m_by_edge.end()) below += at->second;
        line(name, labels, text_of(edge), below, out);
      }
    }
    line(name, labels, "+Inf", m_total, out);
    const std::string braces = in_braces(labels, "");
    fmt::format_to(std::back_inserter(*out), "{0}_sum{1} {2}\n{0}_count{1} {3}\n", name, braces, number(sum),
                   m_total);
  }

 private:
  static int floor3(int edge) { return edge - ((edge % 3) + 3) % 3; }

  // The upper end: 2, 5 and 10 times the power of ten.
  static std::string text_of(int edge) {
    const int third = edge - floor3(edge);
    const int exp = floor3(edge) / 3;
    const std::string decimal = third == 0   ? fmt::format("2e{}", exp)
                                : third == 1 ? fmt::format("5e{}", exp)
                                             : fmt::format("1e{}", exp + 1);
    return number(strtod(decimal.c_str(), nullptr));
  }

  static void line(const std::string &name, const std::string &labels, const std::string &le, uint64_t count,
                   std::string *out) {
    fmt::format_to(std::back_inserter(*out), "{}_bucket{} {}\n", name, in_braces(labels, "le=\"" + le + "\""),
                   count);
  }

  std::map<int, uint64_t> m_by_edge;
  uint64_t m_to_zero = 0, m_total = 0;
};

class writer_c {
 public:
  void add(const std::vector<std::string> &path, const stats_tags_t &tags, stats_handle_t *handle) {
    const stats_figure_t figure = stats_read(handle, false);
    const std::string full = stats_join(path, '`');
    const std::string labels = labels_of(tags);
    const std::string name = handle->tagged_name.empty() ? full : handle->tagged_name;
    // Where the tagged name does not tell two statistics apart, the path does.
    if (!add_as(name, full, labels, figure)) add_as(full, full, labels, figure);
  }

  std::string text() const {
    std::string out;
    for (const auto &[name, family] : m_families)
      out += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n{3}", name, family.help, family.type, family.lines);
    return out;
  }

 private:
  // False when there are such labels under that name, or the name is of another type.
  bool add_as(const std::string &base, const std::string &help, const std::string &labels,
              const stats_figure_t &figure) {
    const bool counter = figure.kind == STATS_TYPE_COUNTER;
    const bool text = figure.kind == STATS_TYPE_STRING;
    const bool histogram = figure.kind == STATS_TYPE_HISTOGRAM;
    const std::string name = clean_name(base, true) + (counter ? "_total" : text ? "_info" : "");
    const char *type = counter ? "counter" : histogram ? "histogram" : "gauge";
    const auto [at, is_new] = m_families.try_emplace(name, family_t{type, {}, {}, {}});
    family_t &family = at->second;
    if (is_new) stats_append_clean(&family.help, help, escape_help);
    if (std::string_view(family.type) != type || !family.seen.insert(labels).second) return false;
    std::string more;
    if (text) {
      more = "value=\"";
      stats_append_clean(&more, figure.text, escape_label);
      more += '"';
    }
    if (histogram) {
      buckets_c(figure.hist.get()).write(name, labels, hist_approx_sum(figure.hist.get()), &family.lines);
    } else {
      family.lines += name + in_braces(labels, more) + " " + scalar(figure) + "\n";
    }
    return true;
  }

  static std::string scalar(const stats_figure_t &figure) {
    switch (figure.kind) {
      case STATS_TYPE_STRING:
        return "1";
      case STATS_TYPE_DOUBLE:
        return number(figure.n);
      case STATS_TYPE_INT32:
      case STATS_TYPE_INT64:
        return fmt::format("{}", figure.i);
      default:
        return fmt::format("{}", figure.u);
    }
  }

  std::map<std::string, family_t> m_families;
};

}  // namespace

std::string stats_recorder_output_prometheus(stats_recorder_t *recorder) {
  const krel_lock_c reading(recorder->read_mutex);
  stats_refresh(recorder);
  const krel_lock_c lock(recorder->tree_mutex);
  writer_c writer;
  stats_visit(recorder->global, [&](const auto &path, const stats_tags_t &tags, stats_handle_t *handle) {
    writer.add(path, tags, handle);
  });
  return writer.text();
}
