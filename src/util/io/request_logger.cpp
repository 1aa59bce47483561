#include "util/io/request_logger.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/io/file_helpers.h"

namespace {

// Written by init, before requests are served; read only from then on.
struct settings_t {
  std::string directory;  // empty: off
  bool save_post_bodies = false;
  bool remove_after_finish = false;
};
settings_t g_settings;
std::atomic<uint64_t> g_number{0};

void prepare_directory(const std::string &directory) {
  const char *path = directory.c_str();
  struct stat st;
  if (stat(path, &st) == 0) {
    if (!S_ISDIR(st.st_mode)) krel_fatal("ERROR: directory %s exists, but is not a directory\n", path);
    return;
  }
  if (errno != ENOENT)
    krel_fatal("ERROR: couldn't access directory %s: error code %d (%s)\n", path, errno, strerror(errno));
  if (const std::error_code error = util::io::mkdir_for_file(directory + "/", 0777))
    krel_fatal("ERROR: couldn't create directory %s: error code %d (%s)\n", path, error.value(),
               error.message().c_str());
}

std::string request_text(const struct timeval &now, const char *url, std::string_view body) {
  struct tm tm;
  char date[32];
  gmtime_r(&now.tv_sec, &tm);
  strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &tm);
  std::string text = fmt::format("TIME: {}.{}\n", date, fmt::format("{:06}", now.tv_usec));
  text += fmt::format("REQUEST:\n{}\n", url);
  if (g_settings.save_post_bodies && !body.empty()) text += fmt::format("POST DATA:\n{}\n", body);
  return text;
}

}  // namespace

void request_logger_init() {
  settings_t settings;
  krel_conf_get_string(KREL_CONF_ROOT, "//request_logger/@directory", &settings.directory);
  krel_conf_get_boolean(KREL_CONF_ROOT, "//request_logger/@save_post_bodies", &settings.save_post_bodies);
  krel_conf_get_boolean(KREL_CONF_ROOT, "//request_logger/@remove_after_finish", &settings.remove_after_finish);
  if (!settings.directory.empty()) prepare_directory(settings.directory);
  g_settings = std::move(settings);
}

bool request_logger_enabled() {
  return !g_settings.directory.empty();
}

std::string request_logger_start_request(const char *url, std::string_view body) {
  if (!request_logger_enabled()) return "";
  if (!url || !*url) {
    krel_log(krel_error, "%s: no url provided to request_logger utility\n", __func__);
    return "";
  }
  struct timeval now;
  krel_gettimeofday(&now, nullptr);
  const std::string name = fmt::format("{}.{:06}-{}", now.tv_sec, now.tv_usec, ++g_number);
  const std::string path = fmt::format("{}/{}.txt", g_settings.directory, name);
  std::unique_ptr<util::io::file_c> file;
  if (util::io::system_files().open(path, util::io::open_mode_e::create_new, &file, 0600)) {
    krel_log(krel_error, "Unable to open file '%s' to log request body\n", path.c_str());
    return "";
  }
  const std::string text = request_text(now, url, body);
  if (const std::error_code error = file->append(text.data(), text.size()))
    krel_log(krel_error, "Unable to write file '%s': %s\n", path.c_str(), error.message().c_str());
  return path;
}

void request_logger_end_request(const std::string &path) {
  if (path.empty() || !g_settings.remove_after_finish) return;
  if (const std::error_code error = util::io::system_files().unlink(path))
    krel_log(krel_error, "Unable to remove file '%s': %s\n", path.c_str(), error.message().c_str());
}
