#pragma once
// Listening sockets. They accept on the first loop of "default" and deal connections out to its threads
// in turn.

#include <string>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/http/krel_http.h"

struct http_tls_context_t;

// Opens one for HTTP; the port in force, or -1 with the reason in *error. The context may be null and
// stays the listener's.
int http_listen(const std::string &address, int port, http_tls_context_t *tls, std::string *error);
