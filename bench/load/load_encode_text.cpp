#include <cstring>
#include <string>
#include <vector>

#include "load_encode.h"
#include "load_number.h"

namespace {

constexpr size_t LINE_ROOM = 1024;  // above what a line takes beside its fixed middle

// Bytes of a histogram: the byte 1, the number of bins, then per bin its value, exponent and count.
size_t pack(const load_value_t &value, uint8_t *out) {
  uint8_t *at = out;
  const auto leb128 = [&at](uint64_t n) {
    for (; n > 127; n >>= 7) *at++ = static_cast<uint8_t>(n) | 128;
    *at++ = static_cast<uint8_t>(n);
  };
  *at++ = 1;
  leb128(static_cast<uint64_t>(value.bin_count));
  for (int i = 0; i < value.bin_count; i++) {
    *at++ = static_cast<uint8_t>(value.bins[i].val);
    *at++ = static_cast<uint8_t>(value.bins[i].exp);
    leb128(value.bins[i].count);
  }
  return static_cast<size_t>(at - out);
}

char *base64(const uint8_t *in, size_t length, char *out) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t i = 0; i < length; i += 3) {
    const size_t n = std::min<size_t>(3, length - i);
    const uint32_t word = static_cast<uint32_t>(in[i] << 16) |
                          (n > 1 ? static_cast<uint32_t>(in[i + 1] << 8) : 0) | (n > 2 ? in[i + 2] : 0);
    *out++ = digits[word >> 18];
    *out++ = digits[word >> 12 & 63];
    *out++ = n > 1 ? digits[word >> 6 & 63] : '=';
    *out++ = n > 2 ? digits[word & 63] : '=';
  }
  return out;
}

class text_encoder_c : public load_encoder_c {
 public:
  text_encoder_c(const load_data_c &data, uint64_t first, uint64_t count) : m_data(data), m_first(first) {
    m_middles.reserve(count);
    for (uint64_t s = first; s < first + count; s++) {
      const char *letter[] = {"\tn\t", "\tL\t", "\ti\t", "\tn\t", "\tn\t", "\t"};
      m_middles.push_back("\t" + data.check_name(s) + "`" + data.uuid(s) + "\t" + data.metric_name(s) +
                          letter[static_cast<int>(data.kind(s))]);
    }
  }

  void begin() override { m_used = 0; }
  void add(uint64_t series, uint64_t step, uint64_t steps) override;
  std::string_view end() override { return {m_buffer.data(), m_used}; }
  const char *content_type() const override { return "text/plain"; }

 private:
  const load_data_c &m_data;
  const uint64_t m_first;
  std::vector<std::string> m_middles;  // what stands between the time and the value
  std::vector<char> m_buffer;
  size_t m_used = 0;
  load_value_t m_value;
};

void text_encoder_c::add(uint64_t series, uint64_t step, uint64_t steps) {
  const std::string &middle = m_middles[series - m_first];
  const size_t room = m_used + steps * (middle.size() + LINE_ROOM);
  if (m_buffer.size() < room) m_buffer.resize(2 * room);
  char *at = m_buffer.data() + m_used;
  for (uint64_t i = 0; i < steps; i++) {
    m_data.value(series, step + i, &m_value);
    const bool is_histogram = m_value.kind == kind_e::histogram;
    memcpy(at, is_histogram ? "H1\t" : "M\t", 3);
    at += is_histogram ? 3 : 2;
    at = put_time(at, m_data.time_ms(step + i));
    memcpy(at, middle.data(), middle.size());
    at += middle.size();
    if (is_histogram) {
      uint8_t packed[MAX_BINS * 12 + 8];
      at = base64(packed, pack(m_value, packed), at);
    } else if (m_value.is_null) {
      memcpy(at, "[[null]]", 8);
      at += 8;
    } else if (m_value.kind == kind_e::real) {
      at = std::to_chars(at, at + 32, m_value.real).ptr;
    } else if (m_value.kind == kind_e::counter || m_value.kind == kind_e::integer) {
      at = put_number(at, m_value.integer);
    } else {
      at = put_hundredths(at, m_value.integer);
    }
    *at++ = '\n';
  }
  m_used = static_cast<size_t>(at - m_buffer.data());
}

}  // namespace

std::unique_ptr<load_encoder_c> make_text_encoder(const load_data_c &data, uint64_t first, uint64_t count) {
  return std::make_unique<text_encoder_c>(data, first, count);
}
