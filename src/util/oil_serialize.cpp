#include "util/oil_serialize.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "fbs32/oil_generated.h"
#include "platform/krel/base/krel_log.h"

namespace fb = tolvanus::kestdb;

static uint32_t append(oil_fb_builder_t &builder, const std::vector<oil_interval_t> &intervals) {
  std::vector<flatbuffers::Offset<fb::OilInterval>> entries;
  entries.reserve(intervals.size());
  for (const oil_interval_t &interval : intervals)
    entries.push_back(fb::CreateOilInterval(builder, interval.first, interval.last));
  return fb::CreateOilList(builder, builder.CreateVector(entries)).o;
}

uint32_t oil_serialize_append_fb(oil_fb_builder_t &builder, const oil_list_t *list) {
  std::vector<oil_interval_t> intervals;
  oil_iter(list, [&intervals](const oil_interval_t &interval) { intervals.push_back(interval); });
  return append(builder, intervals);
}

uint32_t oil_serialize_append_fb_oil_no_lock(oil_fb_builder_t &builder, const oil_list_t *list) {
  return append(builder, {list->entries, list->entries + list->size});
}

std::unique_ptr<uint8_t[]> oil_serialize_fb(const oil_list_t *list, size_t *size) {
  flatbuffers::FlatBufferBuilder builder(256);
  builder.Finish(flatbuffers::Offset<fb::OilList>(oil_serialize_append_fb(builder, list)));
  *size = builder.GetSize();
  auto bytes = std::make_unique_for_overwrite<uint8_t[]>(*size);
  memcpy(bytes.get(), builder.GetBufferPointer(), *size);
  return bytes;
}

oil_ptr oil_deserialize_fb(const void *bytes, size_t size) {
  if (size >= FLATBUFFERS_MAX_BUFFER_SIZE) return nullptr;
  std::vector<uint64_t> aligned;
  if (reinterpret_cast<uintptr_t>(bytes) % alignof(uint64_t) != 0) {
    aligned.resize(size / sizeof(uint64_t) + 1);
    memcpy(aligned.data(), bytes, size);
    bytes = aligned.data();
  }
  flatbuffers::Verifier verifier(static_cast<const uint8_t *>(bytes), size);
  if (!fb::VerifyOilListBuffer(verifier)) return nullptr;
  return oil_deserialize_fb_from_field(fb::GetOilList(bytes));
}

oil_ptr oil_deserialize_fb_from_field(const fb::OilList *table) {
  if (!table) return nullptr;
  std::vector<oil_interval_t> intervals;
  if (const auto *entries = table->entries()) {
    intervals.reserve(entries->size());
    for (const fb::OilInterval *entry : *entries) intervals.push_back({entry->first(), entry->last()});
  }
  // A list that was written by us is in order. One that is not would cost a move of the array per interval.
  const auto before = [](const oil_interval_t &a, const oil_interval_t &b) { return a.first < b.first; };
  if (!std::is_sorted(intervals.begin(), intervals.end(), before))
    std::stable_sort(intervals.begin(), intervals.end(), before);

  oil_ptr list(oil_alloc_cap(static_cast<uint32_t>(intervals.size())));
  for (const oil_interval_t &interval : intervals) oil_put(list.get(), interval.first, interval.last);
  if (!oil_valid(list.get()))
    krel_log(krel_error, "Invalid oil_list_t from deserialize: size: %u, capacity: %u\n", oil_size(list.get()),
             oil_capacity(list.get()));
  return list;
}
