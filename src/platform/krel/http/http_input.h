#pragma once
// The bytes a connection has received and not yet handed on, in one block:
//   [0, floor)          the header of the request at hand: stays where it is until the request ends
//   [stage, stage_end)  body bytes with the chunk framing taken off
//   [raw, raw_end)      not yet parsed
// The block is there only while it holds something.

#include <cstring>

#include "platform/krel/http/http_segments.h"
#include "platform/krel/http/http_transport.h"

constexpr size_t HTTP_MAX_HEADER = 64 * 1024;

class http_input_c {
 public:
  char *at(size_t offset) { return m_block->data() + offset; }
  size_t raw() const { return m_raw; }
  size_t unparsed() const { return m_raw_end - m_raw; }
  size_t staged() const { return m_stage_end - m_stage; }
  const char *stage() { return at(m_stage); }
  bool short_read() const { return m_short; }  // the last read took all there was
  void forget_short_read() { m_short = false; }

  void begin_request() { m_start = m_raw; }
  char *request_start() { return at(m_start); }
  size_t header_length() const { return m_raw - m_start; }  // parsed so far of the request at hand

  // Reads behind what is there; the header at hand may move. As http_transport_c::read.
  ssize_t fill_header(http_transport_c &transport);
  // Reads body bytes; nothing may be staged or unparsed. The header does not move: if it leaves no
  // room, its block goes to *header_block.
  ssize_t fill_body(http_transport_c &transport, http_segment_ptr *header_block);

  void parsed(size_t length) { m_raw += length; }
  void header_done() { m_floor = m_stage = m_stage_end = m_raw; }
  // Takes body bytes that were parsed out of [raw, raw_end) or an earlier place of this block.
  void stage(const char *bytes, size_t length) {
    if (at(m_stage_end) != bytes) memmove(at(m_stage_end), bytes, length);
    m_stage_end += length;
  }
  void unstage(size_t length) { m_stage += length; }
  void drop_stage() { m_stage = m_stage_end; }
  void end_request();  // what is unparsed belongs to the next request
  void release() {
    m_block.reset();
    m_start = m_floor = m_stage = m_stage_end = m_raw = m_raw_end = 0;
  }

 private:
  ssize_t read(http_transport_c &transport);

  http_segment_ptr m_block;
  size_t m_start = 0, m_floor = 0, m_stage = 0, m_stage_end = 0, m_raw = 0, m_raw_end = 0;
  bool m_short = false;
};
