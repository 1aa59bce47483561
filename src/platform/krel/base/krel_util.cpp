#include "platform/krel/base/krel_util.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

uint64_t krel_now_us() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

uint64_t krel_now_ms() {
  return krel_now_us() / 1000;
}

uint64_t krel_gethrtime() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000 + static_cast<uint64_t>(ts.tv_nsec);
}

int krel_gettimeofday(struct timeval *now, void *unused) {
  return gettimeofday(now, nullptr);
}

void krel_perftimer_start(krel_perftimer_t *timer) {
  timer->start_ns = krel_gethrtime();
}

int64_t krel_perftimer_elapsed(const krel_perftimer_t *timer) {
  return static_cast<int64_t>(krel_gethrtime() - timer->start_ns);
}

int krel_uuid_parse(const char *text, krel_uuid_t out) {
  return uuid_parse(text, out) == 0 ? 0 : -1;
}
void krel_uuid_unparse(const krel_uuid_t uuid, char *out) {
  uuid_unparse_upper(uuid, out);
}
void krel_uuid_unparse_lower(const krel_uuid_t uuid, char *out) {
  uuid_unparse_lower(uuid, out);
}
void krel_uuid_generate(krel_uuid_t out) {
  uuid_generate_random(out);
}

size_t krel_b64_encode_len(size_t bytes) {
  return (bytes + 2) / 3 * 4;
}
size_t krel_b64_max_decode_len(size_t length) {
  return (length + 3) / 4 * 3;
}

int64_t krel_b64_encode(const void *in, size_t in_size, char *out, size_t out_size) {
  if (in_size > INT_MAX / 2 || krel_b64_encode_len(in_size) > out_size) return -1;
  // EVP_EncodeBlock puts a NUL behind its output: whole groups go straight out, the last one by way
  // of a block of our own.
  const auto *bytes = static_cast<const unsigned char *>(in);
  size_t written = 0;
  unsigned char group[5];
  size_t whole = in_size == 0 ? 0 : (in_size - 1) / 3 * 3;
  if (whole > 0)
    written = static_cast<size_t>(
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out), bytes, static_cast<int>(whole)));
  if (in_size > whole) {
    int n = EVP_EncodeBlock(group, bytes + whole, static_cast<int>(in_size - whole));
    std::memcpy(out + written, group, static_cast<size_t>(n));
    written += static_cast<size_t>(n);
  }
  return static_cast<int64_t>(written);
}

namespace {

constexpr char k_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const struct sextets_t {
  signed char of[256];
  sextets_t() {
    std::memset(of, -1, sizeof(of));
    for (int i = 0; i < 64; i++) of[static_cast<unsigned char>(k_alphabet[i])] = static_cast<signed char>(i);
  }
} k_sextets;

}  // namespace

int64_t krel_b64_decode(const char *in, size_t in_size, void *out, size_t out_size) {
  if (in_size > INT_MAX || in_size % 4 != 0) return -1;
  if (in_size == 0) return 0;
  size_t padding = in[in_size - 1] != '=' ? 0 : in[in_size - 2] != '=' ? 1 : 2;
  size_t size = in_size / 4 * 3 - padding;
  if (size > out_size) return -1;
  // EVP_DecodeBlock trims blanks and takes any unused bits: what it would forgive is refused here.
  for (size_t i = 0; i < in_size - padding; i++)
    if (k_sextets.of[static_cast<unsigned char>(in[i])] < 0) return -1;
  if (padding > 0) {
    int last = k_sextets.of[static_cast<unsigned char>(in[in_size - padding - 1])];
    if ((last & (padding == 1 ? 3 : 15)) != 0) return -1;
  }
  // It writes whole groups: the last one goes by way of a block of our own.
  const auto *text = reinterpret_cast<const unsigned char *>(in);
  auto *bytes = static_cast<unsigned char *>(out);
  size_t head = in_size - 4, head_size = head / 4 * 3;
  if (head > 0 && EVP_DecodeBlock(bytes, text, static_cast<int>(head)) < 0) return -1;
  unsigned char group[3];
  if (EVP_DecodeBlock(group, text + head, 4) < 0) return -1;
  std::memcpy(bytes + head_size, group, size - head_size);
  return static_cast<int64_t>(size);
}

size_t krel_strlcpy(char *to, const char *from, size_t size) {
  size_t length = std::strlen(from);
  if (size > 0) {
    size_t n = length < size - 1 ? length : size - 1;
    std::memcpy(to, from, n);
    to[n] = '\0';
  }
  return length;
}

const void *krel_memmem(const void *haystack, size_t haystack_size, const void *needle, size_t needle_size) {
  return memmem(haystack, haystack_size, needle, needle_size);
}

template <typename T>
static bool parse_whole(std::string_view text, T *out) {
  T value{};
  auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || rest != text.data() + text.size()) return false;
  *out = value;
  return true;
}

bool krel_parse_int64(std::string_view text, int64_t *out) {
  return parse_whole(text, out);
}
bool krel_parse_uint64(std::string_view text, uint64_t *out) {
  return parse_whole(text, out);
}
bool krel_parse_double(std::string_view text, double *out) {
  double value;
  if (!parse_whole(text, &value) || !std::isfinite(value)) return false;
  *out = value;
  return true;
}

uint64_t krel_rand() {
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  return generator();
}

uint32_t krel_getip_ipv4() {
  uint32_t found = htonl(INADDR_LOOPBACK);
  struct ifaddrs *all = nullptr;
  if (getifaddrs(&all) != 0) return found;
  for (struct ifaddrs *one = all; one != nullptr; one = one->ifa_next) {
    if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET) continue;
    if (!(one->ifa_flags & IFF_UP) || (one->ifa_flags & IFF_LOOPBACK)) continue;
    struct sockaddr_in address;
    std::memcpy(&address, one->ifa_addr, sizeof(address));
    found = address.sin_addr.s_addr;
    break;
  }
  freeifaddrs(all);
  return found;
}

static thread_local char t_name[32] = "";
static thread_local uint64_t t_task = 0;

void krel_thread_setname(const char *name) {
  krel_strlcpy(t_name, name, sizeof(t_name));
  char shown[16];  // the kernel keeps 15 characters
  krel_strlcpy(shown, name, sizeof(shown));
  if (getpid() != static_cast<pid_t>(syscall(SYS_gettid))) pthread_setname_np(pthread_self(), shown);
}

const char *krel_thread_getname() {
  if (t_name[0] == '\0') {
    auto tid = static_cast<pid_t>(syscall(SYS_gettid));
    if (tid == getpid())
      krel_strlcpy(t_name, "main", sizeof(t_name));
    else
      std::snprintf(t_name, sizeof(t_name), "thread-%d", tid);
  }
  return t_name;
}

void krel_task_set_current_task(uint64_t task) {
  t_task = task;
}
uint64_t krel_task_get_current_task() {
  return t_task;
}
