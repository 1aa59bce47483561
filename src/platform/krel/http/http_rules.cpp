#include "platform/krel/http/http_rules.h"

#include <pcre.h>

#include <algorithm>
#include <atomic>
#include <exception>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"

struct http_pattern_t {
  pcre *code;
  pcre_extra *extra;
};

void http_pattern_deleter_t::operator()(http_pattern_t *pattern) const {
  pcre_free_study(pattern->extra);
  pcre_free(pattern->code);
  delete pattern;
}

namespace {

// Bases in order; each knows the longest other base that begins it. The longest base that begins a
// path is the last one not greater than the path, or one of that chain.
struct base_t {
  std::string text;
  int parent = -1;
  std::vector<krel_rest_mountpoint_t *> rules;
};
using table_t = std::vector<base_t>;

struct hooks_t {
  std::vector<std::pair<std::string, krel_rest_hook_t>> before_handler;
  std::vector<std::pair<std::string, krel_http_response_hook_t>> response_starting;
};

krel_mutex_c rules_lock;
std::vector<std::unique_ptr<krel_rest_mountpoint_t>> rules GUARDED_BY(rules_lock);
// What was in force before stays: a loop thread may be reading it. Registration is for start-up.
std::vector<std::unique_ptr<const table_t>> tables GUARDED_BY(rules_lock);
std::vector<std::unique_ptr<const hooks_t>> hook_lists GUARDED_BY(rules_lock);
std::atomic<const table_t *> table_in_force{nullptr};
std::atomic<const hooks_t *> hooks_in_force{nullptr};

void publish() REQUIRES(rules_lock) {
  auto table = std::make_unique<table_t>();
  for (const auto &rule : rules) {
    auto at = std::find_if(table->begin(), table->end(), [&](const base_t &b) { return b.text == rule->base; });
    if (at == table->end()) at = table->insert(at, base_t{rule->base, -1, {}});
    at->rules.push_back(rule.get());
  }
  std::sort(table->begin(), table->end(), [](const base_t &a, const base_t &b) { return a.text < b.text; });
  for (int i = 1; i < static_cast<int>(table->size()); i++) {
    int up = i - 1;
    while (up >= 0 && !(*table)[i].text.starts_with((*table)[up].text)) up = (*table)[up].parent;
    (*table)[i].parent = up;
  }
  table_in_force.store(table.get(), std::memory_order_release);
  tables.push_back(std::move(table));
}

// Bounds what a hostile path can cost; with the just-in-time code they count its backtracking too.
constexpr unsigned long match_limit = 1000000, recursion_limit = 2000;

pcre_jit_stack *jit_stack(void *) {
  struct free_t {
    void operator()(pcre_jit_stack *stack) const { pcre_jit_stack_free(stack); }
  };
  thread_local std::unique_ptr<pcre_jit_stack, free_t> mine(pcre_jit_stack_alloc(32 * 1024, 512 * 1024));
  return mine.get();
}

std::unique_ptr<http_pattern_t, http_pattern_deleter_t> compile(const char *expression) {
  const char *error = nullptr;
  int offset = 0;
  pcre *code = pcre_compile(expression, 0, &error, &offset, nullptr);
  if (!code) {
    krel_log(krel_error, "http: the expression \"%s\" fails at %d: %s\n", expression, offset, error);
    return nullptr;
  }
  pcre_extra *extra = pcre_study(code, PCRE_STUDY_JIT_COMPILE | PCRE_STUDY_EXTRA_NEEDED, &error);
  std::unique_ptr<http_pattern_t, http_pattern_deleter_t> pattern(new http_pattern_t{code, extra});
  int groups = 0;
  pcre_fullinfo(code, extra, PCRE_INFO_CAPTURECOUNT, &groups);
  if (!extra || groups > HTTP_MAX_GROUPS) {
    krel_log(krel_error, "http: the expression \"%s\" cannot be used\n", expression);
    return nullptr;
  }
  extra->flags |= PCRE_EXTRA_MATCH_LIMIT | PCRE_EXTRA_MATCH_LIMIT_RECURSION;
  extra->match_limit = match_limit;
  extra->match_limit_recursion = recursion_limit;
  pcre_assign_jit_stack(extra, jit_stack, nullptr);
  return pattern;
}

bool matches(const krel_rest_mountpoint_t &rule, std::string_view rest, http_match_t *out) {
  int at[3 * (HTTP_MAX_GROUPS + 1)];
  const int n = pcre_exec(rule.pattern->code, rule.pattern->extra, rest.data(), static_cast<int>(rest.size()),
                          0, 0, at, static_cast<int>(std::size(at)));
  if (n < 1) return false;
  out->rule = &rule;
  out->groups = n - 1;
  for (int i = 1; i < n; i++) {
    if (at[2 * i] < 0)
      out->group[i - 1] = {};
    else
      out->group[i - 1] =
          rest.substr(static_cast<size_t>(at[2 * i]), static_cast<size_t>(at[2 * i + 1] - at[2 * i]));
  }
  return true;
}

// The base of the table to look at first for a path, -1 when there is none.
int first_base(const table_t &table, std::string_view path) {
  auto after = std::upper_bound(table.begin(), table.end(), path,
                                [](std::string_view p, const base_t &b) { return p < b.text; });
  int at = static_cast<int>(after - table.begin()) - 1;
  while (at >= 0 && !path.starts_with(table[static_cast<size_t>(at)].text))
    at = table[static_cast<size_t>(at)].parent;
  return at;
}

// Calls the function for each rule whose base begins the path, until it returns true.
template <typename Function>
bool each_rule(std::string_view path, Function function) {
  const table_t *table = table_in_force.load(std::memory_order_acquire);
  if (!table) return false;
  for (int at = first_base(*table, path); at >= 0;) {
    const base_t &base = (*table)[static_cast<size_t>(at)];
    for (const krel_rest_mountpoint_t *rule : base.rules) {
      if (function(*rule, path.substr(base.text.size()))) return true;
    }
    at = base.parent;
  }
  return false;
}

bool serves(const krel_rest_mountpoint_t &rule, std::string_view method) {
  return rule.method == method || (method == "HEAD" && rule.method == "GET");
}

template <typename Change>
void change_hooks(Change change) {
  krel_lock_c lock(rules_lock);
  auto fresh = hook_lists.empty() ? std::make_unique<hooks_t>() : std::make_unique<hooks_t>(*hook_lists.back());
  change(*fresh);
  hooks_in_force.store(fresh.get(), std::memory_order_release);
  hook_lists.push_back(std::move(fresh));
}

}  // namespace

