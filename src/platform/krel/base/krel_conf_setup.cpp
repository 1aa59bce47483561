// What the configuration sets up for the process: log outlets, dropped rights.

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_conf_store.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace {

bool given(const char *text) {
  return text != nullptr && *text != '\0';
}

[[noreturn]] void cannot(const char *what, const char *name) {
  krel_conf_error(fmt::format("cannot {} '{}': {}", what, name, std::strerror(errno)));
}

struct identity_t {
  uid_t uid;
  gid_t gid;
  std::string name;
};

identity_t user_of(const char *user) {
  uint64_t number;
  struct passwd *found = getpwnam(user);
  if (found == nullptr && krel_parse_uint64(user, &number) && number < UINT32_MAX) {
    found = getpwuid(static_cast<uid_t>(number));
    if (found == nullptr) return {static_cast<uid_t>(number), getgid(), ""};
  }
  if (found == nullptr) krel_conf_error(fmt::format("there is no user '{}'", user));
  return {found->pw_uid, found->pw_gid, found->pw_name};
}

gid_t group_of(const char *group) {
  uint64_t number;
  if (struct group *found = getgrnam(group)) return found->gr_gid;
  if (krel_parse_uint64(group, &number) && number < UINT32_MAX) return static_cast<gid_t>(number);
  krel_conf_error(fmt::format("there is no group '{}'", group));
}

}  // namespace

std::string krel_conf_local_state_directory(const char *app) {
  std::string directory = fmt::format("/{}/localstate", app);
  krel_conf_get_string(KREL_CONF_ROOT, "//localstate/@directory", &directory);
  return directory;
}

void krel_conf_log_init(const char *app, bool foreground) {
  std::vector<krel_log_setting_t> settings;
  for (const krel_conf_section_t &section : krel_conf_get_sections_read(KREL_CONF_ROOT, "//logs/log")) {
    krel_log_setting_t setting;
    if (!krel_conf_get_string(section, "@name", &setting.name) || setting.name.empty())
      krel_conf_error(fmt::format("{}: write a name", section->snapshot->describe(section->node)));
    bool enabled;
    if (krel_conf_get_boolean(section, "@enabled", &enabled)) setting.enabled = enabled;
    krel_conf_get_string(section, "@path", &setting.path);
    krel_conf_get_uint64(section, "@rotate_seconds", &setting.rotate_seconds);
    krel_conf_get_uint64(section, "@retain_seconds", &setting.retain_seconds);
    settings.push_back(std::move(setting));
  }
  std::string fallback = foreground ? "-" : fmt::format("{}/{}.log", krel_conf_local_state_directory(app), app);
  std::string error;
  if (!krel_log_configure(settings, fallback, &error)) krel_conf_error(error);
}

void krel_conf_log_init_rotate(const char *app, int unused) {
  krel_log_rotation(true);
}

void krel_conf_security_init(const char *app, const char *user, const char *group, const char *chroot_path) {
  // names are looked up before the root changes and with it the files that hold them
  identity_t identity{getuid(), getgid(), ""};
  if (given(user)) identity = user_of(user);
  if (given(group)) identity.gid = group_of(group);
  if (given(chroot_path)) {
    tzset();
    if (::chroot(chroot_path) != 0 || ::chdir("/") != 0) cannot("change the root to", chroot_path);
  }
  if (!given(user) && !given(group)) return;
  int on_parent_death = 0;  // dropping rights clears it
  prctl(PR_GET_PDEATHSIG, &on_parent_death);
  bool may_set_groups = geteuid() == 0;
  if (may_set_groups) {
    int failed =
        identity.name.empty() ? setgroups(1, &identity.gid) : initgroups(identity.name.c_str(), identity.gid);
    if (failed) cannot("take on the groups of", given(user) ? user : group);
  }
  if (setresgid(identity.gid, identity.gid, identity.gid) != 0)
    cannot("drop to group", given(group) ? group : user);
  if (given(user) && setresuid(identity.uid, identity.uid, identity.uid) != 0) cannot("drop to user", user);
  if (given(user) && identity.uid != 0 && setuid(0) == 0)
    krel_conf_error(fmt::format("dropped to user '{}' but could return to root", user));
  if (on_parent_death != 0) prctl(PR_SET_PDEATHSIG, on_parent_death);
}
