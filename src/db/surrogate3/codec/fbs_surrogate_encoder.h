#pragma once
// Builds metadata files.

#include "db/surrogate3/codec/encoder.h"

namespace util::mem {
class allocator_c;
}

namespace db::surrogate3 {

class fbs_surrogate_encoder_c : public surrogate_encoder_c {
 public:
  // The buffer's memory comes from the allocator, which outlives this; null: from the heap.
  explicit fbs_surrogate_encoder_c(util::mem::allocator_c *allocator = nullptr);
  ~fbs_surrogate_encoder_c() override;

  // Of several entries of one name the first accepted stands. A locator's account, type and egress function
  // are read at commit.
  bool accept(const metric_locator_sp &locator) override;
  bool accept(uint64_t, oil_ptr) override { return false; }  // no activity in these files
  void accept(const surrogate_entry_t &entry);               // what it views must live until commit
  void accept_tombstone(uint64_t id) override;
  void commit(uint64_t file_id) override;
  void reset() override;
  std::span<const uint8_t> buffer() const override;
  bool empty() const override;
  // Gives the inputs up and keeps the finished buffer.
  void clear_no_reset();

 private:
  struct internal_t;
  std::unique_ptr<internal_t> _internal;
};

}  // namespace db::surrogate3
