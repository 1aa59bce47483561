#include "db/surrogate3/codec/oil_decoder_composite.h"

#include <algorithm>

namespace db::surrogate3 {

oil_ptr oil_decoder_composite_c::find(uint64_t id) const {
  for (const oil_decoder_sp &decoder : _decoders)
    if (oil_ptr oil = decoder->find(id)) return oil;
  return nullptr;
}

std::vector<oil_decoder_sp> oil_decoder_composite_c::replace(std::vector<oil_decoder_sp> decoders) {
  return std::exchange(_decoders, std::move(decoders));
}

void surrogate_encoded_data_file_iterator_c::reset(const oil_decoder_c *decoder, const id_set_c *skipped) {
  _decoder = decoder;
  _skipped = skipped;
  _index = 0;
  settle();
}

void surrogate_encoded_data_file_iterator_c::next() {
  ++_index;
  settle();
}

void surrogate_encoded_data_file_iterator_c::settle() {
  while (!is_done() && (!_decoder->get_oil_at(_index, &_id, &_pairs) || _skipped->contains(_id))) ++_index;
}

delegate_iterator_c::delegate_iterator_c(std::vector<oil_decoder_sp> decoders)
    : _decoders(std::move(decoders)) {
  std::sort(_decoders.begin(), _decoders.end(), decoder_greater_t());
  if (_decoders.empty()) return;
  _decoders[0]->load_tombstones(&_skipped);
  _iterator.reset(_decoders[0].get(), &_skipped);
  settle();
}

void delegate_iterator_c::next() {
  _skipped.add(_iterator.id());
  _iterator.next();
  settle();
}

void delegate_iterator_c::settle() {
  while (_iterator.is_done() && ++_at < _decoders.size()) {
    _decoders[_at]->load_tombstones(&_skipped);
    _iterator.reset(_decoders[_at].get(), &_skipped);
  }
}

}  // namespace db::surrogate3
