#pragma once
// The coordinator that the configuration asks for.

#include <memory>
#include <string>

namespace db::surrogate3 {

class coordinator_c;

class coordinator_factory_c {
 public:
  // Reads `//surrogate_database`, whose @location must be there: "{node}" in it becomes the node's id. The
  // files are read and the result is ready for use. What is wrong ends the process.
  static std::shared_ptr<coordinator_c> create(const std::string &node_id);
};

}  // namespace db::surrogate3
