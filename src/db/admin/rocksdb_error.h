#pragma once
// Error texts that RocksDB's C interface allocates.

#include <rocksdb/c.h>

#include <string>

namespace velmar_db_admin {

// Passed as `errptr`: `some_call(..., error.ptr())`. Each call frees what the one before left.
class rocksdb_error_c {
 public:
  rocksdb_error_c() = default;
  ~rocksdb_error_c() { clear(); }
  rocksdb_error_c(const rocksdb_error_c &) = delete;
  rocksdb_error_c &operator=(const rocksdb_error_c &) = delete;

  char **ptr() {
    clear();
    return &m_text;
  }
  explicit operator bool() const { return m_text != nullptr; }
  const char *text() const { return m_text != nullptr ? m_text : "unknown error"; }

 private:
  void clear() {
    if (m_text != nullptr) rocksdb_free(m_text);
    m_text = nullptr;
  }
  char *m_text = nullptr;
};

}  // namespace velmar_db_admin
