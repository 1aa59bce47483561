#include "util/velmar_metric_locator.h"

#include <gtest/gtest.h>

#include <thread>
#include <unordered_set>

#include "platform/krel/base/krel_util.h"
#include "util/metric_locator.h"
#include "util/metric_name.h"
#include "util/oil.h"
#include "util/topo_hash.h"
#include "util/uuid_text.h"

namespace {

const char UUID[] = "12345678-9abc-def0-1234-56789abcdef0";

metric_locator_sp locator(std::string_view name, velmar_metric_locator_metric_type_e type = METRIC_TYPE_NUMERIC,
                          const char *uuid_text = UUID) {
  uint8_t uuid[16];
  EXPECT_TRUE(uuid_text_parse(uuid_text, uuid));
  const mem_reader_t reader = {name.data(), name.size()};
  return metric_locator_adopt(velmar_metric_locator_create_full(7, type, uuid, &reader));
}

std::string hash_of(const metric_locator_sp &ml) {
  char hex[TOPO_HASH_HEX_SIZE];
  topo_hash_to_hex(velmar_metric_locator_get_hash(ml.get()), hex);
  return hex;
}

std::string key_of(const metric_locator_sp &ml) {
  return velmar_metric_locator_get_name_with_tags(ml.get());
}

}  // namespace

// The hashes were computed elsewhere.
TEST(MetricLocator, IdentityIsTheHashOfUuidAndCanonicalName) {
  EXPECT_EQ(hash_of(locator("")), "1bb15a44d48dddf62a3eb7298aca1ab615a21bfa0873abc2c946d2011c7e3fe0");
  const std::string tagged = "bad8a1d83af4f055b3637dab08eff0035308bac67d3701f177fb93eaf37efb4d";
  const metric_locator_sp a = locator("a|ST[b:c,x:y]"), b = locator("a|ST[x:y, b:c,x:y]");
  EXPECT_EQ(hash_of(a), tagged);
  EXPECT_EQ(hash_of(b), tagged);
  EXPECT_EQ(key_of(b), "a|ST[b:c,x:y]");
  EXPECT_TRUE(velmar_metric_locator_matches(a.get(), b.get()));
  EXPECT_TRUE(velmar_metric_locator_equal(a.get(), b.get()));

  const metric_locator_sp other =
      locator("a|ST[b:c,x:y]", METRIC_TYPE_NUMERIC, "12345678-9abc-def0-1234-56789abcdef1");
  EXPECT_FALSE(velmar_metric_locator_matches(a.get(), other.get()));
  EXPECT_FALSE(velmar_metric_locator_equal(a.get(), other.get()));
  EXPECT_TRUE(velmar_metric_locator_matches(nullptr, nullptr));
  EXPECT_FALSE(velmar_metric_locator_equal(nullptr, nullptr));
  EXPECT_FALSE(velmar_metric_locator_matches(a.get(), nullptr));

  std::unordered_set<metric_locator_sp, metric_locator_key_hasher_t, metric_locator_key_equal_to_t> set = {
      a, other};
  EXPECT_TRUE(set.contains(b));
  EXPECT_FALSE(set.contains(locator("a")));
}

TEST(TopoHash, PiecesHashLikeTheWhole) {
  const char abc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  uint8_t whole[TOPO_HASH_SIZE], pieces[TOPO_HASH_SIZE];
  char hex[TOPO_HASH_HEX_SIZE];
  for (int round = 0; round < 2; round++) {  // the second time with what the thread kept
    topo_hash("abc", 3, whole);
    topo_hash_to_hex(whole, hex);
    EXPECT_STREQ(hex, abc);
  }
  topo_hash_ctx_t ctx;
  topo_hash_ctx_init(&ctx);
  topo_hash_ctx_update(&ctx, "a", 1);
  topo_hash_ctx_update(&ctx, "bc", 2);
  topo_hash_ctx_final(&ctx, pieces);
  topo_hash_to_hex(pieces, hex);
  EXPECT_STREQ(hex, abc);
}

