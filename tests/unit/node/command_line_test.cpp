#include "node/command_line.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

const char *const ID = "0123abcd-0000-4000-8000-00000000cafe";
const char *const UPPER_ID = "0123ABCD-0000-4000-8000-00000000CAFE";

struct outcome_t {
  std::optional<int> status;
  command_line_t line;
  std::string out, err;
};

std::string drain(FILE *f) {
  std::string text(65536, '\0');
  rewind(f);
  text.resize(fread(text.data(), 1, text.size(), f));
  fclose(f);
  return text;
}

outcome_t parse(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "velmard");
  std::vector<char *> argv;
  for (auto &a : arguments) argv.push_back(a.data());
  argv.push_back(nullptr);
  outcome_t o;
  FILE *out = tmpfile(), *err = tmpfile();
  o.status = parse_clargs(static_cast<int>(arguments.size()), argv.data(), &o.line, out, err);
  o.out = drain(out);
  o.err = drain(err);
  return o;
}

void expect_refused(const std::vector<std::string> &arguments, const std::string &err) {
  const outcome_t o = parse(arguments);
  EXPECT_EQ(o.status, 255) << testing::PrintToString(arguments);
  if (err.empty())
    EXPECT_NE(o.out.find("Usage for velmard:\n"), std::string::npos) << testing::PrintToString(arguments);
  else
    EXPECT_EQ(o.err, err) << testing::PrintToString(arguments);
}

TEST(command_line, a_node_with_an_id_starts_and_its_id_is_lower_case) {
  const outcome_t o =
      parse({"-i", UPPER_ID, "-D", "-D", "-d", "-c", "x.conf", "-u", "nobody", "-w", "-q", "-R"});
  EXPECT_FALSE(o.status);
  EXPECT_EQ(o.line.node_id, ID);
  EXPECT_EQ(o.line.foreground, 2);
  EXPECT_EQ(o.line.debug, 1);
  EXPECT_EQ(o.line.config_file, "x.conf");
  EXPECT_EQ(o.line.droptouser, "nobody");
  EXPECT_EQ(o.line.lock_op, 1);
  EXPECT_TRUE(o.line.gossip_disabled);
  EXPECT_TRUE(o.line.reject_nnt_puts);
}

TEST(command_line, identity_is_required_and_exclusive) {
  const std::string both = "cannot be both ephemeral and have a node id.\n";
  expect_refused({"-e", "-i", ID}, both);
  expect_refused({"-i", ID, "-e"}, both);
  expect_refused({"-i", "nonsense"}, "invalid uuid passed to -i\n");
  expect_refused({}, "");
  EXPECT_FALSE(parse({"-e"}).status);
}

TEST(command_line, control_words) {
  EXPECT_FALSE(parse({"-k", "stop"}).status);
  EXPECT_EQ(parse({"-k", "status"}).line.proc_op, PROC_STATUS);
  const outcome_t bogus = parse({"-k", "bogus", "-i", ID});
  EXPECT_FALSE(bogus.status);
  EXPECT_EQ(bogus.line.proc_op, PROC_INVALID);
  expect_refused({"-k", "bogus"}, "");
}

TEST(command_line, help_prints_every_section_in_order) {
  const outcome_t o = parse({"-h"});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err.rfind("Velmar version ", 0), 0U);
  EXPECT_EQ(o.err.size(), sizeof("Velmar version ") - 1 + 40 + 1 + 40 + 1);
  size_t at = 0;
  for (const char *section :
       {"Usage for velmard:\n", "\nProcess control flags:", "\nMutually exclusive flags:",
        "\nStandalone loader flags for use with -i", "\nStandalone maintenance flags for use with -i",
        "\nOptional behavior flags:", "\nReconstitute parameters:", "\nThis usage message:"}) {
    const size_t next = o.out.find(section, at);
    ASSERT_NE(next, std::string::npos) << section;
    at = next;
  }
}

TEST(command_line, modes_exclude_each_other_and_need_the_foreground) {
  EXPECT_FALSE(parse({"-B", "-i", ID}).status);
  EXPECT_EQ(parse({"-B", "-i", ID}).line.foreground, 1);
  expect_refused({"-B", "-i", ID, "-D"}, "");
  expect_refused({"-B", "-j", "-i", ID}, "");
  expect_refused({"-n", "60", "-r", "text/metrics", "-i", ID}, "");
  expect_refused({"-e", "-r", "text/metrics"}, "");
  expect_refused({"-e", "-B"}, "");
  expect_refused({"-n", "0", "-i", ID}, "rollup to rebuild must be > 0\n");
  expect_refused({"-m", "a", "-H", "b", "-i", ID}, "Cannot merge text and histograms at the same time.\n");
  std::vector<std::string> many = {"-i", ID};
  for (int i = 0; i <= 1024; i++) many.insert(many.end(), {"-m", std::to_string(i)});
  expect_refused(many, "Too many merge files\n");
}

TEST(command_line, reconstitute_parameters_need_the_mode) {
  expect_refused({"-A", "raw", "-i", ID}, "");
  expect_refused({"-B", "-A", "raw", "-A", "raw", "-i", ID}, "");
  expect_refused({"-B", "-S", "x", "-i", ID}, "invalid uuid passed to -S\n");
  expect_refused({"-B", "-S", ID, "-S", UPPER_ID, "-i", ID}, "");
  const outcome_t o =
      parse({"-B", "-i", ID, "-A", "raw", "-A", "nntbs", "-T", "abc", "-O", "1.2.3.4:5", "-S", UPPER_ID});
  EXPECT_FALSE(o.status);
  EXPECT_EQ(o.line.reconstitute_enabled_types, (std::set<std::string>{"raw", "nntbs"}));
  EXPECT_EQ(o.line.reconstitute_nodes_to_skip, std::set<std::string>{ID});
}

TEST(command_line, shards) {
  const std::string count = "incorrect number of shard parameters to -s\n",
                    bad = "invalid shard parameters passed to -s\n";
  expect_refused({"-i", ID, "-s", "5"}, count);
  expect_refused({"-i", ID, "-s", "1,2,3,4"}, count);
  expect_refused({"-i", ID, "-s", "a,b"}, bad);
  expect_refused({"-i", ID, "-s", "1,99999999999999999999"}, bad);
  expect_refused({"-i", ID, "-s", "3000000000,1,2"}, bad);
  const auto shard = parse({"-i", ID, "-s", "60,100,200"}).line.offline_ssr_shard;
  EXPECT_EQ(shard.period, 60);
  EXPECT_EQ(shard.floor, 100U);
  EXPECT_EQ(shard.ceiling, 200U);
}

TEST(command_line, import_limits_are_seconds_in_any_base) {
  EXPECT_EQ(parse({"-i", ID, "-I", "0x10"}).line.import_time_limit, 16000000U);
  EXPECT_EQ(parse({"-i", ID, "-I", "010"}).line.import_time_limit, 8000000U);
}

TEST(command_line, the_configuration_dump_stands_alone) {
  const outcome_t o = parse({"-x", "//listeners", "-c", "x.conf"});
  EXPECT_FALSE(o.status);
  EXPECT_EQ(o.line.foreground, 1);
  for (const char *other : {"-e", "-B", "-j", "-d"}) expect_refused({"-x", "/a", other}, "");
  expect_refused({"-x", "/a", "-i", ID}, "");
}

}  // namespace
