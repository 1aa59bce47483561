#include "platform/krel/base/krel_conf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/krel/base/krel_log.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class krel_conf_test : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/krel_conf_XXXXXX";
    m_dir = fs::canonical(mkdtemp(name)).string();
    krel_log_stream_switch("error", true);
  }
  void TearDown() override { fs::remove_all(m_dir); }

  std::string path(const std::string &name) const { return m_dir + "/" + name; }
  void put(const std::string &name, const std::string &text) const {
    fs::create_directories(fs::path(path(name)).parent_path());
    std::ofstream(path(name)) << text;
  }
  std::string got(const std::string &name) const {
    std::ifstream in(path(name));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  void load(const std::string &text) const {
    ASSERT_TRUE(krel_conf_load_text(text, path("main.conf").c_str()));
  }
  static std::string string_of(const char *at, const krel_conf_section_t &section = KREL_CONF_ROOT) {
    std::string value = "(missing)";
    krel_conf_get_string(section, at, &value);
    return value;
  }
  std::string m_dir;
};

TEST_F(krel_conf_test, paths_find_attributes_and_element_texts_in_document_order) {
  load(
      "<node a='root'>"
      "<x a='1'><y> first <!-- c --> text\n</y></x>"
      "<x a='2'><y><![CDATA[<second>]]></y><a>element</a></x>"
      "</node>");
  EXPECT_EQ(string_of("//x/@a"), "1");
  EXPECT_EQ(string_of("//x[2]/@a|//x[1]/@a"), "1");
  EXPECT_EQ(string_of("//y"), "first  text");
  EXPECT_EQ(string_of("//x[@a='2']/y"), "<second>");
  EXPECT_EQ(string_of("node/@a"), "root");
  EXPECT_EQ(string_of("/node/x[2]/a"), "element");
  EXPECT_EQ(string_of("//none/@a"), "(missing)");

  std::vector<krel_conf_section_t> sections = krel_conf_get_sections_read(KREL_CONF_ROOT, "//x");
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(string_of("@a", sections[1]), "2");
  EXPECT_EQ(string_of("y", sections[1]), "<second>");
  EXPECT_EQ(string_of("../@a", sections[1]), "root");
  EXPECT_EQ(krel_conf_section_name(sections[0]), "x");
  EXPECT_EQ(krel_conf_get_section_read(KREL_CONF_ROOT, "//none"), nullptr);
}

TEST_F(krel_conf_test, a_missing_key_leaves_the_default_and_each_type_is_read) {
  load("<c i='-5' u='4294967295' l='-9000000000' d='2.5' b='off' n='90s' k='64K' s=''/>");
  int32_t i = 42;
  uint32_t u = 0;
  int64_t l = 0;
  double d = 0;
  bool b = true;
  uint64_t n = 0, k = 0;
  char buffer[4] = "###";
  EXPECT_FALSE(krel_conf_get_int32(KREL_CONF_ROOT, "c/@none", &i));
  EXPECT_EQ(i, 42);
  EXPECT_TRUE(krel_conf_get_int32(KREL_CONF_ROOT, "c/@i", &i));
  EXPECT_TRUE(krel_conf_get_uint32(KREL_CONF_ROOT, "c/@u", &u));
  EXPECT_TRUE(krel_conf_get_int64(KREL_CONF_ROOT, "c/@l", &l));
  EXPECT_TRUE(krel_conf_get_double(KREL_CONF_ROOT, "c/@d", &d));
  EXPECT_TRUE(krel_conf_get_boolean(KREL_CONF_ROOT, "c/@b", &b));
  EXPECT_TRUE(krel_conf_get_duration(KREL_CONF_ROOT, "c/@n", krel_get_durations_ms(), &n));
  EXPECT_TRUE(krel_conf_get_size(KREL_CONF_ROOT, "c/@k", &k));
  EXPECT_TRUE(krel_conf_get_stringbuf(KREL_CONF_ROOT, "c/@n", buffer, sizeof(buffer)));
  EXPECT_EQ(i, -5);
  EXPECT_EQ(u, 4294967295u);
  EXPECT_EQ(l, -9000000000);
  EXPECT_EQ(d, 2.5);
  EXPECT_FALSE(b);
  EXPECT_EQ(n, 90000u);
  EXPECT_EQ(k, 65536u);
  EXPECT_STREQ(buffer, "90s");
  EXPECT_EQ(string_of("c/@s"), "");
}

