#pragma once
// The generated tables with 64-bit offsets, how they are built from offsets and read with every step checked.
// For this room's sources only.

#include <memory>

#include "fbs64/surrogate_generated.h"
#include "platform/krel/base/krel_log.h"
#include "util/io/file_mmap_allocator.h"

namespace db::surrogate3 {

namespace fb64 = flatbuffers64;
namespace fbs = tolvanus::kestdb;

constexpr char DATA_FILE_IDENTIFIER[] = "FSC2";
constexpr int32_t SURROGATES_VERSION = 4;

// ---- building. A buffer is laid down from its end to its start: what is made first comes last.
using builder_t = fb64::FlatBufferBuilder;

// Gives a builder memory from one of our allocators.
class builder_memory_c : public fb64::Allocator {
 public:
  explicit builder_memory_c(util::mem::allocator_c *allocator) : _allocator(allocator) {}
  uint8_t *allocate(size_t size) override {
    void *memory = _allocator->alloc(size);
    if (!memory) krel_fatal("no room for a buffer of %zu bytes\n", size);
    return static_cast<uint8_t *>(memory);
  }
  void deallocate(uint8_t *memory, size_t) override { _allocator->free(memory); }

 private:
  util::mem::allocator_c *const _allocator;
};

// A vector of `n` scalars that `fill(data)` writes. The builder's own operation of the kind aligns for lengths
// of 32 bits unless it is told otherwise.
template <typename T, typename F>
fb64::Offset<fb64::Vector<T>> make_vector(builder_t &builder, size_t n, F &&fill) {
  uint8_t *data = nullptr;
  const fb64::uoffset_t vector =
      builder.CreateUninitializedVector(n, sizeof(T), sizeof(fb64::uoffset_t), &data);
  fill(reinterpret_cast<T *>(data));
  return vector;
}

// A vector of references: of(i) is what element i refers to, 0 for nothing.
template <typename T, typename F>
fb64::Offset<fb64::Vector<fb64::Offset<T>>> make_reference_vector(builder_t &builder, size_t n, F &&of) {
  const size_t width = sizeof(fb64::uoffset_t);
  uint8_t *data = nullptr;
  const fb64::uoffset_t start = builder.CreateUninitializedVector(n, width, width, &data);
  auto *references = reinterpret_cast<fb64::uoffset_t *>(data);
  // offsets of things are counted from the end of the buffer, references from their own place forward
  for (size_t i = 0; i < n; ++i) {
    const fb64::uoffset_t target = of(i);
    references[i] = target ? start - width * (i + 1) - target : 0;
  }
  return start;
}

// ---- reading
class checked_file_c {
 public:
  checked_file_c(const uint8_t *data, size_t size) : _data(data), _size(size) {}

  // The table that element i of a vector (whose bounds were checked) refers to, itself checked in depth.
  template <typename T>
  const T *element(const fb64::Vector<fb64::Offset<T>> *vector, size_t i) const {
    fb64::Verifier verifier(_data, _size);
    const uint8_t *place = vector->Data() + i * sizeof(fb64::uoffset_t);
    const size_t offset = verifier.VerifyOffset(place, 0);
    if (offset == 0) return nullptr;
    const auto *table = reinterpret_cast<const T *>(place + offset);
    return table->Verify(verifier) ? table : nullptr;
  }
  // The root, of which only the table itself is checked. Null: none.
  template <typename T>
  const T *root() const {
    fb64::Verifier verifier(_data, _size);
    const size_t offset = verifier.VerifyOffset(size_t{0});
    if (offset == 0 || !verifier.VerifyTableStart(_data + offset)) return nullptr;
    return reinterpret_cast<const T *>(_data + offset);
  }
  // Is the scalar of that slot, if there, inside the file?
  template <typename T>
  bool has_scalar(const void *table, fb64::voffset_t slot) const {
    return static_cast<const fb64::Table *>(table)->VerifyField<T>(verifier(), slot, sizeof(T));
  }
  static bool has_field(const void *table, fb64::voffset_t slot) {
    return static_cast<const fb64::Table *>(table)->CheckField(slot);
  }
  // The vector of that slot with its bounds checked; null when it is absent or broken.
  template <typename V>
  const V *vector(const void *table, fb64::voffset_t slot) const {
    const auto *t = static_cast<const fb64::Table *>(table);
    if (!t->VerifyOffsetRequired<fb64::uoffset_t>(verifier(), slot)) return nullptr;
    const auto *v = t->GetPointer<const V *>(slot);
    return verifier().VerifyVector(v) ? v : nullptr;
  }
  template <typename T>
  const T *table(const void *parent, fb64::voffset_t slot) const {
    const auto *t = static_cast<const fb64::Table *>(parent);
    if (!t->VerifyOffsetRequired<fb64::uoffset_t>(verifier(), slot)) return nullptr;
    const auto *child = t->GetPointer<const T *>(slot);
    fb64::Verifier v(_data, _size);
    return v.VerifyTableStart(reinterpret_cast<const uint8_t *>(child)) ? child : nullptr;
  }

  const uint8_t *data() const { return _data; }
  size_t size() const { return _size; }

 private:
  fb64::Verifier verifier() const { return fb64::Verifier(_data, _size); }
  const uint8_t *_data;
  size_t _size;
};

using ids_vector_t = fb64::Vector<uint64_t>;
template <typename T>
using tables_vector_t = fb64::Vector<fb64::Offset<T>>;

}  // namespace db::surrogate3
