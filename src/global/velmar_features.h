#pragma once
// What this node can do, as words for peers and tools: shown by GET /state and GET /capa.

#include <functional>
#include <string>

// A name registered twice is fatal. At start.
void velmar_register_feature(const char *name, const char *value);
void velmar_features_each(
    const std::function<void(const std::string &name, const std::string &value)> &function);
