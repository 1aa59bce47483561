#pragma once
// A growable byte buffer with a built-in first block: short contents never touch the heap.
// A plain structure of one owner: init before, destroy after; not copied, moved with
// krel_dyn_buffer_move only. Running out of memory is fatal.

#include <cstdarg>
#include <cstddef>
#include <string_view>

constexpr size_t KREL_DYN_BUFFER_FIRST = 1024;

struct krel_dyn_buffer_t {
  char *m_data;  // m_first or a heap block
  size_t m_used;
  size_t m_size;
  char m_first[KREL_DYN_BUFFER_FIRST];
};

void krel_dyn_buffer_init(krel_dyn_buffer_t *buffer);
void krel_dyn_buffer_destroy(krel_dyn_buffer_t *buffer);  // may be used again after init
// `to` is not initialised before; `from` is empty and usable after.
void krel_dyn_buffer_move(krel_dyn_buffer_t *to, krel_dyn_buffer_t *from);

void krel_dyn_buffer_add(krel_dyn_buffer_t *buffer, const void *bytes, size_t length);
void krel_dyn_buffer_add_printf(krel_dyn_buffer_t *buffer, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void krel_dyn_buffer_ensure(krel_dyn_buffer_t *buffer, size_t extra);  // room behind what is used
void krel_dyn_buffer_reset(krel_dyn_buffer_t *buffer);                 // empties, keeps the memory

inline char *krel_dyn_buffer_data(krel_dyn_buffer_t *buffer) {
  return buffer->m_data;
}
inline const char *krel_dyn_buffer_data(const krel_dyn_buffer_t *buffer) {
  return buffer->m_data;
}
inline size_t krel_dyn_buffer_used(const krel_dyn_buffer_t *buffer) {
  return buffer->m_used;
}
inline size_t krel_dyn_buffer_size(const krel_dyn_buffer_t *buffer) {
  return buffer->m_size;
}
inline std::string_view krel_dyn_buffer_view(const krel_dyn_buffer_t *buffer) {
  return {buffer->m_data, buffer->m_used};
}
// Where the next byte goes; write there after ensure, then advance by what was written.
inline char *krel_dyn_buffer_write_pointer(krel_dyn_buffer_t *buffer) {
  return buffer->m_data + buffer->m_used;
}
void krel_dyn_buffer_advance(krel_dyn_buffer_t *buffer, size_t written);
