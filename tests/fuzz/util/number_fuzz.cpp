// Numbers and times against the C library's parsers.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/raw_record.h"
#include "util/raw_record_number.h"

static void check(bool ok) {
  if (!ok) abort();
}

static void check_double(const std::string &text) {
  double got = 0;
  const bool taken = stringtod(text, &got);
  char *end;
  const double want = strtod(text.c_str(), &end);
  const bool wanted = !text.empty() && end == text.c_str() + text.size() && std::isfinite(want);
  check(taken == wanted);
  if (taken) check(memcmp(&got, &want, sizeof got) == 0);
}

// Text that begins as the integers do: the library's parser takes blanks and signs that ours does not.
static void check_integers(const std::string &text) {
  const char *end;
  char *want_end;
  if (text[0] >= '0' && text[0] <= '9') {
    errno = 0;
    const unsigned long long got = stringtoull(text.data(), text.size(), &end);
    const int got_errno = errno;
    errno = 0;
    check(got == strtoull(text.c_str(), &want_end, 10) && got_errno == errno);
    check(got_errno == ERANGE ? end < want_end : end == want_end);
  }
  if ((text[0] == '-' && text.size() > 1 && text[1] >= '0' && text[1] <= '9') ||
      (text[0] >= '0' && text[0] <= '9')) {
    errno = 0;
    const long long got = stringtoll(text.data(), text.size(), &end);
    const int got_errno = errno;
    errno = 0;
    check(got == strtoll(text.c_str(), &want_end, 10) && got_errno == errno);
    check(got_errno == ERANGE ? end < want_end : end == want_end);
  }
}

static void check_time(const std::string &text) {
  uint64_t got;
  if (!dorn_record_parse_m_timestamp(text, &got)) return;
  char *end;
  errno = 0;
  const unsigned long long seconds = strtoull(text.c_str(), &end, 10);
  if (errno == ERANGE || seconds > UINT64_MAX / 1000) return check(got == UINT64_MAX);
  // The fraction, unless it is of a form that only a number without the dot could have.
  const double fraction = *end == '.' ? strtod(end, nullptr) * 1000 : 0;
  if (!(fraction < 0x1p63)) return check(got >= (uint64_t{1} << 63));
  const unsigned __int128 want =
      static_cast<unsigned __int128>(seconds) * 1000 + static_cast<uint64_t>(fraction);
  check(got == (want > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(want)));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  double unused;
  if (text.find('\0') != text.npos) {
    stringtod(text, &unused);
    return 0;
  }
  check_double(text);
  if (text.empty()) return 0;
  check_integers(text);
  check_time(text);
  return 0;
}
