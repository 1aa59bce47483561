#include "util/velmar_stats.h"

#include <sys/resource.h>

#include <string>
#include <string_view>

#include "platform/krel/base/krel_util.h"

namespace {

struct process_figures_t {
  double utime, stime;  // seconds
  int64_t maxrss, idrss, minflt, majflt, nswap, inblock, oublock, msgsnd, msgrcv, nsignals, nvcsw, nivcsw;
};

double seconds(const timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

void read_process_figures(process_figures_t *figures) {
  rusage usage;
  if (getrusage(RUSAGE_SELF, &usage) != 0) return;
  *figures = {seconds(usage.ru_utime), seconds(usage.ru_stime), usage.ru_maxrss, usage.ru_idrss,
              usage.ru_minflt,         usage.ru_majflt,         usage.ru_nswap,  usage.ru_inblock,
              usage.ru_oublock,        usage.ru_msgsnd,         usage.ru_msgrcv, usage.ru_nsignals,
              usage.ru_nvcsw,          usage.ru_nivcsw};
}

}  // namespace

stats_recorder_t *velmar_stats_get_recorder() {
  static stats_recorder_t *const recorder = [] {
    stats_recorder_t *made = stats_recorder_alloc();
    stats_ns_add_tag(stats_recorder_global_ns(made), "application", "velmar");
    return made;
  }();
  return recorder;
}

stats_ns_t *velmar_stats_get_ns(const char *path) {
  stats_recorder_t *recorder = velmar_stats_get_recorder();
  stats_ns_t *ns = stats_recorder_global_ns(recorder);
  std::string_view rest(path);
  while (!rest.empty()) {
    const size_t dot = rest.find('.');
    const std::string name(rest.substr(0, dot));
    rest.remove_prefix(dot == std::string_view::npos ? rest.size() : dot + 1);
    if (!name.empty()) ns = stats_register_ns(recorder, ns, name.c_str());
  }
  return ns;
}

stats_handle_t *velmar_stats_get_handle(const char *name, int type) {
  const std::string_view whole(name);
  const size_t dot = whole.rfind('.');
  if (dot == std::string_view::npos) return stats_register(velmar_stats_get_ns(""), name, type);
  return stats_register(velmar_stats_get_ns(std::string(whole.substr(0, dot)).c_str()), name + dot + 1, type);
}

void velmar_stats_register_process() {
  static process_figures_t figures;  // written and read under the recorder's reading only
  static const uint64_t started_ns = krel_gethrtime();
  stats_ns_t *ns = velmar_stats_get_ns("process");
  stats_ns_invoke(ns, [] { read_process_figures(&figures); });
  const auto observe = [&](const char *name, int kind, const void *memory) {
    stats_observe(stats_register(ns, name, kind), kind, memory);
  };
  observe("utime", STATS_TYPE_DOUBLE, &figures.utime);
  observe("stime", STATS_TYPE_DOUBLE, &figures.stime);
  observe("maxrss", STATS_TYPE_INT64, &figures.maxrss);
  observe("idrss", STATS_TYPE_INT64, &figures.idrss);
  observe("minflt", STATS_TYPE_INT64, &figures.minflt);
  observe("majflt", STATS_TYPE_INT64, &figures.majflt);
  observe("nswap", STATS_TYPE_INT64, &figures.nswap);
  observe("inblock", STATS_TYPE_INT64, &figures.inblock);
  observe("oublock", STATS_TYPE_INT64, &figures.oublock);
  observe("msgsnd", STATS_TYPE_INT64, &figures.msgsnd);
  observe("msgrcv", STATS_TYPE_INT64, &figures.msgrcv);
  observe("nsignals", STATS_TYPE_INT64, &figures.nsignals);
  observe("nvcsw", STATS_TYPE_INT64, &figures.nvcsw);
  observe("nivcsw", STATS_TYPE_INT64, &figures.nivcsw);
  stats_invoke(velmar_stats_get_handle("uptime", STATS_TYPE_DOUBLE),
               [] { return static_cast<double>(krel_gethrtime() - started_ns) / 1e9; });
}
