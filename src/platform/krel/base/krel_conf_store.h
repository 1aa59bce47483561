#pragma once
// The one configuration document of the process. Only krel_conf*.cpp include it.

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/krel/base/krel_conf_document.h"
#include "platform/krel/base/thread_annotations.h"

struct krel_conf_section_s {
  std::shared_ptr<const krel_conf_snapshot_c> snapshot;
  _xmlNode *node;  // an element of the snapshot
};

// Logs "configuration error: ..." and ends the process with 2.
[[noreturn]] void krel_conf_error(const std::string &what);

class krel_conf_store_c {
 public:
  static krel_conf_store_c &get();

  bool load(const char *path, const std::string_view *text);
  std::shared_ptr<const krel_conf_snapshot_c> current();  // null before the first load
  std::string filename();

  // Changes run under this one; it is recursive, since a section that is open for edits holds it.
  std::unique_lock<std::recursive_mutex> lock_changes() { return std::unique_lock(m_changes); }
  krel_conf_sources_c *sources() { return m_sources.get(); }  // under the lock of changes
  // Makes what the sources now say the current document. False, logged, when that is none: readers
  // keep the document before, and changes wait for a publish that works.
  bool publish();
  bool stale() const { return m_stale; }  // under the lock of changes

 private:
  std::recursive_mutex m_changes;  // guards m_sources; taken before m_mutex
  std::unique_ptr<krel_conf_sources_c> m_sources;
  bool m_stale = false;  // the current document points at nodes that an edit may have freed
  krel_mutex_c m_mutex;
  std::shared_ptr<const krel_conf_snapshot_c> m_current GUARDED_BY(m_mutex);
};
