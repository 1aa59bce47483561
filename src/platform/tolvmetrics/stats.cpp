// Registration and updates.

#include "platform/tolvmetrics/stats.h"

#include <bit>
#include <cstring>

#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats_tree.h"

namespace {

bool is_float(int kind) {
  return kind == STATS_TYPE_DOUBLE;
}

// A number of any kind's C type in memory, as a double and as an integer.
struct number_t {
  double n;
  uint64_t u;
};

template <typename T>
T load(const void *memory) {
  return __atomic_load_n(static_cast<const T *>(memory), __ATOMIC_RELAXED);
}

number_t load_number(int kind, const void *memory) {
  switch (kind) {
    case STATS_TYPE_INT32: {
      const auto value = load<int32_t>(memory);
      return {static_cast<double>(value), static_cast<uint64_t>(int64_t{value})};
    }
    case STATS_TYPE_UINT32: {
      const auto value = load<uint32_t>(memory);
      return {static_cast<double>(value), value};
    }
    case STATS_TYPE_INT64: {
      const auto value = load<int64_t>(memory);
      return {static_cast<double>(value), static_cast<uint64_t>(value)};
    }
    case STATS_TYPE_DOUBLE:
    case STATS_TYPE_HISTOGRAM: {
      const double value = std::bit_cast<double>(load<uint64_t>(memory));
      const bool fits = value > -0x1p63 && value < 0x1p63;
      return {value, fits ? static_cast<uint64_t>(static_cast<int64_t>(value)) : 0};
    }
    default: {
      const auto value = load<uint64_t>(memory);
      return {static_cast<double>(value), value};
    }
  }
}

uint64_t bits_for(int kind, const number_t &number) {
  return is_float(kind) ? std::bit_cast<uint64_t>(number.n) : number.u;
}

uint32_t alloc_slot(int kind) {
  if (kind == STATS_TYPE_COUNTER) return stats_cells::alloc_counter();
  if (kind == STATS_TYPE_HISTOGRAM) return stats_cells::alloc_histogram();
  return 0;
}

stats_figure_t figure_of(int kind, uint64_t bits) {
  stats_figure_t figure;
  figure.kind = kind;
  figure.u = kind == STATS_TYPE_UINT32 ? static_cast<uint32_t>(bits) : bits;
  figure.i = kind == STATS_TYPE_INT32 ? static_cast<int32_t>(bits) : static_cast<int64_t>(bits);
  figure.n = is_float(kind) ? std::bit_cast<double>(bits) : 0;
  // Adds of several threads may be seen before the adds they undo.
  if ((kind == STATS_TYPE_GAUGE_U64 || kind == STATS_TYPE_COUNTER) && static_cast<int64_t>(bits) < 0 &&
      figure.u > UINT64_MAX / 2)
    figure.u = 0;
  return figure;
}

}  // namespace

stats_handle_t::stats_handle_t(stats_recorder_t *of, int of_kind)
    : recorder(of), kind(of_kind), slot(alloc_slot(of_kind)) {}

stats_handle_t::~stats_handle_t() {
  if (kind == STATS_TYPE_COUNTER) stats_cells::free_counter(slot);
  if (kind == STATS_TYPE_HISTOGRAM) stats_cells::free_histogram(slot);
}

stats_recorder_t *stats_recorder_alloc() {
  auto recorder = std::make_unique<stats_recorder_t>();
  stats_ns_t *global = stats_recorder_global_ns(recorder.get());
  global->recorder = recorder.get();
  return recorder.release();
}

void stats_recorder_free(stats_recorder_t *recorder) {
  std::unique_ptr<stats_recorder_t>{recorder};
}

stats_ns_t *stats_recorder_global_ns(stats_recorder_t *recorder) NO_THREAD_SAFETY_ANALYSIS {
  return &recorder->global;  // its place never changes
}

stats_ns_t *stats_register_ns(stats_recorder_t *recorder, stats_ns_t *parent, const char *name) {
  if (parent == nullptr) parent = stats_recorder_global_ns(recorder);
  const krel_lock_c lock(recorder->tree_mutex);
  std::unique_ptr<stats_ns_t> &child = parent->children[name];
  if (child == nullptr) {
    child = std::make_unique<stats_ns_t>();
    child->recorder = recorder;
  }
  return child.get();
}

