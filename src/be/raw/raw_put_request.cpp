#include "be/raw/raw_put_request.h"

namespace be::raw {

raw_put_request_t *raw_put_request_t::create(done_f done) {
  auto *request = new raw_put_request_t(std::move(done));
  request->joiner = libvelmar_join_create(join_complete, request);
  return request;
}

void raw_put_request_t::join_complete(void *closure) {
  auto *request = static_cast<raw_put_request_t *>(closure);
  if (request->m_done) request->m_done(request);
  request->let_go();
}

void raw_put_request_t::let_go() {
  if (m_sides.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

void raw_put_request_t::set_error(int code, const std::string &text) {
  const krel_lock_c lock(_error_mutex);
  if (_error_code != 0) return;
  _error_code = code;
  _error_msg = text;
}

int raw_put_request_t::get_error(std::string *text) {
  const krel_lock_c lock(_error_mutex);
  *text = _error_msg;
  return _error_code;
}

}  // namespace be::raw
