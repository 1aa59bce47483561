#pragma once
// The registered rules and how a request finds its own: the longest base that begins the path, then
// the rules of that base in the order of registration, then shorter bases.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/krel/http/krel_http.h"

constexpr int HTTP_MAX_GROUPS = 15;

struct http_pattern_t;
struct http_pattern_deleter_t {
  void operator()(http_pattern_t *pattern) const;
};

struct krel_rest_mountpoint_t {
  std::string method, base;
  std::string expression;
  std::unique_ptr<http_pattern_t, http_pattern_deleter_t> pattern;
  krel_rest_handler_t handler;
  krelev_pool_t *pool = nullptr;  // null: "default"
  bool aco = false;
  bool catch_all = false;
};

enum class http_match_e { found, no_path, no_method };

struct http_match_t {
  const krel_rest_mountpoint_t *rule = nullptr;
  int groups = 0;
  std::string_view group[HTTP_MAX_GROUPS];  // in the path; undecoded
};

http_match_e http_rules_match(std::string_view method, std::string_view path, http_match_t *out);
// "GET, HEAD, PUT": what a known path answers to.
std::string http_rules_allowed(std::string_view path);

// Tests: forgets every rule and hook. No request may be under way.
void http_rules_clear();
// Runs the hooks; nonzero when one of them has ended the request.
int http_rules_run_hooks(krel_http_rest_closure_t *restc);
void http_rules_run_response_hooks(krel_http_session_t *session);
