#include "db/raw/nom/raw_interfaces.h"

#include "db/raw/record/raw_entry.h"
#include "platform/krel/base/krel_log.h"

namespace db::raw {

const raw_key_c &raw_error_reader_c::get_key() const {
  krel_fatal("a reading error has no key: %s\n", m_error.get_text().c_str());
}
const raw_value_c &raw_error_reader_c::get_value() const {
  krel_fatal("a reading error has no value: %s\n", m_error.get_text().c_str());
}
raw_value_c raw_error_reader_c::take_value() {
  krel_fatal("a reading error has no value: %s\n", m_error.get_text().c_str());
}

bool raw_reader_asynch_c::read_numeric(uint64_t, uint64_t, uint64_t, const numeric_samples_f &,
                                       std::string *error) {
  *error = "this is no store of numbers";
  return false;
}
std::optional<nom_sample_t> raw_reader_asynch_c::find_last_numeric(uint64_t, uint64_t, uint64_t, nulls_e,
                                                                   std::string *error) {
  *error = "this is no store of numbers";
  return {};
}

}  // namespace db::raw
