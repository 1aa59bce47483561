#pragma once
// Builders of data files: accept, commit, write, and reset to start over. One thread at a time.

#include <memory>
#include <span>
#include <string>
#include <system_error>

#include "db/surrogate3/codec/decoder.h"
#include "db/surrogate3/codec/file_selection_strategy.h"

namespace db::surrogate3 {

class encoder_accessor_c {
 public:
  virtual ~encoder_accessor_c() = default;
  virtual std::span<const uint8_t> buffer() const = 0;  // the finished file
  virtual bool empty() const = 0;                       // nothing was accepted

  // Writes the buffer under the name of that id: made or cut to nothing, written, synced, its name synced.
  // Durable on return; every failure ends the process.
  void write_data_to_file(const file_selection_strategy_c &fss, spec_e spec, uint64_t file_id) const;
  // The same, but a failure comes back as the text that tells it, for a file that nobody waits for.
  [[nodiscard]] std::string try_write_data_to_file(const file_selection_strategy_c &fss, spec_e spec,
                                                   uint64_t file_id) const;
};

class surrogate_encoder_c : public encoder_accessor_c {
 public:
  virtual bool accept(const metric_locator_sp &locator) = 0;  // has its id
  virtual bool accept(uint64_t id, oil_ptr oil) = 0;
  virtual void accept_tombstone(uint64_t id) = 0;
  virtual void commit(uint64_t file_id) = 0;  // lays the buffer down; nothing more is accepted until reset
  virtual void reset() = 0;
};

}  // namespace db::surrogate3
