// The stored form of histograms.

#include <bit>
#include <string>

#include "platform/krel/base/krel_util.h"
#include "platform/tolvllhist/hist_bins.h"

namespace {

constexpr uint8_t VERSION = 1;
constexpr size_t MAX_LEB_SIZE = 10;
constexpr size_t MIN_BIN_SIZE = 3;

size_t leb_size(uint64_t value) {
  return (static_cast<size_t>(std::bit_width(value | 1)) + 6) / 7;
}

uint8_t *write_leb(uint8_t *to, uint64_t value) {
  for (; value >= 0x80; value >>= 7) *to++ = static_cast<uint8_t>(value | 0x80);
  *to++ = static_cast<uint8_t>(value);
  return to;
}

// Where the number ends, or null: cut off, longer than need be, or over 64 bits.
const uint8_t *read_leb(const uint8_t *from, const uint8_t *end, uint64_t *value) {
  uint64_t result = 0;
  for (size_t i = 0; i < MAX_LEB_SIZE && from < end; ++i) {
    const uint8_t byte = *from++;
    if (i == MAX_LEB_SIZE - 1 && byte > 1) return nullptr;
    result |= uint64_t{byte & 0x7fu} << (7 * i);
    if (byte < 0x80) {
      if (byte == 0 && i > 0) return nullptr;
      *value = result;
      return from;
    }
  }
  return nullptr;
}

bool read_bins(histogram_t *hist, const uint8_t *at, const uint8_t *end) {
  uint64_t bins = 0;
  if (at == end || *at++ != VERSION || (at = read_leb(at, end, &bins)) == nullptr) return false;
  if (bins > static_cast<size_t>(end - at) / MIN_BIN_SIZE) return false;
  hist->m_ranks.reserve(bins);
  hist->m_counts.reserve(bins);
  int last = HIST_NAN_RANK - 1;
  for (; bins > 0; --bins) {
    if (end - at < 2) return false;
    const hist_bucket_t bucket = {static_cast<int8_t>(at[0]), static_cast<int8_t>(at[1])};
    if (!hist_bucket_is_valid(bucket)) return false;
    const int16_t rank = hist_rank(bucket);
    if (rank <= last) return false;
    last = rank;
    uint64_t count = 0;
    if ((at = read_leb(at + 2, end, &count)) == nullptr) return false;
    hist->append(rank, count);
  }
  return at == end;
}

}  // namespace

size_t hist_serialize_estimate(const histogram_t *hist) {
  size_t bins = 0, size = 0;
  for (uint64_t count : hist->m_counts) {
    if (count == 0) continue;
    ++bins;
    size += 2 + leb_size(count);
  }
  return 1 + leb_size(bins) + size;
}

ssize_t hist_serialize(const histogram_t *hist, void *buffer, size_t size) {
  const size_t needed = hist_serialize_estimate(hist);
  if (size < needed) return -1;
  uint64_t bins = 0;
  for (uint64_t count : hist->m_counts) bins += count != 0;
  auto *at = static_cast<uint8_t *>(buffer);
  *at++ = VERSION;
  at = write_leb(at, bins);
  for (size_t i = 0; i < hist->size(); ++i) {
    if (hist->m_counts[i] == 0) continue;
    const hist_bucket_t bucket = hist_bucket_of_rank(hist->m_ranks[i]);
    *at++ = static_cast<uint8_t>(bucket.val);
    *at++ = static_cast<uint8_t>(bucket.exp);
    at = write_leb(at, hist->m_counts[i]);
  }
  return static_cast<ssize_t>(needed);
}

ssize_t hist_deserialize(histogram_t *hist, const void *buffer, size_t size) {
  hist_clear(hist);
  const auto *at = static_cast<const uint8_t *>(buffer);
  if (read_bins(hist, at, at + size)) return static_cast<ssize_t>(size);
  hist_clear(hist);
  return -1;
}

size_t hist_serialize_b64_estimate(const histogram_t *hist) {
  return krel_b64_encode_len(hist_serialize_estimate(hist));
}

ssize_t hist_serialize_b64(const histogram_t *hist, char *text, size_t size) {
  std::string bytes(hist_serialize_estimate(hist), '\0');
  hist_serialize(hist, bytes.data(), bytes.size());
  return krel_b64_encode(bytes.data(), bytes.size(), text, size);
}

ssize_t hist_deserialize_b64(histogram_t *hist, const void *text, size_t size) {
  std::string bytes(krel_b64_max_decode_len(size), '\0');
  const int64_t length = krel_b64_decode(static_cast<const char *>(text), size, bytes.data(), bytes.size());
  if (length < 0) {
    hist_clear(hist);
    return -1;
  }
  return hist_deserialize(hist, bytes.data(), static_cast<size_t>(length)) < 0 ? -1
                                                                               : static_cast<ssize_t>(size);
}
