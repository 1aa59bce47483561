#include <benchmark/benchmark.h>

#include <string>

#include "platform/dorn/dorn_names.h"
#include "platform/dorn/dorn_search.h"

namespace {

const std::string plain_name = "collector.host.cpu.usage.user_percent";
const std::string canonical_name =
    plain_name + "|ST[dc:fra-2,env:production,host:web-0173.example,role:frontend]";
const std::string unsorted_name =
    plain_name + "|ST[role:frontend,host:web-0173.example,dc:fra-2,env:production]";
const std::string encoded_name =
    plain_name + "|ST[role:front end,host:web-0173.example,dc:b\"ZnJhLTI=\", env:production]";

void canonicalize(benchmark::State &state, const std::string &name) {
  char out[DORN_METRIC_NAME_BUFFER];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        dorn_metric_canonicalize_ex(name.data(), name.size(), out, sizeof out, true, true, false));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(canonicalize, untagged, plain_name);
BENCHMARK_CAPTURE(canonicalize, four_tags_canonical, canonical_name);
BENCHMARK_CAPTURE(canonicalize, four_tags_unsorted, unsorted_name);
BENCHMARK_CAPTURE(canonicalize, four_tags_encoding, encoded_name);

dorn_metric_tagset_t four_tags(dorn_tagset_text_e mode) {
  dorn_name_parts_t parts;
  dorn_metric_tagset_t set;
  dorn_metric_name_split(canonical_name.data(), canonical_name.size(), &parts);
  dorn_metric_tagset_init_with_context(&set, nullptr, canonical_name.data() + parts.tags_offset, parts.tags_len,
                                       mode);
  return set;
}

void tagset_parse(benchmark::State &state, dorn_tagset_text_e mode) {
  for (auto _ : state) {
    dorn_metric_tagset_t set = four_tags(mode);
    benchmark::DoNotOptimize(set);
    dorn_metric_tagset_cleanup(&set);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(tagset_parse, view, dorn_tagset_text_e::view);
BENCHMARK_CAPTURE(tagset_parse, copy, dorn_tagset_text_e::copy);

const char ten_terms[] =
    "and(dc:fra-*,env:production,not(role:database),or(host:web-*,host:app-*,host:api-*),host:*.example,"
    "not(env:staging),dc:fra-?,role:front*)";
const char ten_terms_exact[] =
    "and(dc:fra-2,env:production,not(role:database),or(host:x,host:y,host:web-0173.example),not(dc:ams),"
    "not(env:staging),role,role:frontend)";
const char ten_terms_pcre[] =
    "and(dc:/^fra-/,env:production,not(role:database),or(host:/^app-/,host:/^api-/,host:/^web-[0-9]+/),"
    "host:/example$/,not(env:staging),dc:fra-?,role:front*)";

void search_parse(benchmark::State &state, const char *query, bool lazy) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(lazy ? dorn_metric_tag_search_parse_lazy(query, nullptr)
                                  : dorn_metric_tag_search_parse(query, nullptr));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(search_parse, ten_terms, ten_terms, false);
BENCHMARK_CAPTURE(search_parse, ten_terms_pcre_lazy, ten_terms_pcre, true);
BENCHMARK_CAPTURE(search_parse, ten_terms_pcre, ten_terms_pcre, false);

void search_evaluate(benchmark::State &state, const char *query) {
  const auto tree = dorn_metric_tag_search_parse(query, nullptr);
  dorn_metric_tagset_t set = four_tags(dorn_tagset_text_e::view);
  if (!tree || !dorn_metric_tag_search_evaluate_against_tags(tree.get(), &set)) {
    state.SkipWithError("the query must match, so that all its terms are tried");
  }
  for (auto _ : state) benchmark::DoNotOptimize(dorn_metric_tag_search_evaluate_against_tags(tree.get(), &set));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(search_evaluate, one_term, "env:production");
BENCHMARK_CAPTURE(search_evaluate, ten_terms_exact, ten_terms_exact);
BENCHMARK_CAPTURE(search_evaluate, ten_terms_globs, ten_terms);
BENCHMARK_CAPTURE(search_evaluate, ten_terms_pcre, ten_terms_pcre);

}  // namespace
