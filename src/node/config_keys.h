#pragma once
// Every key of the configuration: where it stands, what it takes and what it does. The check of a configuration
// and docs/CONFIG.md are made of this table.

#include <cstdio>
#include <span>
#include <string_view>

enum class config_kind_e {
  text,
  integer,
  decimal,
  boolean,
  duration,  // whole seconds or finer, see the unit
  size,      // bytes
  choice,    // one of `choices`
  uuid,
  directory,  // made when missing; {node} stands for the node's id
  file,
  port,
  time,
  search,    // a tag search
  repeated,  // an element without a value of its own
};

struct config_key_t {
  // Elements below the root and, behind "@", the attribute; without one it is the element's text. "*" at the
  // end of an element's name stands for any characters.
  std::string_view place;
  config_kind_e kind;
  std::string_view fallback;  // what holds without the key; "-": the key is required
  std::string_view meaning;
  std::string_view choices = {};  // separated by blanks
};

std::span<const config_key_t> config_keys();
// docs/CONFIG.md.
void config_keys_write_markdown(FILE *out);
