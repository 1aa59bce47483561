#pragma once
#include <string>

#include "platform/krel/http/krel_http.h"

void http_files_set_root(const std::string &root);  // at start-up; "" serves nothing
