#include "db/admin/rocksdb_logger.h"

#include <rocksdb/c.h>
#include <rocksdb/env.h>
#include <rocksdb/version.h>

#include <memory>

#include "platform/krel/base/krel_log.h"

// The C interface takes a logger but makes none: this is how RocksDB itself lays the handle out.
static_assert(ROCKSDB_MAJOR == 7 && ROCKSDB_MINOR == 8, "look at rocksdb_logger_t in RocksDB's C interface");
struct rocksdb_logger_t {
  std::shared_ptr<rocksdb::Logger> rep;
};

namespace velmar_db_admin {
namespace {

class VelmarLogger : public rocksdb::Logger {
 public:
  VelmarLogger() : Logger(rocksdb::InfoLogLevel::INFO_LEVEL), m_debug(krel_log_stream_find("rocksdb")) {}

  void Logv(const char *format, va_list args) override {
    if (!krel_log_has_material_output(m_debug)) return;
    krel_vlog(m_debug, nullptr, __FILE__, __LINE__, format, args);
  }
  void Logv(const rocksdb::InfoLogLevel level, const char *format, va_list args) override {
    if (level >= GetInfoLogLevel()) Logv(format, args);
  }

 private:
  krel_log_stream_t *const m_debug;
};

}  // namespace

void set_info_log(rocksdb_options_t *options) {
  static const auto *const shared = new std::shared_ptr<rocksdb::Logger>(std::make_shared<VelmarLogger>());
  rocksdb_logger_t logger{*shared};
  rocksdb_options_set_info_log(options, &logger);
}

}  // namespace velmar_db_admin
