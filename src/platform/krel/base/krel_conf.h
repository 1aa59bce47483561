#pragma once
// The configuration: one XML document with its includes, read through XPath; the first match in
// document order wins, an attribute gives its value, an element its text without the blanks around it.
// ${NAME} and ${NAME:-default} in a value are taken from the environment unless env="off" stands on
// the element or above it. Paths are taken from the section: KREL_CONF_ROOT is the document itself, so
// "//a/@b", "/velmar/a/@b" and "velmar/a/@b" all work.
//
// Every getter returns true when the key is there and leaves *out untouched when it is missing. A value
// that cannot be read as asked for is a configuration error: it is logged on "error" with file, line,
// key and remedy, and the process exits with 2.
//
// Reads are safe from any thread and see the document as of one moment; loading and changing replace it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

struct _xmlNode;
struct krel_conf_section_s;
struct krel_duration_units_t;

// An element of the document. A value: copies are cheap, it keeps the document that it came from alive.
using krel_conf_section_t = std::shared_ptr<const krel_conf_section_s>;
inline const krel_conf_section_t KREL_CONF_ROOT = nullptr;

// Reads the file and its includes. On failure logs why, keeps the document in force, returns false.
bool krel_conf_load(const char *path);
// The same for a text; includes are looked for beside `filename`, which need not exist.
bool krel_conf_load_text(std::string_view text, const char *filename);
std::string krel_conf_config_filename();  // absolute; "" before anything was loaded

// ---- reading
bool krel_conf_get_int32(const krel_conf_section_t &section, const char *path, int32_t *out);
bool krel_conf_get_uint32(const krel_conf_section_t &section, const char *path, uint32_t *out);
bool krel_conf_get_int64(const krel_conf_section_t &section, const char *path, int64_t *out);
bool krel_conf_get_uint64(const krel_conf_section_t &section, const char *path, uint64_t *out);
bool krel_conf_get_double(const krel_conf_section_t &section, const char *path, double *out);
bool krel_conf_get_boolean(const krel_conf_section_t &section, const char *path, bool *out);
bool krel_conf_get_string(const krel_conf_section_t &section, const char *path, std::string *out);
// With its NUL; a value that does not fit is a configuration error.
bool krel_conf_get_stringbuf(const krel_conf_section_t &section, const char *path, char *out, size_t size);
bool krel_conf_get_duration(const krel_conf_section_t &section, const char *path,
                            const krel_duration_units_t *units, uint64_t *out);
bool krel_conf_get_size(const krel_conf_section_t &section, const char *path, uint64_t *out);  // bytes

// All matching elements, in document order.
std::vector<krel_conf_section_t> krel_conf_get_sections_read(const krel_conf_section_t &section,
                                                             const char *path);
krel_conf_section_t krel_conf_get_section_read(const krel_conf_section_t &section,
                                               const char *path);  // or null
bool krel_conf_section_is_empty(const krel_conf_section_t &section);
std::string krel_conf_section_name(const krel_conf_section_t &section);  // the element's
bool krel_conf_env_off(const krel_conf_section_t &section);
// Writes the element as XML, the environment not put in, and a newline.
bool krel_conf_write_section(const krel_conf_section_t &section, int fd);
// For reading only; valid while the section is kept.
const _xmlNode *krel_conf_section_to_xmlnodeptr(const krel_conf_section_t &section);

// ---- changing. Changes are in force at once and on disk after krel_conf_write_file.
// Elements of `path` that are missing are made; the path is then of plain steps ("velmar/a/@b").
bool krel_conf_set_string(const krel_conf_section_t &section, const char *path, std::string_view value);
// An element of the document as it is written, for direct edits: they come into force when this ends.
// Until then other changes wait.
class krel_conf_section_write_t {
 public:
  krel_conf_section_write_t(krel_conf_section_write_t &&) noexcept;
  ~krel_conf_section_write_t();
  explicit operator bool() const { return m_node != nullptr; }
  _xmlNode *node() const { return m_node; }

 private:
  friend krel_conf_section_write_t krel_conf_get_section_write(const krel_conf_section_t &, const char *);
  krel_conf_section_write_t() = default;
  std::unique_lock<std::recursive_mutex> m_lock;
  _xmlNode *m_node = nullptr;
};
krel_conf_section_write_t krel_conf_get_section_write(const krel_conf_section_t &section, const char *path);
inline _xmlNode *krel_conf_section_to_xmlnodeptr(const krel_conf_section_write_t &section) {
  return section.node();
}
// Writes every file of the document that has changes, each by way of a synced temporary file beside it.
// False with the reason, and the changes still to be written, when one cannot be written.
bool krel_conf_write_file(std::string *error);

// ---- values as text
// A table of unit sizes in seconds, milliseconds or microseconds.
const krel_duration_units_t *krel_get_durations_s();
const krel_duration_units_t *krel_get_durations_ms();
const krel_duration_units_t *krel_get_durations_us();
// One or more <unsigned integer><unit>, summed ("1d12h"): ns us ms s sec m min h hr d w y (365 d). False
// for a bare number, an overflow and a term that is no whole number of the table's resolution.
bool krel_confstr_parse_duration(std::string_view text, const krel_duration_units_t *units, uint64_t *out);
bool krel_confstr_parse_boolean(std::string_view text, bool *out);  // true on yes 1, false off no 0
// An integer and optionally K M G T (powers of 1024), behind it optionally B or iB.
bool krel_confstr_parse_size(std::string_view text, uint64_t *bytes);
// RFC 3339, a decimal number of seconds since 1970, or "now". Finer than microseconds is cut off.
bool krel_confstr_parse_time_gm(std::string_view text, int64_t *since_1970_us);

// ---- what the configuration sets up
// `//localstate/@directory`, else "/<app>/localstate".
std::string krel_conf_local_state_directory(const char *app);
// Sets up the log streams of <logs>. Without settings of their own lines go to standard error in the
// foreground, else to "<local state>/<app>.log". A file that cannot be opened is a configuration error.
void krel_conf_log_init(const char *app, bool foreground);
// This process rotates the log files from now on (others that share them do not).
void krel_conf_log_init_rotate(const char *app, int unused);
// Changes root (empty: not), then drops to group and user (names or numbers; empty: not). A failure is
// a configuration error.
void krel_conf_security_init(const char *app, const char *user, const char *group, const char *chroot_path);
