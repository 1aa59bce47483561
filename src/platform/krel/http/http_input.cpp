#include "platform/krel/http/http_input.h"

#include <algorithm>

namespace {
constexpr size_t least_body_room = 4096;
}

ssize_t http_input_c::read(http_transport_c &transport) {
  const size_t room = m_block->capacity - m_raw_end;
  const ssize_t n = transport.read(at(m_raw_end), room);
  m_short = n < static_cast<ssize_t>(room);
  if (n > 0) m_raw_end += static_cast<size_t>(n);
  return n;
}

ssize_t http_input_c::fill_header(http_transport_c &transport) {
  if (!m_block) m_block = http_segment_alloc();
  if (m_raw_end == m_block->capacity) {
    const size_t used = m_raw_end - m_start;
    http_segment_ptr to;
    if (used > m_block->capacity / 2)
      to = http_segment_alloc(std::min(2 * m_block->capacity, 2 * HTTP_MAX_HEADER));
    memmove(to ? to->data() : at(0), at(m_start), used);
    if (to) m_block = std::move(to);
    m_raw -= m_start;
    m_raw_end = used;
    m_start = 0;
  }
  return read(transport);
}

ssize_t http_input_c::fill_body(http_transport_c &transport, http_segment_ptr *header_block) {
  if (m_block->capacity - m_floor < least_body_room) {
    *header_block = std::move(m_block);
    m_block = http_segment_alloc();
    m_floor = 0;
  }
  m_stage = m_stage_end = m_raw = m_raw_end = m_floor;
  return read(transport);
}

void http_input_c::end_request() {
  m_floor = m_stage = m_stage_end = 0;
  m_start = m_raw;
  if (m_raw == m_raw_end) release();
}
