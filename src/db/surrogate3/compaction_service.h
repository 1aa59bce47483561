#pragma once
// Where the writer hands every data file that comes to be, so that it can be merged with others later.

#include "db/surrogate3/codec/decoder.h"

namespace db::surrogate3 {

// Of one kind of file. Called on the writer's thread.
template <typename Decoder>
class compaction_service_c {
 public:
  virtual ~compaction_service_c() = default;
  virtual void accept(const std::shared_ptr<const Decoder> &decoder) = 0;
};

}  // namespace db::surrogate3