void stats_ns_add_tag(stats_ns_t *ns, const char *category, const char *value) {
  const krel_lock_c lock(ns->recorder->tree_mutex);
  ns->tags.emplace_back(category, value);
}

void stats_ns_invoke(stats_ns_t *ns, std::function<void()> refresh) {
  const krel_lock_c lock(ns->recorder->tree_mutex);
  ns->refreshers.push_back(std::move(refresh));
}

stats_handle_t *stats_register(stats_ns_t *ns, const char *name, int kind) {
  krel_assert(kind >= STATS_TYPE_STRING && kind <= STATS_TYPE_INT64);
  const krel_lock_c lock(ns->recorder->tree_mutex);
  std::unique_ptr<stats_handle_t> &handle = ns->handles[name];
  if (handle == nullptr) handle = std::make_unique<stats_handle_t>(ns->recorder, kind);
  if (handle->kind == kind) return handle.get();
  krel_log(krel_error, "statistic \"%s\" is of kind %d and was asked for as kind %d\n", name, handle->kind,
           kind);
  return nullptr;
}

void stats_handle_tagged_name(stats_handle_t *handle, const char *name) {
  if (handle == nullptr) return;
  const krel_lock_c lock(handle->recorder->tree_mutex);
  handle->tagged_name = name;
}

void stats_handle_tagged_suppress(stats_handle_t *handle, bool suppress) {
  if (handle == nullptr) return;
  const krel_lock_c lock(handle->recorder->tree_mutex);
  handle->tagged_suppress = suppress;
}

void stats_handle_add_tag(stats_handle_t *handle, const char *category, const char *value) {
  if (handle == nullptr) return;
  const krel_lock_c lock(handle->recorder->tree_mutex);
  const std::pair<std::string, std::string> tag(category, value);
  for (const auto &have : handle->tags)
    if (have == tag) return;
  handle->tags.push_back(tag);
}

void stats_observe(stats_handle_t *handle, int kind, const void *memory) {
  if (handle == nullptr) return;
  krel_assert((kind == STATS_TYPE_STRING) == (handle->kind == STATS_TYPE_STRING));
  krel_assert(handle->kind != STATS_TYPE_HISTOGRAM);
  const krel_lock_c lock(handle->recorder->tree_mutex);
  handle->observed = memory;
  handle->observed_kind = kind;
}

void stats_invoke(stats_handle_t *handle, std::function<double()> function) {
  if (handle == nullptr) return;
  krel_assert(handle->kind != STATS_TYPE_STRING && handle->kind != STATS_TYPE_HISTOGRAM &&
              handle->kind != STATS_TYPE_COUNTER);
  const krel_lock_c lock(handle->recorder->tree_mutex);
  handle->invoked = std::move(function);
}

void stats_add64(stats_handle_t *handle, int64_t amount) {
  if (handle == nullptr) return;
  switch (handle->kind) {
    case STATS_TYPE_COUNTER:
      stats_cells::add(handle->slot, amount);
      return;
    case STATS_TYPE_DOUBLE: {
      uint64_t have = handle->value.load(std::memory_order_relaxed), wanted;
      do {
        wanted = std::bit_cast<uint64_t>(std::bit_cast<double>(have) + static_cast<double>(amount));
      } while (!handle->value.compare_exchange_weak(have, wanted, std::memory_order_relaxed));
      return;
    }
    case STATS_TYPE_STRING:
    case STATS_TYPE_HISTOGRAM:
      krel_fatal("stats_add64 of a statistic of kind %d\n", handle->kind);
    default:
      handle->value.fetch_add(static_cast<uint64_t>(amount), std::memory_order_relaxed);
  }
}

void stats_set(stats_handle_t *handle, int kind, const void *value) {
  if (handle == nullptr) return;
  krel_assert((kind == STATS_TYPE_STRING) == (handle->kind == STATS_TYPE_STRING));
  krel_assert(handle->kind != STATS_TYPE_COUNTER);
  if (kind == STATS_TYPE_STRING) {
    const krel_lock_c lock(handle->recorder->tree_mutex);
    handle->text = static_cast<const char *>(value);
  } else if (handle->kind == STATS_TYPE_HISTOGRAM) {
    stats_cells::insert(handle->slot, hist_bucket_from_double(load_number(kind, value).n), 1);
  } else {
    handle->value.store(bits_for(handle->kind, load_number(kind, value)), std::memory_order_relaxed);
  }
}

