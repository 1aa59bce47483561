#include "platform/krel/base/krel_buffer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/krel/base/krel_log.h"

void krel_dyn_buffer_init(krel_dyn_buffer_t *buffer) {
  buffer->m_data = buffer->m_first;
  buffer->m_used = 0;
  buffer->m_size = sizeof(buffer->m_first);
}

void krel_dyn_buffer_destroy(krel_dyn_buffer_t *buffer) {
  if (buffer->m_data != buffer->m_first) std::free(buffer->m_data);
  krel_dyn_buffer_init(buffer);
}

void krel_dyn_buffer_move(krel_dyn_buffer_t *to, krel_dyn_buffer_t *from) {
  krel_dyn_buffer_init(to);
  if (from->m_data == from->m_first) {
    std::memcpy(to->m_first, from->m_first, from->m_used);
  } else {
    to->m_data = from->m_data;
    to->m_size = from->m_size;
  }
  to->m_used = from->m_used;
  krel_dyn_buffer_init(from);
}

void krel_dyn_buffer_ensure(krel_dyn_buffer_t *buffer, size_t extra) {
  if (buffer->m_size - buffer->m_used >= extra) return;
  if (extra > SIZE_MAX / 2 - buffer->m_used)
    krel_fatal("out of memory: a buffer would hold %zu bytes more\n", extra);
  size_t size = std::max(buffer->m_size * 2, buffer->m_used + extra);
  void *old = buffer->m_data == buffer->m_first ? nullptr : buffer->m_data;
  auto *data = static_cast<char *>(std::realloc(old, size));
  if (data == nullptr) krel_fatal("out of memory: a buffer would hold %zu bytes\n", size);
  if (old == nullptr) std::memcpy(data, buffer->m_first, buffer->m_used);
  buffer->m_data = data;
  buffer->m_size = size;
}

void krel_dyn_buffer_add(krel_dyn_buffer_t *buffer, const void *bytes, size_t length) {
  if (length == 0) return;
  krel_dyn_buffer_ensure(buffer, length);
  std::memcpy(buffer->m_data + buffer->m_used, bytes, length);
  buffer->m_used += length;
}

void krel_dyn_buffer_add_printf(krel_dyn_buffer_t *buffer, const char *format, ...) {
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  size_t room = buffer->m_size - buffer->m_used;
  int n = std::vsnprintf(buffer->m_data + buffer->m_used, room, format, args);
  va_end(args);
  if (n > 0 && static_cast<size_t>(n) >= room) {
    krel_dyn_buffer_ensure(buffer, static_cast<size_t>(n) + 1);
    std::vsnprintf(buffer->m_data + buffer->m_used, static_cast<size_t>(n) + 1, format, again);
  }
  va_end(again);
  if (n > 0) buffer->m_used += static_cast<size_t>(n);
}

void krel_dyn_buffer_reset(krel_dyn_buffer_t *buffer) {
  buffer->m_used = 0;
}

void krel_dyn_buffer_advance(krel_dyn_buffer_t *buffer, size_t written) {
  krel_assert(written <= buffer->m_size - buffer->m_used);
  buffer->m_used += written;
}
