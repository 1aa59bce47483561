#include "platform/dorn/dorn_tagset.h"

#include <gtest/gtest.h>

#include <memory>

#include "platform/dorn/dorn_metric_id.h"
#include "unit/platform/dorn/b64_model.h"

namespace {

using tags_t = std::vector<std::string>;

struct owned_tagset_t : dorn_metric_tagset_t {
  owned_tagset_t() { dorn_metric_tagset_init(this); }
  ~owned_tagset_t() { dorn_metric_tagset_cleanup(this); }
  owned_tagset_t(const owned_tagset_t &) = delete;
  owned_tagset_t &operator=(const owned_tagset_t &) = delete;

  bool parse(std::string_view tags, dorn_tagset_text_e mode,
             const dorn_metric_tagset_context_t *context = nullptr) {
    return dorn_metric_tagset_init_with_context(this, context, tags.data(), tags.size(), mode);
  }
  std::string whole() const { return std::string(text ? text : "", text_size); }
};

tags_t texts(const dorn_metric_tagset_t &set) {
  tags_t result;
  for (const dorn_metric_tag_t &tag : set) result.emplace_back(tag.text());
  return result;
}

TEST(dorn_tagset, view_looks_into_the_key) {
  const std::string key = "name|ST[a:1,b\"Yzpk\":x:y,c:]|MT{q}";
  const std::string_view tags = std::string_view(key).substr(8, 18);
  owned_tagset_t set;
  ASSERT_TRUE(set.parse(tags, dorn_tagset_text_e::view));
  EXPECT_FALSE(set.owns_text);
  EXPECT_EQ(set.text, key.data() + 8);
  EXPECT_EQ(dorn_metric_tagset_canonical_size(&set), 18u);
  EXPECT_EQ(set.count, 3);
  EXPECT_EQ(texts(set), (tags_t{"a:1", "b\"Yzpk\":x:y", "c:"}));
  const dorn_metric_tag_t second = *std::next(set.begin());
  EXPECT_EQ(second.total_size, 11);
  EXPECT_EQ(second.category_size, 8);  // with the colon
  EXPECT_EQ(second.category(), "b\"Yzpk\"");
  EXPECT_EQ(second.value(), "x:y");
}

TEST(dorn_tagset, copy_is_canonical_view_must_be) {
  owned_tagset_t set, viewed;
  ASSERT_TRUE(set.parse(" b:c,a:x,b:c", dorn_tagset_text_e::copy));
  EXPECT_EQ(set.whole(), "a:x,b:c");
  EXPECT_EQ(set.count, 2);
  for (const char *text : {" b:c", "b:c,a:x", "a:x,a:x", "a:b\"YQ==\"", "a", " ", "a:x,"}) {
    EXPECT_FALSE(viewed.parse(text, dorn_tagset_text_e::view)) << text;
    EXPECT_EQ(viewed.count, 0);
    EXPECT_EQ(viewed.begin(), viewed.end());
  }
  EXPECT_TRUE(viewed.parse("", dorn_tagset_text_e::view));
  EXPECT_TRUE(texts(viewed).empty());
}

TEST(dorn_tagset, longest_category_and_tag) {
  const std::string tags = std::string(126, 'c') + ":" + std::string(897, 'v') + ",x:y";
  owned_tagset_t set;
  ASSERT_TRUE(set.parse(tags, dorn_tagset_text_e::view));
  EXPECT_EQ(set.begin()->category_size, 127);
  EXPECT_EQ(set.begin()->total_size, 1024);
}

TEST(dorn_tagset, validate_function_refuses_the_whole_text) {
  const std::unique_ptr<dorn_metric_tagset_context_t, void (*)(dorn_metric_tagset_context_t *)> context(
      dorn_metric_tagset_context_alloc(), dorn_metric_tagset_context_free);
  dorn_metric_tagset_context_set_validate_function(
      context.get(), [](const char *tag, size_t total_size, size_t category_size) {
        return std::string_view(tag, category_size) != "__name:" ||
               std::string_view(tag, total_size) == "__name:ok";
      });
  owned_tagset_t set;
  EXPECT_FALSE(set.parse("a:b,__name:x", dorn_tagset_text_e::copy, context.get()));
  EXPECT_EQ(set.count, 0);
  EXPECT_FALSE(set.owns_text);
  dorn_metric_tagset_cleanup(&set);
  EXPECT_TRUE(set.parse("__namefoo:x", dorn_tagset_text_e::copy, context.get()));
  dorn_metric_tagset_cleanup(&set);
  EXPECT_TRUE(set.parse("__name:ok", dorn_tagset_text_e::copy, context.get()));
}

TEST(dorn_tagset, decode_tag) {
  char out[32];
  size_t category = 0;
  const auto decode = [&](const std::string &tag, size_t room = sizeof out) {
    const ssize_t len = dorn_metric_tagset_decode_tag(tag.data(), tag.size(), out, room, &category);
    return len < 0 ? std::string("refused") : std::string(out, static_cast<size_t>(len));
  };
  EXPECT_EQ(decode("a:b"), "a:b");
  EXPECT_EQ(decode(model_encoded("x:y") + ":" + model_encoded(std::string("\0:", 2))),
            std::string("x:y:\0:", 6));
  EXPECT_EQ(category, 3u);
  EXPECT_EQ(decode("abc:", 4), "abc:");
  EXPECT_EQ(decode("abc:", 3), "refused");
  EXPECT_EQ(decode("ab:c", 3), "refused");
  EXPECT_EQ(decode("abc"), "refused");
  EXPECT_EQ(decode("a:b\"Y\""), "refused");
}

TEST(dorn_tagset, taggable) {
  const auto key = [](const std::string &text) {
    return dorn_metric_tagset_is_taggable_key(text.data(), text.size());
  };
  const auto value = [](const std::string &text) {
    return dorn_metric_tagset_is_taggable_value(text.data(), text.size());
  };
  EXPECT_TRUE(key("a-b") && key(model_encoded("a b")) && key(std::string(126, 'k')));
  EXPECT_FALSE(key("") || key("b\"\"") || key("a:b") || key("a b") || key("b\"Y\"") ||
               key(std::string(127, 'k')));
  EXPECT_TRUE(value("") && value("a:b") && value(model_encoded("a b")) && value(std::string(1022, 'v')));
  EXPECT_FALSE(value("a b") || value("a,b") || value("b\"Y\"") || value("\xc3\xa9") ||
               value(std::string(1023, 'v')));
}

TEST(dorn_tagset, builder) {
  dorn_metric_tagset_builder_t builder;
  dorn_metric_tagset_builder_start(&builder);
  EXPECT_TRUE(dorn_metric_tagset_builder_add_one(&builder, "b", "c d"));
  EXPECT_TRUE(dorn_metric_tagset_builder_add_one(&builder, "a:", "x:y"));
  EXPECT_TRUE(dorn_metric_tagset_builder_add_one(&builder, "b", "c d"));
  owned_tagset_t set, parsed;
  EXPECT_TRUE(dorn_metric_tagset_builder_end(&builder, &set));
  ASSERT_TRUE(parsed.parse("b:c d,b\"YTo=\":x:y", dorn_tagset_text_e::copy));
  EXPECT_EQ(set.whole(), parsed.whole());
  EXPECT_EQ(set.count, 2);

  owned_tagset_t rest;
  dorn_metric_tagset_builder_start(&builder);
  EXPECT_TRUE(dorn_metric_tagset_builder_add_one(&builder, std::string(126, 'c'), std::string(897, 'v')));
  EXPECT_FALSE(dorn_metric_tagset_builder_add_one(&builder, "", "x"));
  EXPECT_FALSE(dorn_metric_tagset_builder_add_one(&builder, std::string(127, 'c'), ""));
  EXPECT_FALSE(dorn_metric_tagset_builder_add_one(&builder, std::string(126, 'c'), std::string(898, 'v')));
  EXPECT_FALSE(dorn_metric_tagset_builder_end(&builder, &rest));
  EXPECT_EQ(rest.count, 1);
}

TEST(dorn_tagset, metric_id) {
  const std::string name = "cpu|MT{q}|ST[b:1, a:2]";
  dorn_metric_id_t id;
  ASSERT_TRUE(dorn_metric_id_process_tags(&id, name.data(), name.size(), "uuid"));
  EXPECT_EQ(id.name, "cpu");
  EXPECT_EQ(texts(id.stream_tags), (tags_t{"a:2", "b:1"}));
  dorn_metric_id_clear(&id);
  for (const std::string bad : {"cpu|ST[b]", "cpu|ST[b:c]x", "c\n"}) {
    EXPECT_FALSE(dorn_metric_id_process_tags(&id, bad.data(), bad.size(), "")) << bad;
    EXPECT_EQ(id.stream_tags.count, 0);
  }
}

}  // namespace
