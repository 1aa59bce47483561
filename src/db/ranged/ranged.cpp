#include "db/ranged/ranged.h"

namespace db::kv {

const char *ranged_error_text(code_e code) {
  switch (code) {
    case code_e::NONE:
      return "no error?  probably not initialized";
    case code_e::INTERNAL:
      return "internal error";
    case code_e::NO_MEM:
      return "memory exhausted";
    case code_e::UNALIGNED_OFFSET:
      return "unaligned offset";
    case code_e::METRIC_NAME_TOO_LONG:
      return "metric name too long";
    case code_e::NO_SUCH_ROLLUP:
      return "no such rollup";
    case code_e::TOO_MANY_JOBS:
      return "too many jobs on backlog";
  }
  return "unknown error";
}

}  // namespace db::kv