TEST_F(krel_conf_test, a_malformed_value_ends_the_process_and_says_where_and_what_to_write) {
  put("in.conf", "<any>\n<limit env='off'>${X}</limit>\n<flag on='maybe'/></any>");
  put("main.conf",
      "<c>\n\n<pool size='12x' wide='2147483648' wait='30' name='abcd'/>\n<include file='in.conf'/></c>");
  ASSERT_TRUE(krel_conf_load(path("main.conf").c_str()));
  auto dies = [](auto read, const std::string &message) {
    EXPECT_EXIT(read(), testing::ExitedWithCode(2), message);
  };
  int32_t i = 0;
  uint64_t n = 0;
  bool b = false;
  char buffer[4];
  dies([&] { krel_conf_get_int32(KREL_CONF_ROOT, "//pool/@size", &i); },
       "main.conf:3: attribute \"size\" of <pool> is \"12x\": write an integer between -2147483648 and "
       "2147483647");
  dies([&] { krel_conf_get_int32(KREL_CONF_ROOT, "//pool/@wide", &i); }, "\"2147483648\": write an integer");
  dies([&] { krel_conf_get_duration(KREL_CONF_ROOT, "//pool/@wait", krel_get_durations_s(), &n); },
       "\"30\": write a duration of whole seconds");
  dies([&] { krel_conf_get_boolean(KREL_CONF_ROOT, "//flag/@on", &b); },
       "in.conf:3: attribute \"on\" of <flag>");
  dies([&] { krel_conf_get_size(KREL_CONF_ROOT, "//limit", &n); }, "in.conf:2: <limit> is \"\\$\\{X\\}\"");
  dies([&] { krel_conf_get_stringbuf(KREL_CONF_ROOT, "//pool/@name", buffer, sizeof(buffer)); },
       "at most 3 bytes");
}

TEST_F(krel_conf_test, the_environment_is_put_in_unless_switched_off) {
  setenv("KREL_T_SET", "v1", 1);
  setenv("KREL_T_EMPTY", "", 1);
  unsetenv("KREL_T_UNSET");
  load(
      "<c a='x${KREL_T_SET}y${KREL_T_SET}' b='${KREL_T_UNSET:-d e}' c='${KREL_T_EMPTY:-d}' "
      "d='[${KREL_T_EMPTY}]'"
      " e='$KREL_T_SET ${} ${1} ${KREL_T_SET' f='${KREL_T_UNSET:-}' g='${KREL_T_UNSET}'>"
      "<off env='off' a='${KREL_T_SET}'><in>${KREL_T_SET}</in></off><on>${KREL_T_SET}</on></c>");
  EXPECT_EQ(string_of("c/@a"), "xv1yv1");
  EXPECT_EQ(string_of("c/@b"), "d e");
  EXPECT_EQ(string_of("c/@c"), "d");
  EXPECT_EQ(string_of("c/@d"), "[]");
  EXPECT_EQ(string_of("c/@e"), "$KREL_T_SET ${} ${1} ${KREL_T_SET");
  EXPECT_EQ(string_of("c/@f"), "");
  EXPECT_EQ(string_of("//off/@a"), "${KREL_T_SET}");
  EXPECT_EQ(string_of("//off/in"), "${KREL_T_SET}");
  EXPECT_EQ(string_of("//on"), "v1");
  EXPECT_TRUE(krel_conf_env_off(krel_conf_get_section_read(KREL_CONF_ROOT, "//off/in")));
  EXPECT_FALSE(krel_conf_env_off(krel_conf_get_section_read(KREL_CONF_ROOT, "//on")));
  EXPECT_EXIT(string_of("c/@g"), testing::ExitedWithCode(2), "KREL_T_UNSET is not set");
}

