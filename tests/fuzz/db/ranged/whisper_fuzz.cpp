// A Whisper file of any bytes: it is refused or gives cells, and every cell it gives is a finite number.
// The first eight bytes are the read: start (as it is, big-endian), period and number of cells.
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "db/ranged/whisper_file.h"

static uint32_t load(const uint8_t *from) {
  uint32_t value;
  memcpy(&value, from, sizeof value);
  return __builtin_bswap32(value);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 8) return 0;
  static const std::string path = "/tmp/velmar_whisper_fuzz." + std::to_string(getpid());
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(data + 8), static_cast<std::streamsize>(size - 8));
  std::string error;
  const auto file = velmar::ranged::from::whisper::whisper_file_c::open(path, &error);
  if (!file) {
    if (error.empty()) abort();
    return 0;
  }
  const unsigned period = 1 + (data[4] << 8 | data[5]);
  std::vector<nnt_multitype> cells(data[6] << 4 | data[7] >> 4);
  const size_t filled = file->fill(cells.data(), load(data), period, cells.size());
  if (filled > cells.size() || (filled > 0 && cells[filled - 1].type == NNT_TYPE_ABSENT)) abort();
  for (size_t i = 0; i < cells.size(); i++) {
    if (i >= filled && cells[i].type != NNT_TYPE_ABSENT) abort();
    if (cells[i].type != NNT_TYPE_ABSENT && (cells[i].count == 0 || std::isnan(nnt_multitype_double(cells[i]))))
      abort();
  }
  return 0;
}
