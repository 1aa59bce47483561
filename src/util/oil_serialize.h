#pragma once
// Activity intervals as a FlatBuffer (tables OilList and OilInterval of oil.fbs), alone or as a field of
// another table.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "util/oil.h"

namespace flatbuffers {
template <bool Is64Aware>
class FlatBufferBuilderImpl;
}
namespace tolvanus::kestdb {
struct OilList;
}
using oil_fb_builder_t = flatbuffers::FlatBufferBuilderImpl<false>;

// A finished buffer of *size bytes; of null, an empty list.
std::unique_ptr<uint8_t[]> oil_serialize_fb(const oil_list_t *list, size_t *size);
// Adds an OilList to a buffer under construction, outside any open table; the result is the raw offset of it
// (flatbuffers::Offset<OilList>). The second form takes no lock: nobody may change the list meanwhile.
uint32_t oil_serialize_append_fb(oil_fb_builder_t &builder, const oil_list_t *list);
uint32_t oil_serialize_append_fb_oil_no_lock(oil_fb_builder_t &builder, const oil_list_t *list);

// A new list, each interval put with oil_put, in ascending order. Null when the bytes hold no OilList.
oil_ptr oil_deserialize_fb(const void *bytes, size_t size);
// The same of a table inside a verified buffer; null of null.
oil_ptr oil_deserialize_fb_from_field(const tolvanus::kestdb::OilList *table);
