// Which bin a number lies in, and where a bin lies.

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "platform/tolvllhist/hist_bins.h"

namespace {

constexpr int MIN_POW10 = -129;
// clang-format off
constexpr double POW10[] = {
    1e-129, 1e-128, 1e-127, 1e-126, 1e-125, 1e-124, 1e-123, 1e-122, 1e-121, 1e-120, 1e-119, 1e-118, 1e-117,
    1e-116, 1e-115, 1e-114, 1e-113, 1e-112, 1e-111, 1e-110, 1e-109, 1e-108, 1e-107, 1e-106, 1e-105, 1e-104,
    1e-103, 1e-102, 1e-101, 1e-100, 1e-99, 1e-98, 1e-97, 1e-96, 1e-95, 1e-94, 1e-93, 1e-92, 1e-91, 1e-90, 1e-89,
    1e-88, 1e-87, 1e-86, 1e-85, 1e-84, 1e-83, 1e-82, 1e-81, 1e-80, 1e-79, 1e-78, 1e-77, 1e-76, 1e-75, 1e-74,
    1e-73, 1e-72, 1e-71, 1e-70, 1e-69, 1e-68, 1e-67, 1e-66, 1e-65, 1e-64, 1e-63, 1e-62, 1e-61, 1e-60, 1e-59,
    1e-58, 1e-57, 1e-56, 1e-55, 1e-54, 1e-53, 1e-52, 1e-51, 1e-50, 1e-49, 1e-48, 1e-47, 1e-46, 1e-45, 1e-44,
    1e-43, 1e-42, 1e-41, 1e-40, 1e-39, 1e-38, 1e-37, 1e-36, 1e-35, 1e-34, 1e-33, 1e-32, 1e-31, 1e-30, 1e-29,
    1e-28, 1e-27, 1e-26, 1e-25, 1e-24, 1e-23, 1e-22, 1e-21, 1e-20, 1e-19, 1e-18, 1e-17, 1e-16, 1e-15, 1e-14,
    1e-13, 1e-12, 1e-11, 1e-10, 1e-9, 1e-8, 1e-7, 1e-6, 1e-5, 1e-4, 1e-3, 1e-2, 1e-1, 1e0, 1e1, 1e2, 1e3, 1e4,
    1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22, 1e23,
    1e24, 1e25, 1e26, 1e27, 1e28, 1e29, 1e30, 1e31, 1e32, 1e33, 1e34, 1e35, 1e36, 1e37, 1e38, 1e39, 1e40, 1e41,
    1e42, 1e43, 1e44, 1e45, 1e46, 1e47, 1e48, 1e49, 1e50, 1e51, 1e52, 1e53, 1e54, 1e55, 1e56, 1e57, 1e58, 1e59,
    1e60, 1e61, 1e62, 1e63, 1e64, 1e65, 1e66, 1e67, 1e68, 1e69, 1e70, 1e71, 1e72, 1e73, 1e74, 1e75, 1e76, 1e77,
    1e78, 1e79, 1e80, 1e81, 1e82, 1e83, 1e84, 1e85, 1e86, 1e87, 1e88, 1e89, 1e90, 1e91, 1e92, 1e93, 1e94, 1e95,
    1e96, 1e97, 1e98, 1e99, 1e100, 1e101, 1e102, 1e103, 1e104, 1e105, 1e106, 1e107, 1e108, 1e109, 1e110, 1e111,
    1e112, 1e113, 1e114, 1e115, 1e116, 1e117, 1e118, 1e119, 1e120, 1e121, 1e122, 1e123, 1e124, 1e125, 1e126,
    1e127, 1e128, 1e129,
};
// clang-format on
static_assert(sizeof(POW10) / sizeof(POW10[0]) == 259);

constexpr double pow10_of(int k) {
  return POW10[k - MIN_POW10];
}

constexpr uint64_t POW10_U64[] = {1,
                                  10,
                                  100,
                                  1000,
                                  10000,
                                  100000,
                                  1000000,
                                  10000000,
                                  100000000,
                                  1000000000,
                                  10000000000,
                                  100000000000,
                                  1000000000000,
                                  10000000000000,
                                  100000000000000,
                                  1000000000000000,
                                  10000000000000000,
                                  100000000000000000,
                                  1000000000000000000,
                                  10000000000000000000u};

// The double nearest to n x 10^k, for n up to 995 and k from -130 to 126.
double nearest(int n, int k) {
  // Both operands are exact here, so the one rounding is the right one.
  if (k >= 0 && k <= 22) return n * pow10_of(k);
  if (k < 0 && k >= -22) return n / pow10_of(-k);
  char text[16];
  const int length = snprintf(text, sizeof text, "%de%d", n, k);
  double value = 0;
  std::from_chars(text, text + length, value);
  return value;
}

// floor(m / 10^k) for a quotient of two digits, without a division.
int leading(int64_t m, int k) {
  const auto power = static_cast<int64_t>(POW10_U64[k]);
  auto quotient = static_cast<int>(static_cast<double>(m) * pow10_of(-k));
  const int64_t rest = m - quotient * power;  // the product was off by one at most
  return quotient + (rest >= power) - (rest < 0);
}

// The edge nearer to zero and the one farther from it, both without sign.
double inner_edge(hist_bucket_t bucket) {
  return nearest(std::abs(bucket.val), bucket.exp - 1);
}
double outer_edge(hist_bucket_t bucket) {
  return nearest(std::abs(bucket.val) + 1, bucket.exp - 1);
}

}  // namespace

