#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>

#include "node/node_process.h"

int main(int argc, char *argv[]) {
  if (getenv("http_proxy") || getenv("HTTP_PROXY")) {
    fputs("Cannot boot with http_proxy or HTTP_PROXY environment variables set.\nABORT.\n", stderr);
    return 255;
  }
  command_line_t line;
  if (const auto status = parse_clargs(argc, argv, &line, stdout, stderr)) return *status;
  curl_global_init(CURL_GLOBAL_ALL);
  return velmard_run(line);
}