TEST_F(krel_conf_test, includes_take_in_the_children_of_a_files_root) {
  put("main.conf", "<c><include file='sub/a.conf'/><x n='main'/></c>");
  put("sub/a.conf", "<whatever env='off'><x n='a'/><include file='b.conf'/></whatever>");
  put("sub/b.conf", "<w><x n='b${HOME}'/><topology path='p'/></w>");
  ASSERT_TRUE(krel_conf_load(path("main.conf").c_str()));
  std::vector<std::string> names;
  for (const auto &x : krel_conf_get_sections_read(KREL_CONF_ROOT, "//x")) names.push_back(string_of("@n", x));
  EXPECT_THAT(names, ElementsAre("a", "b${HOME}", "main"));
  EXPECT_EQ(string_of("/c/topology/@path|/c/include/include/topology/@path"), "p");
  EXPECT_EQ(krel_conf_config_filename(), path("main.conf"));
}

TEST_F(krel_conf_test, a_document_that_cannot_be_taken_keeps_the_one_in_force) {
  load("<c a='kept'/>");
  put("self.conf", "<c><include file='self.conf'/></c>");
  put("loop1.conf", "<c><include file='loop2.conf'/></c>");
  put("loop2.conf", "<c><include file='loop1.conf'/></c>");
  put("missing.conf", "<c><include file='none.conf'/></c>");
  put("cut.conf", "<c><d>");
  put("entity.conf", "<!DOCTYPE c [<!ENTITY e SYSTEM '/etc/passwd'>]><c a='x'>&e;</c>");
  put("empty.conf", "");
  std::string deep;
  for (int i = 0; i < 1000; i++) deep += "<d>";
  put("deep.conf", deep);
  for (const char *bad : {"self.conf", "loop1.conf", "missing.conf", "cut.conf", "entity.conf", "empty.conf",
                          "deep.conf", "not-there.conf"}) {
    EXPECT_FALSE(krel_conf_load(path(bad).c_str())) << bad;
    EXPECT_EQ(string_of("c/@a"), "kept");
  }
  // each file is small, the whole is not
  for (int i = 0; i < 15; i++) {
    std::string next = "<include file='" + path("bomb" + std::to_string(i + 1)) + "'/>", text = "<c>";
    for (int n = 0; n < 10; n++) text += next;
    put("bomb" + std::to_string(i), text + "</c>");
  }
  put("bomb15", "<c/>");
  EXPECT_FALSE(krel_conf_load(path("bomb0").c_str()));
}