TEST(UuidText, TakesEveryCaseAndNothingElse) {
  uint8_t uuid[16];
  char text[UUID_TEXT_SIZE + 1] = {};
  ASSERT_TRUE(uuid_text_parse("12345678-9ABC-def0-1234-56789abcdeF0", uuid));
  EXPECT_EQ(uuid[0], 0x12);
  EXPECT_EQ(uuid[15], 0xf0);
  uuid_text_print(uuid, text);
  EXPECT_STREQ(text, UUID);
  for (size_t i = 0; i < UUID_TEXT_SIZE; i++) {
    for (const char c : {'g', '\0', '\xff', '/', ':', '@', '`'}) {
      std::string bad = UUID;
      bad[i] = c;
      EXPECT_FALSE(uuid_text_parse(bad.data(), uuid)) << i;
    }
    std::string moved = UUID;
    moved[i] = UUID[i] == '-' ? '0' : '-';
    EXPECT_FALSE(uuid_text_parse(moved.data(), uuid)) << i;
  }
}

TEST(MetricLocator, KnowsItsPartsOfTheName) {
  const metric_locator_sp ml = locator("a|ST[x:y]|MT{z:1}");
  EXPECT_EQ(key_of(ml), "a|ST[x:y]|MT{z:1}");
  EXPECT_EQ(velmar_metric_locator_get_name_len_without_tags(ml.get()), 1u);
  const dorn_metric_tagset_t *tags = velmar_metric_locator_get_stream_tags(ml.get());
  ASSERT_EQ(tags->count, 1);
  EXPECT_EQ(tags->begin()->text(), "x:y");
  EXPECT_EQ(mem_reader_view(velmar_metric_locator_get_name_buf_without_tags(ml.get())), "a");
  EXPECT_EQ(velmar_metric_locator_get_account_id(ml.get()), 7);

  const metric_locator_sp empty = locator("");
  EXPECT_EQ(velmar_metric_locator_get_name_buf_with_tags(empty.get()).input_buffer, nullptr);
  EXPECT_STREQ(velmar_metric_locator_get_name_with_tags(empty.get()), "");
  const metric_locator_c none;
  EXPECT_EQ(none.get_name_with_tags(), "");
  EXPECT_EQ(none.get_id(), 0u);
}

TEST(MetricLocator, RefusesNamesThatAreNone) {
  EXPECT_TRUE(locator("a|ST[__namefoo:x]"));
  for (const char *name : {"a|ST[__name:x]", "a|ST[__check_uuid:x]", "a|ST[__activity:x]", "a|ST[__type:x]",
                           "a|ST[x:y]|ST[u:v]", "a|ST[x]"})
    EXPECT_FALSE(locator(name)) << name;
  EXPECT_FALSE(locator({"a\0b", 3}));
  EXPECT_FALSE(locator("a\tb"));
  EXPECT_TRUE(locator(std::string(4095, 'n')));
  EXPECT_FALSE(locator(std::string(4096, 'n')));
  EXPECT_FALSE(locator(std::string(1000000, 'n')));
}

TEST(MetricName, BlocksAreCutFromTheEnd) {
  const auto next = [](std::string_view name) {
    const mem_reader_t in = {name.data(), name.size()};
    mem_reader_t out = {}, type = {}, value = {};
    const int kind = metric_name_parse_next_metadata(&in, &out, &type, &value);
    return std::to_string(kind) + "/" + std::string(mem_reader_view(out)) + "/" +
           std::string(mem_reader_view(type)) + "/" + std::string(mem_reader_view(value));
  };
  EXPECT_EQ(next("a|ST[b:c]"), "1/a/ST/b:c");
  EXPECT_EQ(next("a|ST[b:c]|MT{d}"), "2/a|ST[b:c]/MT/d");
  EXPECT_EQ(next("a|MT{}"), "2/a/MT/");
  for (const char *plain : {"", "a", "a|", "a|b", "a|ST[b:c", "a|MT{b]", "a|MT{ST[b:c]"})
    EXPECT_EQ(next(plain), "0///") << plain;
}

