#include "libvelmar/topo/topo.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <map>
#include <random>
#include <set>

#include "support/scripted_peer.h"

namespace {

std::string uuid(int n) {
  return fmt::format("{:08x}-0000-4000-8000-0123456789ab", n);
}

struct node_spec_t {
  int id;
  int weight = 1;
  std::string side{};
};

std::string document(const std::vector<node_spec_t> &nodes, const std::string &attributes) {
  std::string xml = "<nodes " + attributes + ">";
  for (const auto &n : nodes) {
    xml += fmt::format("<node id=\"{}\" address=\"127.0.0.{}\" port=\"{}\" apiport=\"{}\" weight=\"{}\"",
                       uuid(n.id), n.id % 250 + 1, 8000 + n.id, 9000 + n.id, n.weight);
    xml += n.side.empty() ? "/>" : " side=\"" + n.side + "\"/>";
  }
  return xml + "</nodes>";
}

std::unique_ptr<topo_config> compile(const std::vector<node_spec_t> &nodes, const std::string &attributes) {
  std::string err;
  auto tc = topo_compile_text(document(nodes, attributes), nullptr, &err);
  EXPECT_TRUE(tc) << err;
  return tc;
}

std::string compile_error(const std::string &xml, const char *hash = nullptr) {
  std::string err;
  EXPECT_FALSE(topo_compile_text(xml, hash, &err)) << xml;
  return err;
}

topo_location_t sha256(const std::string &text) {
  topo_location_t hash;
  SHA256(reinterpret_cast<const uint8_t *>(text.data()), text.size(), hash.data());
  return hash;
}

std::string hex(const topo_location_t &hash) {
  std::string text;
  for (const uint8_t byte : hash) text += fmt::format("{:02x}", byte);
  return text;
}

std::string be16(int value) {
  return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

// The owners of a key by the definition: an ordered map of points, walked from the successor on.
std::vector<std::string> owners_by_definition(const std::vector<node_spec_t> &nodes, int copies,
                                              topo_location_t key) {
  const bool sided = !nodes[0].side.empty();
  std::vector<std::pair<topo_location_t, const node_spec_t *>> ring;
  for (const auto &n : nodes)
    for (int j = 0; j < n.weight; j++) {
      auto l = sha256(uuid(n.id) + be16(j));
      if (n.side == "a") l[0] &= 0x7f;
      if (n.side == "b") l[0] |= 0x80;
      ring.emplace_back(l, &n);
    }
  std::sort(ring.begin(), ring.end(), [](const auto &x, const auto &y) { return x.first < y.first; });
  std::vector<std::string> owners;
  std::vector<size_t> points;
  for (int i = 0; i < copies; i++) {
    const bool b = key[0] & 0x80;
    size_t at = 0;
    if (i >= 2)
      at = (points[static_cast<size_t>(i) - 2] + 1) % ring.size();
    else
      while (at < ring.size() && ring[at].first < key) at++;
    at %= ring.size();
    while (sided && static_cast<bool>(ring[at].first[0] & 0x80) != b) at = (at + 1) % ring.size();
    for (;;) {
      const node_spec_t *n = ring[at].second;
      if (std::find(owners.begin(), owners.end(), uuid(n->id)) == owners.end()) break;
      do at = (at + 1) % ring.size();
      while (ring[at].second == n || (sided && ring[at].second->side != (b ? "b" : "a")));
    }
    owners.push_back(uuid(ring[at].second->id));
    points.push_back(at);
    key[0] ^= 0x80;
  }
  return owners;
}

TEST(topo_compile, signature_hashes_one_record_a_node_and_a_trailer_unless_two_copies) {
  std::string input;
  for (int i : {1, 2, 3}) input += uuid(i) + std::string(2, '\0') + be16(300 + i);
  const std::vector<node_spec_t> nodes = {{1, 301, ""}, {2, 302, ""}, {3, 303, ""}};
  EXPECT_STREQ(compile(nodes, "write_copies=\"2\"")->hex_signature, hex(sha256(input)).c_str());
  EXPECT_STREQ(compile(nodes, "n=\"2\" use_tls=\"true\"")->hex_signature, hex(sha256(input)).c_str());
  const std::string trailer = std::string(38, '\0') + be16(3);
  EXPECT_STREQ(compile(nodes, "write_copies=\"3\"")->hex_signature, hex(sha256(input + trailer)).c_str());
}

TEST(topo_compile, sided_records_carry_the_side) {
  std::string input;
  for (int i : {1, 2}) input += uuid(i) + std::string(2, '\0') + be16(5) + be16(i);
  EXPECT_STREQ(compile({{1, 5, "a"}, {2, 5, "b"}}, "write_copies=\"2\"")->hex_signature,
               hex(sha256(input)).c_str());
}

TEST(topo_compile, order_changes_the_signature_and_not_the_ring) {
  const auto one = compile({{1, 50, ""}, {2, 50, ""}}, ""), two = compile({{2, 50, ""}, {1, 50, ""}}, "");
  EXPECT_STRNE(one->hex_signature, two->hex_signature);
  EXPECT_EQ(one->fast_loc_ring, two->fast_loc_ring);
}

TEST(topo_compile, a_single_node_has_one_copy_by_default) {
  const auto tc = compile({{7}}, "");
  EXPECT_EQ(topo_w(tc.get()), 1);
  ASSERT_EQ(tc->ring.size(), 1U);
  EXPECT_EQ(tc->ring[0].location, sha256(uuid(7) + be16(0)));
  EXPECT_EQ(tc->hosts[0].url_prefix, "http://" + uuid(7) + ":9007");
  EXPECT_EQ(tc->connect_to[0], uuid(7) + ":9007:127.0.0.8:9007");
}

TEST(topo_compile, each_fault_has_its_text) {
  const auto with = [](const std::string &from, const std::string &to) {
    std::string xml = document({{1}, {2}}, "write_copies=\"2\"");
    return xml.replace(xml.find(from), from.size(), to);
  };
  EXPECT_EQ(compile_error("<nodes"), "XML parse error");
  EXPECT_EQ(compile_error("<nodes/>"), "XML parse error");
  EXPECT_EQ(compile_error("<other/>"), "XML parse error");
  EXPECT_EQ(compile_error(document({{1}}, "write_copies=\"2\"")),
            "invalid topology: write_copies 2 > node count 1");
  EXPECT_EQ(compile_error(document({{1}}, "write_copies=\"11\"")),
            "invalid topology: write_copies 11 exceeds the max number of nodes 10");
  EXPECT_EQ(compile_error(with(uuid(1), "zz")), "bad id: zz\n");
  EXPECT_EQ(compile_error(with("id=", "ie=")), "bad id: (null)\n");
  std::string upper = uuid(1);
  upper[35] = 'B';
  EXPECT_EQ(compile_error(with(uuid(1), upper)),
            "bad id: " + upper + " (should be all lower-case letters in uuid)\n");
  EXPECT_EQ(compile_error(with(" port=", " prt=")), "port, apiport, address and weight must be specified.\n");
  EXPECT_EQ(compile_error(with("weight=\"1\"", "weight=\"0\"")),
            "node '" + uuid(1) + "': weight must > 0 and <= 65535\n");
  EXPECT_EQ(compile_error(with("port=\"8001\"", "port=\"65536\"")),
            "node '" + uuid(1) + "': port must > 0 and <= 65535\n");
  EXPECT_EQ(compile_error(with("127.0.0.2", "no such host")),
            "node '" + uuid(1) + "': can't interpret address no such host\n");
  EXPECT_EQ(compile_error(document({{1, 1, "c"}, {2}}, "")),
            "node '" + uuid(1) + "': side must be a,b, or both\n");
  EXPECT_EQ(compile_error(document({{1, 1, "a"}, {2, 1, "b"}}, "write_copies=\"1\"")),
            "write_copies < # sides");
  EXPECT_EQ(compile_error(document({{1, 1, "a"}, {2, 1, "both"}}, "")), "mixed sided/unsided config");
  EXPECT_EQ(compile_error(document({{1, 1, "a"}, {2, 1, "a"}, {3, 1, "a"}, {4, 1, "b"}}, "write_copies=\"4\"")),
            "|side| < write_copies");
  EXPECT_EQ(compile_error(document({{1}, {1}}, "")), "Same uuid '" + uuid(1) + "' for different nodes.\n");
  const std::string good = compile({{1}, {2}}, "")->hex_signature;
  EXPECT_EQ(compile_error(document({{1}, {2}}, ""), std::string(64, 'a').c_str()),
            "invalid topology signature, should be " + good + "\n");
  std::vector<node_spec_t> many;
  for (int i = 0; i < 129; i++) many.push_back({i});
  EXPECT_EQ(compile_error(document(many, "")), "XML parse error");
}

TEST(topo_compile, the_expected_signature_may_be_in_any_case) {
  std::string sig = compile({{1}, {2}}, "")->hex_signature, err;
  for (char &c : sig) c = static_cast<char>(toupper(c));
  EXPECT_TRUE(topo_compile_text(document({{1}, {2}}, ""), sig.c_str(), &err));
}

void expect_owners_by_definition(const std::vector<node_spec_t> &nodes, int copies, unsigned seed) {
  const auto tc = compile(nodes, fmt::format("write_copies=\"{}\"", copies));
  std::mt19937_64 random(seed);
  for (int i = 0; i < 300; i++) {
    topo_location_t key;
    for (auto &byte : key) byte = static_cast<uint8_t>(random());
    if (i == 0) key.fill(0xff);
    if (i == 1) key.fill(0);
    if (i > 1 && i < 20) key = tc->ring[random() % tc->ring.size()].location;
    host_config *loc[TOPO_MAX_WRITE_COPIES];
    ASSERT_EQ(topo_find_insertion_point_key(tc.get(), key.data(), loc, 0), copies);
    std::vector<std::string> found;
    for (int j = 0; j < copies; j++) found.push_back(loc[j]->id_str);
    ASSERT_EQ(found, owners_by_definition(nodes, copies, key)) << "seed " << seed << " key " << i;
    host_config *first;
    ASSERT_EQ(topo_find_insertion_point_key(tc.get(), key.data(), &first, 1), 1);
    ASSERT_EQ(first, loc[0]);
  }
}

TEST(topo_place, owners_agree_with_the_definition) {
  std::vector<node_spec_t> nodes;
  for (int i = 0; i < 12; i++) nodes.push_back({i, 1 + (i * 37) % 90, ""});
  expect_owners_by_definition({{1}}, 1, 1);
  expect_owners_by_definition({{1}, {2}, {3}}, 3, 2);
  for (int copies : {1, 2, 3, 5, 10})
    expect_owners_by_definition(nodes, copies, 10U + static_cast<unsigned>(copies));
  for (size_t i = 0; i < nodes.size(); i++) nodes[i].side = i % 2 ? "a" : "b";
  for (int copies : {2, 3, 4, 7})
    expect_owners_by_definition(nodes, copies, 20U + static_cast<unsigned>(copies));
}

TEST(topo_state, the_pair_in_force_moves_by_transition) {
  topo_init_globals();
  topo_config *a = topo_retain(compile({{1}, {2}}, "")), *b = topo_retain(compile({{2}, {3}}, ""));
  EXPECT_EQ(topo_retrieve_hex(a->hex_signature), a);
  std::string upper = a->hex_signature;
  upper[upper.find_first_of("abcdef")] -= 'a' - 'A';
  EXPECT_EQ(topo_retrieve_hex(upper), nullptr);
  EXPECT_EQ(topo_retrieve_hex("00"), nullptr);

  const topo_uuid_t me = a->hosts[1].id;
  topo_initialize(a, nullptr, me);
  EXPECT_EQ(topo_set_node(me), 0);
  EXPECT_EQ(topo_me(), me);
  EXPECT_EQ(topo_target(), a);
  EXPECT_EQ(a->hosts[1].active, TOPO_ACTIVE_TRANSITIONED);
  EXPECT_EQ(a->hosts_unknown, 1);
  EXPECT_EQ(topo_transition(), -1);
  EXPECT_EQ(topo_activate_next(b), 0);
  EXPECT_EQ(topo_activate_next(a), -1);
  EXPECT_EQ(topo_target(), b);
  EXPECT_EQ(b->hosts[0].active, TOPO_ACTIVE_TRANSITIONING);
  host_config *loc[4];
  EXPECT_EQ(topo_get_all_nodes_in_tcs(a, b, loc), 3);
  EXPECT_EQ(loc[2], &b->hosts[1]);
  host_activate(b, &b->hosts[1], TOPO_ACTIVE_NEW);
  EXPECT_FALSE(b->reads_allowed);
  EXPECT_EQ(topo_transition(), 0);
  EXPECT_EQ(topo_active(), b);
  EXPECT_EQ(topo_next_active(), nullptr);
  EXPECT_TRUE(b->reads_allowed);
  topo_initialize(nullptr, nullptr, me);
}

TEST(topo_fetch, a_peers_topology_is_compiled_and_must_fit) {
  const std::vector<node_spec_t> nodes = {{1}, {2}};
  const auto tc = compile(nodes, "");
  host_config *loc[2];
  const std::string xml = topo_nodes_xml(tc.get(), loc, topo_get_all_nodes(tc.get(), loc));
  scripted_peer_c peer;
  peer.answer("http://p", {200, xml, {}, 0, 10});
  peer.answer("http://p", {200, xml + std::string(9000, ' ')});
  peer.answer("http://p", {404, ""});
  const auto fetched = velmar_client_get_topo("http://p", tc->hex_signature);
  ASSERT_TRUE(fetched);
  EXPECT_STREQ(fetched->hex_signature, tc->hex_signature);
  EXPECT_EQ(peer.requests()[0].url, std::string("http://p/topology/xml/") + tc->hex_signature);
  EXPECT_FALSE(velmar_client_get_topo("http://p", tc->hex_signature));
  EXPECT_FALSE(velmar_client_get_topo("http://p", tc->hex_signature));
  EXPECT_FALSE(velmar_client_get_topo("http://p", tc->hex_signature));
}

TEST(topo_update, a_new_address_keeps_the_signature) {
  const auto tc = compile({{1}, {2}}, "");
  EXPECT_EQ(topo_update_ip(tc.get(), tc->hosts[1].id, "10.1.2.3", 11, 12), 0);
  EXPECT_EQ(tc->connect_to[1], uuid(2) + ":12:10.1.2.3:12");
  EXPECT_EQ(tc->hosts[1].url_prefix, "http://" + uuid(2) + ":12");
  EXPECT_EQ(topo_update_ip(tc.get(), tc->hosts[1].id, "10.1.2", 11, 12), -1);
  EXPECT_EQ(topo_update_ip(tc.get(), topo_uuid_t{}, "10.1.2.3", 11, 12), -1);
}

}  // namespace