http_match_e http_rules_match(std::string_view method, std::string_view path, http_match_t *out) {
  const bool found = each_rule(path, [&](const krel_rest_mountpoint_t &rule, std::string_view rest) {
    return !rule.catch_all && serves(rule, method) && matches(rule, rest, out);
  });
  if (found) return http_match_e::found;
  http_match_t other;
  const bool known = each_rule(path, [&](const krel_rest_mountpoint_t &rule, std::string_view rest) {
    return !rule.catch_all && matches(rule, rest, &other);
  });
  if (known) return http_match_e::no_method;
  const bool caught = each_rule(path, [&](const krel_rest_mountpoint_t &rule, std::string_view rest) {
    return rule.catch_all && serves(rule, method) && matches(rule, rest, out);
  });
  return caught ? http_match_e::found : http_match_e::no_path;
}

std::string http_rules_allowed(std::string_view path) {
  std::vector<std::string_view> methods;
  each_rule(path, [&](const krel_rest_mountpoint_t &rule, std::string_view rest) {
    http_match_t match;
    if (!rule.catch_all && matches(rule, rest, &match)) {
      methods.push_back(rule.method);
      if (rule.method == "GET") methods.push_back("HEAD");
    }
    return false;
  });
  std::sort(methods.begin(), methods.end());
  methods.erase(std::unique(methods.begin(), methods.end()), methods.end());
  std::string allowed;
  for (const std::string_view method : methods) allowed.append(allowed.empty() ? "" : ", ").append(method);
  return allowed;
}

void http_rules_clear() {
  krel_lock_c lock(rules_lock);
  table_in_force = nullptr;
  hooks_in_force = nullptr;
  tables.clear();
  hook_lists.clear();
  rules.clear();
}

int http_rules_run_hooks(krel_http_rest_closure_t *restc) {
  const hooks_t *hooks = hooks_in_force.load(std::memory_order_acquire);
  if (!hooks) return 0;
  for (const auto &[name, hook] : hooks->before_handler) {
    if (const int result = hook(restc)) return result;
  }
  return 0;
}

void http_rules_run_response_hooks(krel_http_session_t *session) {
  const hooks_t *hooks = hooks_in_force.load(std::memory_order_acquire);
  if (!hooks) return;
  for (const auto &[name, hook] : hooks->response_starting) {
    try {
      hook(session);
    } catch (const std::exception &e) {
      krel_log(krel_error, "http: the response hook %s threw: %s\n", name.c_str(), e.what());
    }
  }
}

// ---- the public face

krel_rest_mountpoint_t *krel_http_rest_new_rule(const char *method, const char *base, const char *expression,
                                                krel_rest_handler_t handler) {
  auto pattern = compile(expression);
  if (!pattern || base[0] != '/' || !handler) return nullptr;
  krel_lock_c lock(rules_lock);
  for (const auto &rule : rules) {
    if (rule->method == method && rule->base == base && rule->expression == expression) {
      krel_log(krel_error, "http: %s %s %s is registered already\n", method, base, expression);
      return nullptr;
    }
  }
  auto rule = std::make_unique<krel_rest_mountpoint_t>();
  rule->method = method;
  rule->base = base;
  rule->expression = expression;
  rule->pattern = std::move(pattern);
  rule->handler = handler;
  krel_rest_mountpoint_t *raw = rule.get();
  rules.push_back(std::move(rule));
  publish();
  return raw;
}

int krel_http_rest_register(const char *method, const char *base, const char *expression,
                            krel_rest_handler_t handler) {
  return krel_http_rest_new_rule(method, base, expression, handler) ? 0 : -1;
}

void krel_rest_mountpoint_set_krelev_pool(krel_rest_mountpoint_t *rule, krelev_pool_t *pool) {
  rule->pool = pool;
}

void krel_rest_mountpoint_set_aco(krel_rest_mountpoint_t *rule, bool on) {
  rule->aco = on;
}

void krel_rest_mountpoint_set_catch_all(krel_rest_mountpoint_t *rule, bool on) {
  rule->catch_all = on;
}

void krel_rest_get_handler_hook_register(const char *name, krel_rest_hook_t hook) {
  change_hooks([&](hooks_t &hooks) { hooks.before_handler.emplace_back(name, hook); });
}

void http_response_starting_hook_register(const char *name, krel_http_response_hook_t hook) {
  change_hooks([&](hooks_t &hooks) { hooks.response_starting.emplace_back(name, hook); });
}