TEST_F(krel_conf_test, changes_are_read_at_once_and_written_to_the_file_they_belong_to) {
  put("main.conf",
      "<?xml version=\"1.0\"?>\n<!-- head -->\n<c>\n  <!-- kept -->\n  <a v=\"1\">old</a>\n"
      "  <include file=\"sub.conf\"/>\n</c>\n");
  put("sub.conf", "<!-- sub head -->\n<s>\n  <b v=\"${HOME}\"/>\n</s>\n");
  chmod(path("main.conf").c_str(), 0640);
  ASSERT_TRUE(krel_conf_load(path("main.conf").c_str()));
  EXPECT_TRUE(krel_conf_set_string(KREL_CONF_ROOT, "//a/@v", "2 & <3> \"4\""));
  EXPECT_TRUE(krel_conf_set_string(KREL_CONF_ROOT, "//a", "new"));
  EXPECT_EQ(string_of("//a/@v"), "2 & <3> \"4\"");
  EXPECT_EQ(string_of("//a"), "new");
  EXPECT_EQ(got("main.conf").find("new"), std::string::npos);
  std::string error;
  ASSERT_TRUE(krel_conf_write_file(&error)) << error;
  EXPECT_EQ(got("main.conf"),
            "<?xml version=\"1.0\"?>\n<!-- head -->\n<c>\n  <!-- kept -->\n  <a v=\"2 &amp; &lt;3&gt; "
            "&quot;4&quot;\">new</a>\n"
            "  <include file=\"sub.conf\"/>\n</c>\n");
  EXPECT_EQ(got("sub.conf"), "<!-- sub head -->\n<s>\n  <b v=\"${HOME}\"/>\n</s>\n");
  struct stat st;
  ASSERT_EQ(stat(path("main.conf").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);

  auto include = krel_conf_get_section_read(KREL_CONF_ROOT, "//include");
  EXPECT_TRUE(krel_conf_set_string(include, "b/@w", "5"));
  EXPECT_TRUE(krel_conf_set_string(include, "new/deep/@x", "6"));
  EXPECT_TRUE(krel_conf_set_string(KREL_CONF_ROOT, "c/made/here", "7"));
  ASSERT_TRUE(krel_conf_write_file(&error)) << error;
  EXPECT_EQ(got("sub.conf"),
            "<!-- sub head -->\n<s>\n  <b v=\"${HOME}\" w=\"5\"/>\n<new><deep x=\"6\"/></new></s>\n");
  EXPECT_THAT(got("main.conf"), HasSubstr("<made><here>7</here></made></c>"));
  ASSERT_TRUE(krel_conf_load(path("main.conf").c_str()));
  EXPECT_EQ(string_of("//new/deep/@x"), "6");
  std::vector<std::string> left;
  for (const auto &entry : fs::directory_iterator(m_dir)) left.push_back(entry.path().filename().string());
  EXPECT_THAT(left, testing::UnorderedElementsAre("main.conf", "sub.conf"));
}

TEST_F(krel_conf_test, what_could_not_be_read_back_is_refused) {
  load("<c a='x'><off env='off' b='y'/></c>");
  for (const char *bad : {"${HOME}", "a\x01", "\xff\xfe"}) {
    EXPECT_FALSE(krel_conf_set_string(KREL_CONF_ROOT, "c/@a", bad)) << bad;
    EXPECT_EQ(string_of("c/@a"), "x");
  }
  EXPECT_TRUE(krel_conf_set_string(KREL_CONF_ROOT, "//off/@b", "${HOME}"));
  EXPECT_EQ(string_of("//off/@b"), "${HOME}");
  EXPECT_FALSE(krel_conf_set_string(KREL_CONF_ROOT, "other/@a", "a second root"));
  EXPECT_FALSE(krel_conf_set_string(KREL_CONF_ROOT, "//made[1]/@a", "no plain step"));
}

TEST_F(krel_conf_test, a_write_that_fails_leaves_the_file_and_can_be_tried_again) {
  put("d/main.conf", "<c a=\"1\"/>\n");
  ASSERT_TRUE(krel_conf_load(path("d/main.conf").c_str()));
  ASSERT_TRUE(krel_conf_set_string(KREL_CONF_ROOT, "c/@a", "2"));
  fs::rename(path("d"), path("gone"));
  std::string error;
  EXPECT_FALSE(krel_conf_write_file(&error));
  EXPECT_THAT(error, HasSubstr(path("d/main.conf")));
  EXPECT_EQ(got("gone/main.conf"), "<c a=\"1\"/>\n");
  fs::rename(path("gone"), path("d"));
  EXPECT_TRUE(krel_conf_write_file(&error)) << error;
  EXPECT_EQ(got("d/main.conf"), "<c a=\"2\"/>\n");
}

TEST_F(krel_conf_test, direct_edits_come_into_force_when_the_section_is_given_back) {
  put("main.conf", "<c><t/><include file=\"sub.conf\"/></c>\n");
  put("sub.conf", "<s><u n=\"1\"/></s>\n");
  ASSERT_TRUE(krel_conf_load(path("main.conf").c_str()));
  auto before = krel_conf_get_section_read(KREL_CONF_ROOT, "//u");
  {
    auto section = krel_conf_get_section_write(KREL_CONF_ROOT, "//u");
    ASSERT_TRUE(section);
    xmlNode *node = krel_conf_section_to_xmlnodeptr(section);
    xmlNewTextChild(node->parent, nullptr, reinterpret_cast<const xmlChar *>("v"),
                    reinterpret_cast<const xmlChar *>("w"));
    xmlUnlinkNode(node);
    xmlFreeNode(node);
    EXPECT_EQ(string_of("//v"), "(missing)");
  }
  EXPECT_EQ(string_of("//v"), "w");
  EXPECT_EQ(string_of("//u/@n"), "(missing)");
  EXPECT_EQ(string_of("@n", before), "1");  // a reader keeps what it had
  EXPECT_FALSE(krel_conf_set_string(before, "@n", "2"));
  EXPECT_FALSE(krel_conf_get_section_write(KREL_CONF_ROOT, "//u"));
  std::string error;
  ASSERT_TRUE(krel_conf_write_file(&error)) << error;
  EXPECT_EQ(got("sub.conf"), "<s><v>w</v></s>\n");
  EXPECT_EQ(got("main.conf"), "<c><t/><include file=\"sub.conf\"/></c>\n");
}

TEST_F(krel_conf_test, sections_print_as_they_are_written) {
  load("<c><a b='${X}'><d/></a></c>");
  FILE *file = tmpfile();
  ASSERT_TRUE(krel_conf_write_section(krel_conf_get_section_read(KREL_CONF_ROOT, "//a"), fileno(file)));
  rewind(file);
  char text[64] = "";
  ASSERT_TRUE(fgets(text, sizeof(text), file));
  EXPECT_STREQ(text, "<a b=\"${X}\"><d/></a>\n");
  fclose(file);
}

TEST_F(krel_conf_test, readers_see_whole_documents_while_it_is_reloaded_and_changed) {
  std::string one = "<c a='1'><b v='1'/></c>", two = "<c a='2'><b v='2'/></c>";
  load(one);
  std::atomic<bool> stop{false};
  std::atomic<int> mixed{0}, reads{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; i++)
    readers.emplace_back([&] {
      while (!stop || reads < 10) {
        auto section = krel_conf_get_section_read(KREL_CONF_ROOT, "//c");
        if (string_of("@a", section) != string_of("b/@v", section)) mixed++;
        reads++;
      }
    });
  for (int i = 0; i < 100; i++) {
    load(i % 2 ? one : two);
    krel_conf_set_string(KREL_CONF_ROOT, "//c/@other", "x");
  }
  stop = true;
  for (auto &reader : readers) reader.join();
  EXPECT_EQ(mixed, 0);
}

TEST_F(krel_conf_test, logs_are_set_up_from_the_document) {
  load("<velmar><localstate directory='" + m_dir +
       "'/><logs>"
       "<log name='debug/conf_test' enabled='on' path='" +
       path("debug.log") + "'/></logs></velmar>");
  EXPECT_EQ(krel_conf_local_state_directory("velmar"), m_dir);
  krel_conf_log_init("velmar", false);
  krel_log(krel_log_stream_find("debug/conf_test/x"), "to its own\n");
  krel_log(krel_error, "to the rest\n");
  EXPECT_THAT(got("debug.log"), HasSubstr("to its own"));
  EXPECT_THAT(got("velmar.log"), HasSubstr("to the rest"));
  load("<velmar/>");
  EXPECT_EQ(krel_conf_local_state_directory("velmar"), "/velmar/localstate");
  krel_conf_log_init("velmar", true);
  EXPECT_FALSE(krel_log_has_material_output(krel_log_stream_find("debug/conf_test")));
  load("<velmar><logs><log path='-'/></logs></velmar>");
  EXPECT_EXIT(krel_conf_log_init("velmar", true), testing::ExitedWithCode(2),
              "main.conf:1: <log>: write a name");
}

}  // namespace
