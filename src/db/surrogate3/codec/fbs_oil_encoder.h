#pragma once
// Builds activity files.

#include "db/surrogate3/codec/encoder.h"

namespace util::mem {
class allocator_c;
}

namespace db::surrogate3 {

class fbs_oil_encoder_c : public surrogate_encoder_c {
 public:
  explicit fbs_oil_encoder_c(util::mem::allocator_c *allocator = nullptr);  // see fbs_surrogate_encoder_c
  ~fbs_oil_encoder_c() override;

  // Lists accepted for one id are merged. False when there is no list.
  bool accept(const metric_locator_sp &locator) override;
  bool accept(uint64_t id, oil_ptr oil) override;
  // Takes the id out again and keeps its tombstone.
  void accept_tombstone(uint64_t id) override;
  void commit(uint64_t file_id) override;
  void reset() override;
  std::span<const uint8_t> buffer() const override;
  bool empty() const override;

 private:
  struct internal_t;
  std::unique_ptr<internal_t> _internal;
};

}  // namespace db::surrogate3
