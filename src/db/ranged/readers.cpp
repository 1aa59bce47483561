#include "db/ranged/readers.h"

#include "db/ranged/dispatch_reader.h"
#include "db/ranged/from_raw_reader.h"
#include "db/ranged/nntbs_reader.h"
#include "db/ranged/whisper_reader.h"
#include "platform/krel/base/krel_log.h"

namespace db::ranged {

namespace {

using dispatch_c = velmar_db_ranged_dispatch::ctx_c;

struct readers_t {
  explicit readers_t(const ranged_readers_params_t &params)
      : whisper(velmar::ranged::from::whisper::ctx_c::from_conf()),
        outer_nnt(nnt_params(params, false)),
        inner_nnt(nnt_params(params, true)) {
    if (!params.raw) {
      simple = std::make_shared<dispatch_c>(&outer_nnt, &inner_nnt, false);
      coarsen = simple;
      return;
    }
    from_raw = std::make_unique<velmar_db_ranged_fromRaw::ctx_c>(params.lookup, params.raw);
    simple = std::make_shared<dispatch_c>(&outer_nnt, from_raw.get(), false);
    inner = std::make_unique<dispatch_c>(from_raw.get(), &inner_nnt, true);
    coarsen = std::make_shared<dispatch_c>(&outer_nnt, inner.get(), false);
  }
  nntbs::reader_params_t nnt_params(const ranged_readers_params_t &params, bool can_coarsen) const {
    nntbs::reader_params_t nnt;
    nnt.rollups = params.rollups;
    nnt.whisper = whisper.get();
    nnt.can_coarsen = can_coarsen;
    return nnt;
  }

  const std::unique_ptr<velmar::ranged::from::whisper::ctx_c> whisper;
  const nntbs::ctx_c outer_nnt, inner_nnt;
  std::unique_ptr<velmar_db_ranged_fromRaw::ctx_c> from_raw;
  std::unique_ptr<dispatch_c> inner;
  std::shared_ptr<dispatch_c> simple, coarsen;
};

std::unique_ptr<readers_t> readers;

}  // namespace

void ranged_readers_init(const ranged_readers_params_t &params) {
  krel_assert(params.rollups && (!params.raw || params.lookup));
  readers = std::make_unique<readers_t>(params);
}

void ranged_readers_close() {
  readers.reset();
}

const db::kv::ranged_reader_c *outer_nnt_reader() {
  return readers ? &readers->outer_nnt : nullptr;
}
const db::kv::ranged_reader_c *inner_nnt_reader() {
  return readers ? &readers->inner_nnt : nullptr;
}
const db::kv::ranged_reader_c *fromRaw_reader() {
  return readers ? readers->from_raw.get() : nullptr;
}
const db::kv::ranged_reader_c *simple_dispatch_reader() {
  return readers ? readers->simple.get() : nullptr;
}
const db::kv::ranged_reader_c *coarsen_dispatch_reader() {
  return readers ? readers->coarsen.get() : nullptr;
}
const db::kv::ranged_reader_c *inner_dispatch_reader() {
  return readers ? readers->inner.get() : nullptr;
}

}  // namespace db::ranged
