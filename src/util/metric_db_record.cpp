#include "util/metric_db_record.h"

#include <charconv>
#include <cstdint>

#include "util/uuid_text.h"

metric_db_record_type_e metric_db_record_type_lookup(std::string_view text) {
  return text == "M" ? METRIC_DB_RECORD_TYPE_M : METRIC_DB_RECORD_TYPE_UNKNOWN;
}

namespace {

bool cut(std::string_view *left, std::string_view *field) {
  const size_t tab = left->find('\t');
  if (tab == std::string_view::npos) return false;
  *field = left->substr(0, tab);
  left->remove_prefix(tab + 1);
  return true;
}

// Digits alone.
bool parse_number(std::string_view text, uint32_t largest, uint32_t *out) {
  const char *const end = text.data() + text.size();
  const auto [stop, code] = std::from_chars(text.data(), end, *out);
  return code == std::errc() && stop == end && *out <= largest;
}

}  // namespace

bool metric_db_record_parse_m(std::string_view line, metric_db_record_m_t *out) {
  std::string_view account, check_name, metric_name, category = line;
  uint32_t kinds;
  if (!cut(&category, &account) || !cut(&category, &out->check_uuid_str) || !cut(&category, &check_name) ||
      !cut(&category, &metric_name) || !parse_number(account, INT32_MAX, &out->account_id) ||
      out->check_uuid_str.size() != UUID_TEXT_SIZE ||
      !uuid_text_parse(out->check_uuid_str.data(), out->check_uuid) || metric_name.empty() ||
      !parse_number(category, UINT8_MAX, &kinds) || line.find('\0') != std::string_view::npos)
    return false;
  mem_reader_init_mem(&out->check_name_buf, check_name.data(), check_name.size());
  mem_reader_init_mem(&out->metric_name_buf, metric_name.data(), metric_name.size());
  out->category = static_cast<uint8_t>(kinds);
  return true;
}
