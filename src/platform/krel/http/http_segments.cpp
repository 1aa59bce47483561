#include "platform/krel/http/http_segments.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr size_t usual_capacity = HTTP_SEGMENT_SIZE - sizeof(http_segment_t);
constexpr size_t copy_below = 4096;  // a shorter piece is copied rather than handed on

struct cache_t {
  static constexpr size_t max = 16;
  http_segment_t *blocks[max];
  size_t count = 0;
  bool gone = false;
  ~cache_t() {
    gone = true;
    while (count > 0) ::free(blocks[--count]);
  }
};
thread_local cache_t cache;

}  // namespace

void http_segment_deleter_t::operator()(http_segment_t *segment) const {
  // A chain is taken apart step by step: a long one must not recurse.
  while (segment) {
    http_segment_t *next = segment->next.release();
    if (segment->fd >= 0) ::close(segment->fd);
    const bool usual = segment->capacity == usual_capacity;
    segment->~http_segment_t();
    if (usual && !cache.gone && cache.count < cache_t::max)
      cache.blocks[cache.count++] = segment;
    else
      ::free(segment);
    segment = next;
  }
}

http_segment_ptr http_segment_alloc(size_t capacity) {
  void *memory;
  if (capacity <= usual_capacity && capacity > 0) {
    capacity = usual_capacity;
    memory = cache.count > 0 && !cache.gone ? cache.blocks[--cache.count] : ::malloc(HTTP_SEGMENT_SIZE);
  } else {
    memory = ::malloc(sizeof(http_segment_t) + capacity);
  }
  if (!memory) throw std::bad_alloc();
  return http_segment_ptr(new (memory) http_segment_t{nullptr, 0, 0, capacity, -1});
}

void http_queue_c::push(http_segment_ptr segment) {
  http_segment_t *raw = segment.get();
  if (m_tail)
    m_tail->next = std::move(segment);
  else
    m_head = std::move(segment);
  m_tail = raw;
}

char *http_queue_c::reserve(size_t length) {
  if (!m_tail || m_tail->room() < length) push(http_segment_alloc(std::max(length, usual_capacity)));
  return m_tail->data() + m_tail->end;
}

std::pair<char *, size_t> http_queue_c::tail_room() {
  if (!m_tail || m_tail->room() == 0) push(http_segment_alloc());
  return {m_tail->data() + m_tail->end, m_tail->room()};
}

void http_queue_c::append(const void *bytes, size_t length) {
  const char *from = static_cast<const char *>(bytes);
  while (length > 0) {
    if (!m_tail || m_tail->room() == 0) {
      // Large appends get large blocks, so that a long body is few pieces.
      push(http_segment_alloc(length > usual_capacity ? std::min<size_t>(length, 256 * 1024) : usual_capacity));
    }
    const size_t n = std::min(length, m_tail->room());
    memcpy(m_tail->data() + m_tail->end, from, n);
    commit(n);
    from += n;
    length -= n;
  }
}

void http_queue_c::append_file(int fd, off_t offset, size_t length) {
  http_segment_ptr segment = http_segment_alloc(0);
  segment->fd = fd;
  segment->begin = static_cast<size_t>(offset);
  segment->end = segment->begin + length;
  if (length == 0) return;  // closes the fd
  push(std::move(segment));
  m_size += length;
}

void http_queue_c::splice(http_queue_c &from) {
  if (from.m_size == 0) return;
  if (from.m_size < copy_below && from.m_head->fd < 0 && !from.m_head->next) {
    append(from.m_head->data() + from.m_head->begin, from.m_head->size());
    from.clear();
    return;
  }
  http_segment_t *last = from.m_tail;
  push(std::move(from.m_head));
  m_tail = last;
  m_size += from.m_size;
  from.m_tail = nullptr;
  from.m_size = 0;
}

int http_queue_c::pieces(struct iovec *out, int max) const {
  int n = 0;
  for (http_segment_t *s = m_head.get(); s && s->fd < 0 && n < max; s = s->next.get()) {
    if (s->size() > 0) out[n++] = {s->data() + s->begin, s->size()};
  }
  return n;
}

void http_queue_c::consume(size_t length) {
  m_size -= length;
  while (m_head && length >= m_head->size()) {
    length -= m_head->size();
    http_segment_ptr next = std::move(m_head->next);
    m_head = std::move(next);
  }
  if (m_head)
    m_head->begin += length;
  else
    m_tail = nullptr;
}

void http_queue_c::clear() {
  m_head.reset();
  m_tail = nullptr;
  m_size = 0;
}
