#pragma once
// ${NAME} and ${NAME:-default} in configuration values.

#include <string>
#include <string_view>

// Anything else that looks alike stays as it stands. False with the reason when a variable without a
// default is unset, or the result would be absurdly long. An empty variable takes its default.
bool krel_conf_expand_env(std::string_view text, std::string *out, std::string *error);
