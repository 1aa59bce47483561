#pragma once
// The activity files of one reader as one, and walks over activity records. One thread at a time.

#include <vector>

#include "db/surrogate3/codec/decoder.h"

namespace db::surrogate3 {

class oil_decoder_composite_c {
 public:
  oil_ptr find(uint64_t id) const;  // from the newest file that has one
  // Newest first; gives the list it replaces back.
  std::vector<oil_decoder_sp> replace(std::vector<oil_decoder_sp> decoders);
  const std::vector<oil_decoder_sp> &get_all_decoders() const { return _decoders; }

 private:
  std::vector<oil_decoder_sp> _decoders;
};

// One file in the order of its ids, without those of a set.
class surrogate_encoded_data_file_iterator_c {
 public:
  // Both outlive the walk.
  void reset(const oil_decoder_c *decoder, const id_set_c *skipped);
  void next();
  bool is_done() const { return !_decoder || _index >= _decoder->get_num_entries(); }
  uint64_t id() const { return _id; }
  const std::vector<oil_interval_t> &pairs() const { return _pairs; }

 private:
  void settle();  // on an entry that is readable and not skipped

  const oil_decoder_c *_decoder = nullptr;
  const id_set_c *_skipped = nullptr;
  size_t _index = 0;
  uint64_t _id = 0;
  std::vector<oil_interval_t> _pairs;
};

// The newest record of every id across files; ids that a newer file deletes are not among them.
class delegate_iterator_c {
 public:
  explicit delegate_iterator_c(std::vector<oil_decoder_sp> decoders);  // in any order
  void next();
  bool is_done() const { return _at == _decoders.size(); }
  uint64_t id() const { return _iterator.id(); }
  const std::vector<oil_interval_t> &pairs() const { return _iterator.pairs(); }

 private:
  void settle();

  std::vector<oil_decoder_sp> _decoders;
  size_t _at = 0;
  id_set_c _skipped;  // deleted or given already
  surrogate_encoded_data_file_iterator_c _iterator;
};

}  // namespace db::surrogate3
