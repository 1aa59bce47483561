#include "db/raw/nom/nom_format.h"

namespace velmar_db_raw_nom {
namespace {

bool blobs_are_well_formed(std::string_view record, size_t blob_area) {
  const char *const area = record.data() + blob_area;
  const uint64_t area_length = record.size() - blob_area;
  uint64_t place = 0;
  for (size_t at = HEADER_LEN; at < blob_area; at += sizeof(hist_offset_measurement_t)) {
    hist_offset_measurement_t measurement;
    memcpy(&measurement, record.data() + at, sizeof measurement);
    if (measurement.value != place || area_length - place < BLOB_LENGTH_LEN) return false;
    uint64_t length;
    memcpy(&length, area + place, sizeof length);
    place += BLOB_LENGTH_LEN;
    if (length > area_length - place) return false;
    place += length;
  }
  return place == area_length;
}

}  // namespace

bool is_well_formed(std::string_view record) {
  if (record.size() < HEADER_LEN) return false;
  const rocks_entry_header_t header = header_of(record);
  const uint64_t size = measurement_size(header.type);
  if (size == 0) return false;
  const uint64_t measurements_end = HEADER_LEN + size * header.entry_count;
  if (is_numeric_type(header.type)) return record.size() == measurements_end;
  return record.size() >= measurements_end && blobs_are_well_formed(record, measurements_end);
}

}  // namespace velmar_db_raw_nom