TEST(MetricLocator, TheKeyNeedsItsExactRoom) {
  const metric_locator_sp ml = locator("ab");
  char buffer[64];
  EXPECT_EQ(velmar_metric_locator_get_key(ml.get(), buffer, 39), nullptr);
  ASSERT_EQ(velmar_metric_locator_get_key(ml.get(), buffer, 40), buffer);
  EXPECT_EQ(std::string(buffer), std::string(UUID) + "-ab");
  mem_reader_t text = {buffer, 37};
  velmar_metric_locator_get_check_uuid_str_buf(ml.get(), &text);
  EXPECT_EQ(mem_reader_view(text), UUID);
  EXPECT_STREQ(buffer, UUID);
  text = {buffer, 36};
  EXPECT_DEATH(velmar_metric_locator_get_check_uuid_str_buf(ml.get(), &text), "assertion");
}

TEST(MetricLocator, Base64PathsGoBothWays) {
  char path[LOCATOR_B64_PATH_MAX];
  const metric_locator_sp empty = locator("");
  EXPECT_EQ(velmar_metric_locator_b64_path(empty.get(), path, 36), 0);
  EXPECT_EQ(velmar_metric_locator_b64_path(empty.get(), path, 37), 37);
  EXPECT_STREQ(path, UUID);

  const metric_locator_sp ml = locator("a?\?>~~~");  // the encoding of which holds slashes
  ASSERT_EQ(velmar_metric_locator_b64_path(ml.get(), path, sizeof path), 37);
  EXPECT_EQ(std::string(path), std::string(UUID) + "/YT8_Pn5+fg==");
  EXPECT_EQ(velmar_metric_locator_b64_path(ml.get(), path, 49), 0);  // no room for the terminator
  EXPECT_EQ(velmar_metric_locator_b64_path(ml.get(), path, 50), 37);

  const auto from = [](const char *uuid, const char *name) {
    return metric_locator_adopt(velmar_metric_locator_from_b64_path(uuid, name));
  };
  EXPECT_TRUE(velmar_metric_locator_equal(from(UUID, path + 37).get(), ml.get()));
  EXPECT_EQ(velmar_metric_locator_get_type(from(UUID, path + 37).get()), METRIC_TYPE_NUMERIC);
  EXPECT_FALSE(from(UUID, ""));
  EXPECT_FALSE(from(UUID, "&&&&"));
  EXPECT_FALSE(from("12345678-9abc-def0-1234-56789abcdef", path + 37));
  const metric_locator_sp longest = locator(std::string(4095, 'x'));
  ASSERT_EQ(velmar_metric_locator_b64_path(longest.get(), path, sizeof path), 37);
  EXPECT_TRUE(velmar_metric_locator_equal(from(UUID, path + 37).get(), longest.get()));
}

TEST(MetricLocator, JsonGoesBothWays) {
  const metric_locator_sp ml = locator("a|ST[b:c]", METRIC_TYPE_TEXT);
  const krel_json_ptr json(velmar_metric_locator_to_json(ml.get()));
  const metric_locator_sp back = metric_locator_adopt(velmar_metric_locator_from_json(json.get()));
  ASSERT_TRUE(velmar_metric_locator_equal(ml.get(), back.get()));
  EXPECT_EQ(velmar_metric_locator_get_type(back.get()), METRIC_TYPE_TEXT);
  EXPECT_EQ(velmar_metric_locator_get_account_id(back.get()), 7);

  const auto from = [](const std::string &text) {
    const krel_json_ptr parsed(krel_json_tokener_parse(text));
    return metric_locator_adopt(velmar_metric_locator_from_json(parsed.get()));
  };
  const std::string head =
      R"({"check_uuid":"12345678-9abc-def0-1234-56789abcdef0","metric_name":"a","metric_type":)";
  EXPECT_EQ(velmar_metric_locator_get_account_id(from(head + "65537}").get()), -1);
  EXPECT_EQ(velmar_metric_locator_get_type(from(head + "65537}").get()), METRIC_TYPE_NUMERIC);
  for (const char *tail : {R"("1"})", R"(1,"account_id":"1"})", R"(1,"account_id":null})",
                           R"(1,"account_id":1e2})", R"(1,"account_id":4294967296})"})
    EXPECT_FALSE(from(head + tail)) << tail;
  EXPECT_FALSE(from(R"({"check_uuid":"12345678","metric_name":"a","metric_type":1})"));
  EXPECT_FALSE(from(R"({"metric_name":"a","metric_type":1})"));
  EXPECT_FALSE(from("[]"));
}

