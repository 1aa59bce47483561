// A window fetched from the metric's owner: what is asked, and what is made of good and bad answers.
#include "be/rollup/rollup_fetcher.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "fake_reader.h"
#include "libvelmar/topo/topo.h"
#include "libvelmar/util/tolv_proxy_buffer.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"

namespace {

using namespace velmar_be_rollup;

constexpr const char *OWNER = "00000007-0000-4000-8000-0123456789ab";
constexpr const char *URL = "/rollup/01020300-0000-0000-0000-000000000000/m";

class rollup_fetcher : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    static const temp_dir_c directory;
    tolv_proxy_buffer_init_proxy_dir(directory.path().c_str());
    topo_init_globals();
    std::string error;
    auto topology =
        topo_compile_text(fmt::format("<nodes write_copies=\"1\"><node id=\"{}\" address=\"127.0.0.1\" "
                                      "port=\"8112\" apiport=\"8112\" weight=\"10\"/></nodes>",
                                      OWNER),
                          nullptr, &error);
    ASSERT_TRUE(topology) << error;
    topo_initialize(topo_retain(std::move(topology)), nullptr, topo_uuid_t{1});
  }
  fetched_window_t fetch(scripted_peer_c::answer_t answer) {
    m_peer.answer("http", std::move(answer));
    return make_read_rollup_remote()->fetch({locator_of("m"), 600, 1200, 60}, 2500);
  }
  // An image from 600 on of cells 1, 2, 3.
  static std::string image() {
    const int fd = nnt_create_tmp(nullptr, "/var/tmp/rollup_fetcher_test", 600, 60, 0600);
    const nnt_handle_up h(nnt_open_fd_sync(fd, false, nullptr));
    const nnt_multitype cells[] = {cell_of(1), cell_of(2), cell_of(3)};
    EXPECT_EQ(nnt_put_range(h.get(), 600, 3, cells), 3);
    const nnt_readfast_up view(nnt_acquire_readfast(h.get()));
    return {reinterpret_cast<const char *>(view->addr), view->len};
  }

  scripted_peer_c m_peer;
};

TEST_F(rollup_fetcher, a_window_and_its_metadata) {
  const auto window =
      fetch({200, image(), {{"x-nnt-original-epoch-ms", "60000"}, {"x-nnt-original-apocalypse-ms", "720000"}}});
  ASSERT_TRUE(window.ok && window.view);
  EXPECT_EQ(window.original_epoch, 60U);
  EXPECT_EQ(window.original_last, 720U);
  nnt_multitype cell;
  EXPECT_EQ(nnt_get_fast(window.view.get(), 660, &cell), 1);
  EXPECT_EQ(cell.value.v_uint64, 2U);
  const peer_request_t request = m_peer.requests().at(0);
  EXPECT_EQ(request.url.substr(request.url.find("/rollup/")),
            std::string(URL) + "?start_ts=600&end_ts=1200&rollup_span=60s&type=all&get_metadata=true");
  EXPECT_NE(request.url.find(OWNER), std::string::npos);
  EXPECT_EQ(request.headers,
            (std::vector<std::string>{"Accept: application/x-tolvanus-nnt; q=1.0", "X-Velmar-Ephemeral: 1"}));
  EXPECT_EQ(request.timeout_ms, 2500);
}

TEST_F(rollup_fetcher, answers_without_data_and_bad_ones) {
  const auto empty = fetch({});
  EXPECT_TRUE(empty.ok);
  EXPECT_FALSE(empty.view);
  EXPECT_FALSE(empty.original_epoch);
  EXPECT_FALSE(fetch({500, "{}"}).ok);
  EXPECT_FALSE(fetch({200, "NNT1 but short"}).ok);
  EXPECT_FALSE(fetch({200, "[[600,1]]           "}).ok);
  EXPECT_FALSE(fetch({200, "", {}, 7}).ok);
  const auto torn = fetch({200, image().substr(0, 70), {{"x-nnt-original-epoch-ms", "-1"}}});
  ASSERT_TRUE(torn.ok);
  EXPECT_FALSE(torn.original_epoch);
  nnt_multitype cell;
  EXPECT_EQ(nnt_get_fast(torn.view.get(), 600, &cell), 1);
  EXPECT_EQ(cell.count, 1U);
  EXPECT_EQ(nnt_get_fast(torn.view.get(), 660, &cell), 1);
  EXPECT_EQ(cell.count, 0U);
}

}  // namespace
