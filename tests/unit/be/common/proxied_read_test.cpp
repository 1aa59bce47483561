// Whom a read asks, and what it asks.
#include "be/common/proxied_read.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>

#include "util/metric_locator.h"

namespace {

using namespace velmar_be_common;

topo_uuid_t id_of(uint8_t n) {
  return {n, 0, 0, 0, 0, 0, 0x40, 0, 0x80, 0, 0, 0, 0, 0, 0, 1};
}

std::string text_of(uint8_t n) {
  return fmt::format("{:02x}000000-0000-4000-8000-000000000001", n);
}

metric_locator_sp locator_of(const char *name) {
  const uint8_t uuid[16] = {1, 2, 3};
  mem_reader_t reader;
  mem_reader_init_mem(&reader, name, strlen(name));
  return metric_locator_adopt(velmar_metric_locator_create(uuid, &reader, METRIC_TYPE_NUMERIC));
}

TEST(proxied_read, owners_and_urls) {
  const metric_locator_sp locator = locator_of("a b|ST[c:d/e]");
  EXPECT_EQ(pick_best_system(locator.get()), nullptr) << "no topology";
  std::string xml = "<nodes write_copies=\"2\">", error;
  for (uint8_t n = 1; n <= 3; n++)
    xml += fmt::format("<node id=\"{}\" address=\"127.0.0.{}\" port=\"80\" apiport=\"80\" weight=\"10\"/>",
                       text_of(n), n);
  topo_init_globals();
  topo_config *topology = topo_retain(topo_compile_text(xml + "</nodes>", nullptr, &error));
  host_config *owners[TOPO_MAX_WRITE_COPIES];
  topo_initialize(topology, nullptr, id_of(1));
  ASSERT_EQ(topo_find_insertion_point_config_locator(topology, locator.get(), owners, 0), 2);
  // this node is the primary owner, the other one, none
  const uint8_t third = static_cast<uint8_t>(6 - owners[0]->id[0] - owners[1]->id[0]);
  ASSERT_EQ(topo_set_node(owners[0]->id), 0);
  EXPECT_EQ(pick_best_system(locator.get()), owners[0]);
  EXPECT_EQ(pick_best_system_prefer_remote(locator.get()), owners[1]);
  ASSERT_EQ(topo_set_node(owners[1]->id), 0);
  EXPECT_EQ(pick_best_system(locator.get()), owners[1]);
  EXPECT_EQ(pick_best_system_prefer_remote(locator.get()), owners[0]);
  ASSERT_EQ(topo_set_node(id_of(third)), 0);
  EXPECT_EQ(pick_best_system(locator.get()), owners[0]);
  EXPECT_EQ(pick_best_system_prefer_remote(locator.get()), owners[0]);

  const peer_request_t request = make_proxied_read(owners[0], "raw", locator.get(), "start=0&end=1");
  EXPECT_EQ(request.url.substr(request.url.find("/raw/")),
            "/raw/01020300-0000-0000-0000-000000000000/a%20b%7CST%5Bc%3Ad%2Fe%5D?start=0&end=1");
  EXPECT_EQ(request.headers, std::vector<std::string>{"X-Velmar-Proxied: " + text_of(third)});
  EXPECT_TRUE(make_read(owners[0], "raw", locator.get(), "").headers.empty());
}

}  // namespace
