#include "db/raw/nom/factory.h"

#include "db/raw/nom/nom_type.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_raw_nom {

std::shared_ptr<handle_c> factory_c::open_priv(const std::string &shard_path, uint64_t start_s) {
  const std::string location = shard_path + "/data";
  data_db_params_t params = m_params;
  params.max_db_write_buffer_size = max_db_write_buffer_size_from_conf();
  params.start_s = start_s;
  auto db = std::make_unique<data_db_c>(location, params);
  db->setup_shard();
  db->check_for_and_create_shard();
  if (!db->open_shard()) {
    krel_log(krel_error, "Could not open payload DB at %s\n", location.c_str());
    return nullptr;
  }
  return std::make_shared<handle_c>(std::move(db));
}

}  // namespace velmar_db_raw_nom
