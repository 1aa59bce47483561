#include "util/metric_db_record.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr const char *UUID = "c9b0e0f2-6a6e-4b53-9a62-3f6f3e6f1a11";

std::string line(const std::string &account = "17", const std::string &uuid = UUID,
                 const std::string &name = "cpu|ST[a:b]", const std::string &category = "1") {
  return account + "\t" + uuid + "\tweb checks\t" + name + "\t" + category;
}

TEST(metric_db_record, fields) {
  EXPECT_EQ(metric_db_record_type_lookup("M"), 1);
  for (const char *other : {"", "m", "MM", "H1"}) EXPECT_EQ(metric_db_record_type_lookup(other), 2);
  const std::string text = line();
  metric_db_record_m_t record;
  ASSERT_TRUE(metric_db_record_parse_m(text, &record));
  EXPECT_EQ(record.account_id, 17U);
  EXPECT_EQ(record.check_uuid_str, UUID);
  EXPECT_EQ(record.check_uuid[0], 0xc9);
  EXPECT_EQ(record.check_uuid[15], 0x11);
  EXPECT_EQ(mem_reader_view(record.check_name_buf), "web checks");
  EXPECT_EQ(mem_reader_view(record.metric_name_buf), "cpu|ST[a:b]");
  EXPECT_EQ(record.category, 1);
}

TEST(metric_db_record, limits_and_lines_that_are_none) {
  metric_db_record_m_t record;
  EXPECT_TRUE(metric_db_record_parse_m(line("0", UUID, "m", "0"), &record));
  EXPECT_TRUE(metric_db_record_parse_m(line("2147483647", UUID, "m", "255"), &record));
  EXPECT_TRUE(metric_db_record_parse_m(std::string("1\t") + UUID + "\t\tm\t1", &record));
  const std::string upper = "C9B0E0F2-6A6E-4B53-9A62-3F6F3E6F1A11";
  EXPECT_TRUE(metric_db_record_parse_m(line("1", upper), &record));
  const std::string good = line();
  for (const std::string &bad :
       {line("2147483648"), line("-1"), line(""), line("1x"), line(" 1"), line("99999999999999999999"),
        line("1", "c9b0e0f2"), line("1", std::string(UUID) + "0"), line("1", std::string(35, '0') + "g"),
        line("1", UUID, ""), line("1", UUID, "m", "256"), line("1", UUID, "m", ""), line("1", UUID, "m", "1\t"),
        line("1", UUID, std::string("m\0n", 3)), std::string(), good.substr(0, good.rfind('\t'))})
    EXPECT_FALSE(metric_db_record_parse_m(bad, &record)) << bad;
}

}  // namespace