TEST(MetricLocator, TypesHaveNames) {
  const metric_locator_sp ml = locator("a");
  const auto name = [&ml](unsigned type) {
    char buffer[64];
    velmar_metric_locator_set_type(ml.get(), static_cast<velmar_metric_locator_metric_type_e>(type));
    return std::string(velmar_metric_locator_get_type_str(ml.get(), buffer, sizeof buffer));
  };
  EXPECT_EQ(name(0), "unknown");
  EXPECT_EQ(name(3), "numeric,histogram");
  EXPECT_EQ(name(5), "numeric,text");
  EXPECT_EQ(name(6), "histogram,text");
  EXPECT_EQ(name(65535), "any");
  EXPECT_EQ(name(7), "invalid: 0x0007");
}

TEST(MetricLocator, CloneTakesIdentityAndActivityOnly) {
  const metric_locator_sp ml = locator("a|ST[b:c]", METRIC_TYPE_HISTOGRAM);
  velmar_metric_locator_set_egress_function(ml.get(), EGRESS_FUNCTION_COUNT);
  velmar_metric_locator_set_surrogate_id(ml.get(), 99);
  velmar_metric_locator_set_canonical(ml.get());
  velmar_metric_locator_record_activity(ml.get(), 3000);
  velmar_metric_locator_update_text(ml.get(), 5, "x", true);
  const metric_locator_sp copy = metric_locator_adopt(velmar_metric_locator_clone(ml.get()));
  ASSERT_TRUE(velmar_metric_locator_equal(ml.get(), copy.get()));
  EXPECT_EQ(velmar_metric_locator_get_egress_function(copy.get()), EGRESS_FUNCTION_COUNT);
  EXPECT_EQ(velmar_metric_locator_get_account_id(copy.get()), 7);
  EXPECT_TRUE(velmar_metric_locator_was_active(copy.get(), 3000, 3000));
  EXPECT_EQ(metric_locator_c(copy).get_id(), 0u);
  EXPECT_FALSE(velmar_metric_locator_is_canonical(copy.get()));
  EXPECT_EQ(velmar_metric_locator_last_missing(copy.get()), METRIC_TYPE_HISTOGRAM);
  velmar_metric_locator_record_activity(copy.get(), 900000000);  // the lists are apart
  EXPECT_FALSE(velmar_metric_locator_was_active(ml.get(), 900000000, 900000000));
}

namespace {
int released = 0;
}

TEST(MetricLocator, PreparedPartsComeBackOnceWithTheLastReference) {
  const metric_locator_sp source = locator("a|ST[b:c]");
  velmar_metric_locator_immutable_data_t parts = *source->immutable;
  parts.surrogate_id = 5;
  parts.release = [](velmar_metric_locator_immutable_data_t *) { released++; };
  {
    const metric_locator_c outer(
        metric_locator_adopt(velmar_metric_locator_create_from_parts(&parts, 3, METRIC_TYPE_ANY)));
    const metric_locator_c copy = outer, observer(copy.get(), false);
    EXPECT_EQ(observer.get_id(), 5u);
    EXPECT_EQ(observer.get_name_without_tags(), "a");
    EXPECT_EQ(released, 0);
  }
  EXPECT_EQ(released, 1);
  parts.key_len--;
  EXPECT_DEATH(velmar_metric_locator_create_from_parts(&parts, 3, METRIC_TYPE_ANY),
               "strlen\\(rval->immutable->key_mem\\) == rval->immutable->key_len");
}

