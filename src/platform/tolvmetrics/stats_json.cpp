// The JSON forms.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <set>

#include "platform/krel/base/krel_util.h"
#include "platform/tolvmetrics/stats_tree.h"

namespace {

char letter_of(int kind) {
  switch (kind) {
    case STATS_TYPE_STRING:
      return 's';
    case STATS_TYPE_INT32:
      return 'i';
    case STATS_TYPE_UINT32:
      return 'I';
    case STATS_TYPE_INT64:
      return 'l';
    case STATS_TYPE_DOUBLE:
      return 'n';
    case STATS_TYPE_HISTOGRAM:
      return 'h';
    default:
      return 'L';
  }
}

void append_bins(std::string *out, const histogram_t *hist) {
  *out += '{';
  bool first = true;
  for (int i = 0; i < hist_num_buckets(hist); ++i) {
    hist_bucket_t bucket;
    uint64_t count;
    char text[HIST_BUCKET_TEXT_SIZE];
    if (!hist_bucket_idx_bucket(hist, i, &bucket, &count) || count == 0) continue;
    hist_bucket_to_string(bucket, text, sizeof text);
    fmt::format_to(std::back_inserter(*out), "{}\"{}\":{}", first ? "" : ",", text, count);
    first = false;
  }
  *out += '}';
}

void append_value(std::string *out, const stats_figure_t &figure) {
  switch (figure.kind) {
    case STATS_TYPE_STRING:
      stats_append_json_string(out, figure.text);
      break;
    case STATS_TYPE_INT32:
    case STATS_TYPE_INT64:
      fmt::format_to(std::back_inserter(*out), "{}", figure.i);
      break;
    case STATS_TYPE_DOUBLE:
      if (std::isfinite(figure.n)) {
        fmt::format_to(std::back_inserter(*out), "{}", figure.n);
      } else {
        *out += "null";
      }
      break;
    case STATS_TYPE_HISTOGRAM:
      append_bins(out, figure.hist.get());
      break;
    default:
      fmt::format_to(std::back_inserter(*out), "{}", figure.u);
  }
}

// The figure of a handle, which a reset begins anew.
stats_figure_t take(stats_handle_t *handle, bool reset) {
  stats_figure_t figure = stats_read(handle, true);
  if (reset) stats_reset(handle, figure);
  return figure;
}

void append_typed(std::string *out, const stats_figure_t &figure) {
  fmt::format_to(std::back_inserter(*out), "\"_type\":\"{}\",\"_value\":", letter_of(figure.kind));
  append_value(out, figure);
}

class nested_writer_c {
 public:
  nested_writer_c(bool simple, bool reset) : m_simple(simple), m_reset(reset) {}

  // The members of the namespace's object. A namespace and a statistic of one name share an object.
  void members(const stats_ns_t &ns) {
    bool first = true;
    for (const auto &[name, handle] : ns.handles) {
      begin_member(name, &first);
      const auto child = ns.children.find(name);
      const stats_figure_t figure = take(handle.get(), m_reset);
      if (child != ns.children.end()) {
        m_out += m_simple ? "{\"_value\":" : "{";
        m_simple ? append_value(&m_out, figure) : append_typed(&m_out, figure);
        append_rest(*child->second);
      } else if (m_simple) {
        append_value(&m_out, figure);
      } else {
        m_out += '{';
        append_typed(&m_out, figure);
        m_out += '}';
      }
    }
    for (const auto &[name, child] : ns.children) {
      if (ns.handles.count(name) != 0) continue;
      begin_member(name, &first);
      m_out += '{';
      members(*child);
      m_out += '}';
    }
  }

  std::string m_out;

 private:
  void begin_member(const std::string &name, bool *first) {
    if (!*first) m_out += ',';
    *first = false;
    stats_append_json_string(&m_out, name);
    m_out += ':';
  }

  void append_rest(const stats_ns_t &ns) {
    const size_t before = m_out.size();
    members(ns);
    if (m_out.size() != before) m_out.insert(before, 1, ',');
    m_out += '}';
  }

  const bool m_simple, m_reset;
};

// Whether a tag's category or value is written as it stands.
bool is_clean(std::string_view text, bool is_value) {
  constexpr std::string_view SIGNS = "`+!@#$%^&'/?._-;=~<>\\";
  return std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           SIGNS.find(c) != std::string_view::npos || (is_value && c == ':');
  });
}

std::string encode_tag_part(const std::string &text, bool is_value) {
  if (is_clean(text, is_value)) return text;
  std::string encoded(krel_b64_encode_len(text.size()), '\0');
  krel_b64_encode(text.data(), text.size(), encoded.data(), encoded.size());
  return "b\"" + encoded + "\"";
}

std::string tagged_key(const std::vector<std::string> &path, const stats_tags_t &tags,
                       const stats_handle_t &handle) {
  std::set<std::string> encoded;
  for (const auto &[category, value] : tags)
    encoded.insert(encode_tag_part(category, false) + ":" + encode_tag_part(value, true));
  std::string key = handle.tagged_name.empty() ? stats_join(path, '`') : handle.tagged_name;
  if (!encoded.empty()) key += fmt::format("|ST[{}]", fmt::join(encoded, ","));
  return key;
}

}  // namespace

std::string stats_recorder_output_json(stats_recorder_t *recorder, bool simple, bool reset) {
  const krel_lock_c reading(recorder->read_mutex);
  stats_refresh(recorder);
  const krel_lock_c lock(recorder->tree_mutex);
  nested_writer_c writer(simple, reset);
  writer.m_out = "{";
  writer.members(recorder->global);
  writer.m_out += '}';
  return std::move(writer.m_out);
}

std::string stats_recorder_output_json_tagged(stats_recorder_t *recorder, bool reset) {
  const krel_lock_c reading(recorder->read_mutex);
  stats_refresh(recorder);
  const krel_lock_c lock(recorder->tree_mutex);
  std::string out = "{";
  std::set<std::string> seen;
  stats_visit(recorder->global, [&](const auto &path, const stats_tags_t &tags, stats_handle_t *handle) {
    if (handle->tagged_suppress) return;
    // Two statistics of one tagged name and tags: the path tells the second from the first.
    std::string key = tagged_key(path, tags, *handle);
    if (!seen.insert(key).second) {
      stats_tags_t more = tags;
      more.emplace_back("path", stats_join(path, '`'));
      key = tagged_key(path, more, *handle);
      seen.insert(key);
    }
    if (out.size() > 1) out += ',';
    stats_append_json_string(&out, key);
    out += ":{";
    append_typed(&out, take(handle, reset));
    out += '}';
  });
  out += '}';
  return out;
}
