#pragma once
// What the writer asks of the readers.

#include <vector>

#include "db/surrogate3/codec/decoder.h"

namespace db::surrogate3 {

class lookup_mediator_c {
 public:
  virtual ~lookup_mediator_c() = default;
  // The files that every reader searches from now on; what they searched before is let go on another thread.
  // No id is above max_surrogate_id.
  virtual void replace_decoders(std::vector<surrogate_decoder_sp> decoders, uint64_t max_surrogate_id) = 0;
  virtual void replace_decoders(std::vector<oil_decoder_sp> decoders) = 0;
  // New canonical locators, for the readers that their names and their ids select. Returns before the readers
  // have them; generations rise from call to call.
  virtual void broadcast_locators(std::vector<metric_locator_sp> locators, uint64_t generation) = 0;
};

}  // namespace db::surrogate3