hist_bucket_t hist_bucket_from_double(double value) {
  const double x = std::fabs(value);
  if (!(x < 1e128)) return HIST_NAN_BUCKET;
  if (x < 1e-128) return {0, 0};

  // The binary exponent bounds the decimal one to two candidates.
  const int binary = static_cast<int>(std::bit_cast<uint64_t>(x) >> 52) - 1023;
  int exp = (binary * 315653) >> 20;
  if (x >= pow10_of(exp + 1)) ++exp;

  const double scaled = x * pow10_of(1 - exp);  // 10 to 100, off by an ulp or two
  int val = static_cast<int>(scaled);
  const double rest = scaled - val;
  constexpr double doubt = 1e-12;
  if (rest < doubt) {
    if (val > 10 && x < nearest(val, exp - 1)) --val;
  } else if (rest > 1 - doubt) {
    if (x >= nearest(val + 1, exp - 1)) ++val;
  }
  if (val < 10) val = 10;
  if (val > 99) val = 99;
  return {static_cast<int8_t>(value < 0 ? -val : val), static_cast<int8_t>(exp)};
}

hist_bucket_t hist_bucket_from_int(int64_t value, int scale) {
  if (value == 0) return {0, 0};
  // The smallest number has no counterpart; its neighbour's has the same first digits.
  const int64_t m = value > 0 ? value : -std::max(value, -INT64_MAX);
  const int guess = ((64 - std::countl_zero(static_cast<uint64_t>(m))) * 1233) >> 12;
  const int digits = guess + (static_cast<uint64_t>(m) >= POW10_U64[guess]);
  const int64_t exp = int64_t{scale} + digits - 1;
  if (exp < -128) return {0, 0};
  if (exp > 127) return HIST_NAN_BUCKET;
  const int val = digits == 1 ? static_cast<int>(m) * 10 : leading(m, digits - 2);
  return {static_cast<int8_t>(value < 0 ? -val : val), static_cast<int8_t>(exp)};
}

bool hist_bucket_is_valid(hist_bucket_t bucket) {
  if (bucket.val == 0 || bucket.val == -1) return bucket.exp == 0;
  return (bucket.val >= 10 && bucket.val <= 99) || (bucket.val <= -10 && bucket.val >= -99);
}

double hist_bucket_lower(hist_bucket_t bucket) {
  if (bucket.val == 0) return 0;
  if (bucket.val == -1) return std::numeric_limits<double>::quiet_NaN();
  return bucket.val > 0 ? inner_edge(bucket) : -outer_edge(bucket);
}

double hist_bucket_upper(hist_bucket_t bucket) {
  if (bucket.val == 0) return 0;
  if (bucket.val == -1) return std::numeric_limits<double>::quiet_NaN();
  return bucket.val > 0 ? outer_edge(bucket) : -inner_edge(bucket);
}

double hist_bucket_midpoint(hist_bucket_t bucket) {
  if (bucket.val == 0) return 0;
  if (bucket.val == -1) return std::numeric_limits<double>::quiet_NaN();
  const double middle = nearest(std::abs(bucket.val) * 10 + 5, bucket.exp - 2);
  return bucket.val > 0 ? middle : -middle;
}

int hist_bucket_to_string(hist_bucket_t bucket, char *text, size_t size) {
  int length;
  if (bucket.val == 0) {
    length = snprintf(text, size, "0");
  } else if (bucket.val == -1) {
    length = snprintf(text, size, "NaN");
  } else {
    length = snprintf(text, size, "%+de%+04d", bucket.val, bucket.exp - 1);
  }
  return static_cast<size_t>(length) < size ? length : -1;
}
