#include <cstring>
#include <string>
#include <vector>

#include "load_encode.h"
#include "load_number.h"

namespace {

constexpr size_t LINE_ROOM = 128;  // above what a line takes beside its name

// `name|ST[a:b,c:d]` as it is sent: "name;a=b;c=d".
std::string graphite_name(const std::string &canonical) {
  const size_t tags = canonical.find("|ST[");
  std::string out = canonical.substr(0, tags);
  if (tags == canonical.npos) return out;
  bool in_category = true;
  out += ';';
  for (const char c : canonical.substr(tags + 4, canonical.size() - tags - 5)) {
    out += c == ',' ? ';' : c == ':' && in_category ? '=' : c;
    in_category = c == ',' || (in_category && c != ':');
  }
  return out;
}

class graphite_encoder_c : public load_encoder_c {
 public:
  graphite_encoder_c(const load_data_c &data, uint64_t first, uint64_t count) : m_data(data), m_first(first) {
    m_names.reserve(count);
    for (uint64_t s = first; s < first + count; s++)
      m_names.push_back(graphite_name(data.metric_name(s)) + " ");
  }

  void begin() override { m_used = 0; }
  void add(uint64_t series, uint64_t step, uint64_t steps) override;
  std::string_view end() override { return {m_buffer.data(), m_used}; }
  const char *content_type() const override { return "text/plain"; }

 private:
  const load_data_c &m_data;
  const uint64_t m_first;
  std::vector<std::string> m_names;
  std::vector<char> m_buffer;
  size_t m_used = 0;
  load_value_t m_value;
};

void graphite_encoder_c::add(uint64_t series, uint64_t step, uint64_t steps) {
  const std::string &name = m_names[series - m_first];
  const size_t room = m_used + steps * (name.size() + LINE_ROOM);
  if (m_buffer.size() < room) m_buffer.resize(2 * room);
  char *at = m_buffer.data() + m_used;
  for (uint64_t i = 0; i < steps; i++) {
    m_data.value(series, step + i, &m_value);
    memcpy(at, name.data(), name.size());
    at += name.size();
    if (m_value.kind == kind_e::real)
      at = std::to_chars(at, at + 32, m_value.real).ptr;
    else if (m_value.kind == kind_e::gauge)
      at = put_hundredths(at, m_value.integer);
    else
      at = put_number(at, m_value.integer);
    *at++ = ' ';
    at = put_time(at, m_data.time_ms(step + i));
    *at++ = '\n';
  }
  m_used = static_cast<size_t>(at - m_buffer.data());
}

}  // namespace

std::unique_ptr<load_encoder_c> make_graphite_encoder(const load_data_c &data, uint64_t first, uint64_t count) {
  return std::make_unique<graphite_encoder_c>(data, first, count);
}
