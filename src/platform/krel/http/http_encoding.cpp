#include "platform/krel/http/http_encoding.h"

#include "platform/krel/http/krel_http.h"

namespace {

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

std::string_view next_part(std::string_view &rest, char separator) {
  const size_t at = rest.find(separator);
  const std::string_view part = rest.substr(0, at);
  rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + 1);
  return trim(part);
}

// "q=0.5" in thousandths; -1 when it is none.
int parse_q(std::string_view text) {
  if (text.size() < 3 || (text[0] | 0x20) != 'q' || text[1] != '=' || (text[2] != '0' && text[2] != '1'))
    return -1;
  int q = (text[2] - '0') * 1000;
  if (text.size() == 3) return q;
  if (text[3] != '.' || text.size() > 7) return -1;
  int unit = 100;
  for (char c : text.substr(4)) {
    if (c < '0' || c > '9') return -1;
    q += (c - '0') * unit;
    unit /= 10;
  }
  return q <= 1000 ? q : -1;
}

thread_local krel_stream_compress_ptr spare_context;

}  // namespace

krel_compress_type_e http_accepted_encoding(std::string_view accept_encoding, int allowed) {
  krel_compress_type_e best = KREL_COMPRESS_NONE;
  int best_q = 0, gzip_q = -1, any_q = -1;
  while (!accept_encoding.empty()) {
    std::string_view item = next_part(accept_encoding, ',');
    const std::string_view name = next_part(item, ';');
    int q = 1000;
    while (!item.empty()) q = parse_q(next_part(item, ';'));
    if (name == "*") any_q = q;
    krel_compress_type_e type;
    if (name.empty() || name == "*" || !krel_compress_type_parse(name, &type)) continue;
    if (type == KREL_COMPRESS_GZIP) gzip_q = q;
    const int option = type == KREL_COMPRESS_GZIP   ? KREL_HTTP_GZIP
                       : type == KREL_COMPRESS_LZ4F ? KREL_HTTP_LZ4F
                                                    : 0;
    if ((option & allowed) != 0 && q > best_q) {
      best = type;
      best_q = q;
    }
  }
  if (gzip_q < 0 && any_q > best_q && (allowed & KREL_HTTP_GZIP)) return KREL_COMPRESS_GZIP;
  return best;
}

bool http_encoder_c::start(krel_compress_type_e type) {
  m_context = std::move(spare_context);
  if (!m_context) m_context.reset(krel_create_stream_compress_ctx());
  if (m_context && krel_stream_compress_init(m_context.get(), type) == 0) return true;
  m_context.reset();
  return false;
}

void http_encoder_c::stop() {
  if (!m_context) return;
  spare_context = std::move(m_context);
}

bool http_encoder_c::encode(const void *bytes, size_t length, http_queue_c &out) {
  const char *from = static_cast<const char *>(bytes);
  for (;;) {
    const auto [to, room] = out.tail_room();
    size_t taken = length, made = room;
    if (krel_stream_compress(m_context.get(), from, &taken, to, &made) != 0) return false;
    out.commit(made);
    from += taken;
    length -= taken;
    if (length == 0 && made < room) return true;
  }
}

bool http_encoder_c::run(step_t step, http_queue_c &out) {
  for (;;) {
    const auto [to, room] = out.tail_room();
    size_t made = room;
    const int result = step(m_context.get(), to, &made);
    if (result < 0) return false;
    out.commit(made);
    if (result == 0) return true;
  }
}

bool http_encoder_c::flush(http_queue_c &out) {
  return run(krel_stream_compress_flush, out);
}

bool http_encoder_c::finish(http_queue_c &out) {
  return run(krel_stream_compress_finish, out);
}
