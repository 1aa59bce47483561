#pragma once
// Small helpers: time, identifiers, base64, threads' names. All are safe from any thread.

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// ---- time
uint64_t krel_now_ms();     // wall clock, since 1970
uint64_t krel_now_us();     // the same
uint64_t krel_gethrtime();  // monotonic, nanoseconds
int krel_gettimeofday(struct timeval *now, void *unused);

struct krel_perftimer_t {
  uint64_t start_ns;
};
void krel_perftimer_start(krel_perftimer_t *timer);
int64_t krel_perftimer_elapsed(const krel_perftimer_t *timer);  // nanoseconds

// ---- UUIDs: 16 bytes, the text form of 36 characters
using krel_uuid_t = unsigned char[16];
constexpr size_t KREL_UUID_STR_LEN = 36;
int krel_uuid_parse(const char *text, krel_uuid_t out);           // 0, or -1 when it is none
void krel_uuid_unparse(const krel_uuid_t uuid, char *out);        // upper case; 37 bytes with the NUL
void krel_uuid_unparse_lower(const krel_uuid_t uuid, char *out);  // 37 bytes with the NUL
void krel_uuid_generate(krel_uuid_t out);

// ---- standard base64 with padding
size_t krel_b64_encode_len(size_t bytes);       // exact length of the encoding, no NUL counted
size_t krel_b64_max_decode_len(size_t length);  // upper bound of what that many characters decode to
// Writes no NUL. Returns the bytes written, -1 when `out` is too small or, decoding, the text is not
// canonical base64: strict alphabet and padding, no blanks, unused bits zero.
int64_t krel_b64_encode(const void *in, size_t in_size, char *out, size_t out_size);
int64_t krel_b64_decode(const char *in, size_t in_size, void *out, size_t out_size);

// ---- bytes and text
size_t krel_strlcpy(char *to, const char *from, size_t size);  // length of from
const void *krel_memmem(const void *haystack, size_t haystack_size, const void *needle, size_t needle_size);
// The whole text as a number in its type's range: digits only, base 10, "-" where signed, no blanks.
bool krel_parse_int64(std::string_view text, int64_t *out);
bool krel_parse_uint64(std::string_view text, uint64_t *out);
bool krel_parse_double(std::string_view text, double *out);  // finite

uint64_t krel_rand();  // per-thread generator, seeded by the system; not for secrets

// First IPv4 address of this machine that is up and not loopback, else 127.0.0.1. Network order.
uint32_t krel_getip_ipv4();

// ---- threads
void krel_thread_setname(const char *name);  // of the calling thread, at most 31 characters kept
const char *krel_thread_getname();           // valid while the thread lives

// The task that the calling thread works for; 0 is none.
void krel_task_set_current_task(uint64_t task);
uint64_t krel_task_get_current_task();