void stats_set_hist_intscale(stats_handle_t *handle, int64_t value, int scale, uint64_t count) {
  if (handle == nullptr) return;
  krel_assert(handle->kind == STATS_TYPE_HISTOGRAM);
  if (count != 0) stats_cells::insert(handle->slot, hist_bucket_from_int(value, scale), count);
}

// ---- reading

stats_figure_t stats_read(stats_handle_t *handle, bool since_reset) {
  if (handle->observed != nullptr) {
    if (handle->kind == STATS_TYPE_STRING) {
      stats_figure_t figure = figure_of(handle->kind, 0);
      figure.text = static_cast<const char *>(handle->observed);
      return figure;
    }
    return figure_of(handle->kind,
                     bits_for(handle->kind, load_number(handle->observed_kind, handle->observed)));
  }
  switch (handle->kind) {
    case STATS_TYPE_STRING: {
      stats_figure_t figure = figure_of(handle->kind, 0);
      figure.text = handle->text;
      return figure;
    }
    case STATS_TYPE_COUNTER: {
      const auto count = static_cast<uint64_t>(stats_cells::sum(handle->slot));
      return figure_of(handle->kind, since_reset ? count - handle->count_before : count);
    }
    case STATS_TYPE_HISTOGRAM: {
      stats_figure_t figure = figure_of(handle->kind, 0);
      figure.hist = stats_cells::merged(handle->slot);
      const histogram_t *before = handle->hist_before.get();
      if (since_reset) hist_subtract(figure.hist.get(), &before, 1);
      return figure;
    }
    default:
      return figure_of(handle->kind, handle->value.load(std::memory_order_relaxed));
  }
}

void stats_reset(stats_handle_t *handle, const stats_figure_t &figure) {
  if (handle->observed != nullptr) return;
  if (handle->kind == STATS_TYPE_COUNTER) handle->count_before += figure.u;
  if (handle->kind == STATS_TYPE_HISTOGRAM) {
    if (handle->hist_before == nullptr) handle->hist_before.reset(hist_alloc());
    const histogram_t *read = figure.hist.get();
    hist_accumulate(handle->hist_before.get(), &read, 1);
  }
}

void stats_visit(const stats_ns_t &global, const stats_visitor_t &visitor) {
  std::vector<std::string> path;
  stats_tags_t tags;
  const std::function<void(const stats_ns_t &)> walk = [&](const stats_ns_t &ns) {
    const size_t tags_above = tags.size();
    tags.insert(tags.end(), ns.tags.begin(), ns.tags.end());
    for (const auto &[name, handle] : ns.handles) {
      const size_t tags_of_ns = tags.size();
      path.push_back(name);
      tags.insert(tags.end(), handle->tags.begin(), handle->tags.end());
      visitor(path, tags, handle.get());
      tags.resize(tags_of_ns);
      path.pop_back();
    }
    for (const auto &[name, child] : ns.children) {
      path.push_back(name);
      walk(*child);
      path.pop_back();
    }
    tags.resize(tags_above);
  };
  walk(global);
}

void stats_refresh(stats_recorder_t *recorder) {
  std::vector<std::function<void()>> refreshers;
  std::vector<std::pair<stats_handle_t *, std::function<double()>>> invoked;
  {
    const krel_lock_c lock(recorder->tree_mutex);
    const std::function<void(const stats_ns_t &)> walk = [&](const stats_ns_t &ns) {
      refreshers.insert(refreshers.end(), ns.refreshers.begin(), ns.refreshers.end());
      for (const auto &[name, handle] : ns.handles)
        if (handle->invoked) invoked.emplace_back(handle.get(), handle->invoked);
      for (const auto &[name, child] : ns.children) walk(*child);
    };
    walk(recorder->global);
  }
  for (const auto &refresh : refreshers) refresh();
  for (const auto &[handle, function] : invoked) {
    const double value = function();
    stats_set(handle, STATS_TYPE_DOUBLE, &value);
  }
}