TEST(MetricLocator, ActivityIsKeptInUnitsOfFiveMinutes) {
  const metric_locator_sp ml = locator("a");
  EXPECT_TRUE(velmar_metric_locator_was_active(ml.get(), 0, 0));
  EXPECT_FALSE(velmar_metric_locator_was_active(nullptr, 0, 0));
  EXPECT_FALSE(velmar_metric_locator_was_active(ml.get(), 1, 10));
  EXPECT_TRUE(velmar_metric_locator_record_activity(ml.get(), 1000000));
  EXPECT_FALSE(velmar_metric_locator_record_activity(ml.get(), 1000199));  // the same unit
  EXPECT_FALSE(velmar_metric_locator_record_activity(ml.get(), UINT64_MAX));
  EXPECT_TRUE(velmar_metric_locator_was_active(ml.get(), 1000199, 1000199));
  EXPECT_FALSE(velmar_metric_locator_was_active(ml.get(), 1000200, UINT64_MAX));
  EXPECT_FALSE(velmar_metric_locator_was_active(ml.get(), 5, 4));

  EXPECT_TRUE(velmar_metric_locator_is_active_at(ml.get(), 1000000 * 1000ull));
  EXPECT_TRUE(velmar_metric_locator_is_active_at(ml.get(), (1000199 + 86400) * 1000ull));
  EXPECT_FALSE(velmar_metric_locator_is_active_at(ml.get(), (1000200 + 86400) * 1000ull));
  EXPECT_FALSE(velmar_metric_locator_is_active_at(ml.get(), 86399999));
  velmar_metric_locator_set_global_active_before(2000000);
  EXPECT_TRUE(velmar_metric_locator_was_active(ml.get(), 1500000, 1500001));
  EXPECT_FALSE(velmar_metric_locator_was_active(ml.get(), 2000000, 2000001));
  EXPECT_FALSE(
      velmar_metric_locator_is_active_at(locator("b").get(), 1000000 * 1000ull));  // no list, no window
  velmar_metric_locator_set_global_active_before(0);
}

TEST(MetricLocator, ActivityComesAsListsAndAsJson) {
  const metric_locator_sp ml = locator("a");
  const oil_ptr list(oil_alloc());
  oil_put(list.get(), 10, 20);
  EXPECT_TRUE(velmar_metric_locator_merge_oil(ml.get(), list.get()));
  EXPECT_FALSE(velmar_metric_locator_merge_oil(ml.get(), list.get()));
  EXPECT_FALSE(velmar_metric_locator_merge_oil(ml.get(), nullptr));
  EXPECT_NE(velmar_metric_locator_oil_dump(ml.get()).find("size[1] cap[1]"), std::string::npos);
  const auto set_json = [&ml](const char *text) {
    const krel_json_ptr json(krel_json_tokener_parse(text));
    return velmar_metric_locator_set_activity_from_json(ml.get(), json.get());
  };
  EXPECT_FALSE(set_json("{}"));
  EXPECT_TRUE(velmar_metric_locator_was_active(ml.get(), 3000, 3000));
  EXPECT_TRUE(set_json(R"([[300,899],[1],"x",[1,"2"],[-5,5],[90000,91000],[1,99999999999999]])"));
  const oil_ptr got(velmar_metric_locator_get_activity_clone(ml.get()));
  oil_ptr want(oil_alloc());
  oil_put(want.get(), 1, 2);
  oil_put(want.get(), 300, 303);
  EXPECT_TRUE(oil_exact_match(got.get(), want.get())) << oil_dump(got.get());
  velmar_metric_locator_set_activity(ml.get(), nullptr);
  EXPECT_EQ(velmar_metric_locator_get_activity_clone(ml.get()), nullptr);
}

TEST(MetricLocator, ReferencesMayBeDroppedAnywhere) {
  for (int round = 0; round < 50; round++) {
    metric_locator_sp ml = locator("shared");
    velmar_metric_locator_update_text(ml.get(), 1, "x", true);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++)
      threads.emplace_back([ml, t]() mutable {
        for (int i = 0; i < 20; i++) {
          const metric_locator_sp copy = ml;
          velmar_metric_locator_record_activity(copy.get(), static_cast<uint64_t>(i * 40000 + t));
        }
        ml.reset();
      });
    ml.reset();
    for (auto &t : threads) t.join();
  }
}
