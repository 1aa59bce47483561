#pragma once
// Blocks of bytes and queues of them: what was received, what a handler appended, what waits for the
// socket. A queue holds memory blocks and stretches of files in order. Not thread safe; the memory may
// be freed on another thread than the one that made it.

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

constexpr size_t HTTP_SEGMENT_SIZE = 16 * 1024;  // of a block with its head

struct http_segment_t;
struct http_segment_deleter_t {
  void operator()(http_segment_t *segment) const;
};
using http_segment_ptr = std::unique_ptr<http_segment_t, http_segment_deleter_t>;

// Memory: data()[begin, end). A stretch of a file: bytes [begin, end) of fd.
struct http_segment_t {
  http_segment_ptr next;
  size_t begin, end, capacity;
  int fd;  // -1: memory; else owned

  char *data() { return reinterpret_cast<char *>(this + 1); }
  size_t size() const { return end - begin; }
  size_t room() const { return fd < 0 ? capacity - end : 0; }
};

// A block with at least `capacity` bytes; the usual size comes from a small cache of the thread.
http_segment_ptr http_segment_alloc(size_t capacity = HTTP_SEGMENT_SIZE - sizeof(http_segment_t));

class http_queue_c {
 public:
  http_queue_c() = default;
  http_queue_c(const http_queue_c &) = delete;
  http_queue_c &operator=(const http_queue_c &) = delete;
  ~http_queue_c() { clear(); }

  size_t size() const { return m_size; }
  bool empty() const { return m_size == 0; }
  http_segment_t *front() { return m_head.get(); }

  // `length` bytes in one piece behind the last one, to be filled and then taken with commit.
  char *reserve(size_t length);
  void commit(size_t length) {
    m_tail->end += length;
    m_size += length;
  }
  // Room at the tail without making a new block, for readers that take what there is.
  std::pair<char *, size_t> tail_room();

  void append(const void *bytes, size_t length);
  void append(std::string_view text) { append(text.data(), text.size()); }
  void append_file(int fd, off_t offset, size_t length);  // takes the fd over
  void splice(http_queue_c &from);                        // all of it; short contents are copied

  // The memory at the front, up to a stretch of a file, as at most `max` pieces.
  int pieces(struct iovec *out, int max) const;
  void consume(size_t length);  // from the front
  void clear();

 private:
  void push(http_segment_ptr segment);

  http_segment_ptr m_head;
  http_segment_t *m_tail = nullptr;
  size_t m_size = 0;
};
