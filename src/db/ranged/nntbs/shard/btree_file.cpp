#include "db/ranged/nntbs/shard/btree_file.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

namespace db::ranged::nntbs {

const btree_format_t LMDB_FORMAT = {16, 0, 8, 12, false, 10, 2};
const btree_format_t MDBX_FORMAT = {20, 16, 4, 12, true, 10, 3};

namespace {

constexpr size_t MIN_PAGE = 4096, MAX_PAGE = 65536;
constexpr uint64_t MAX_PAGES = 1ULL << 32;
constexpr unsigned MAX_DEPTH = 32;
constexpr uint16_t P_BRANCH = 0x01, P_LEAF = 0x02, P_OVERFLOW = 0x04, P_META = 0x08;
constexpr unsigned F_BIGDATA = 0x01, F_SUBDATA = 0x02;
constexpr size_t NODE_HEADER = 8, MAX_KEY = 511;
constexpr size_t MAX_FREE_LIST = 64ULL << 20;  // bytes of one record of the list of free pages
constexpr uint64_t FLAG_INTEGERKEY = 0x08;

template <typename T>
T load(const uint8_t *p) {
  T value;
  memcpy(&value, p, sizeof value);
  return value;
}

bool read_at(int fd, void *to, size_t size, uint64_t offset) {
  size_t got = 0;
  while (got < size) {
    const ssize_t n = pread(fd, static_cast<uint8_t *>(to) + got, size - got, static_cast<off_t>(offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

bool is_page_size(uint64_t size) {
  return size >= MIN_PAGE && size <= MAX_PAGE && (size & (size - 1)) == 0;
}

btree_tree_t lmdb_tree(const uint8_t *record) {
  return {load<uint64_t>(record + 40), load<uint64_t>(record + 32), load<uint16_t>(record + 6),
          load<uint16_t>(record + 4)};
}
btree_tree_t mdbx_tree(const uint8_t *record) {
  const uint32_t root = load<uint32_t>(record + 8);
  return {root == UINT32_MAX ? BTREE_NO_ROOT : root, load<uint64_t>(record + 32), load<uint16_t>(record + 2),
          load<uint16_t>(record)};
}

// ---- the walk

struct bytes_t {
  const uint8_t *data;
  size_t size;
};
int compare_texts(bytes_t a, bytes_t b) {
  const int order = memcmp(a.data, b.data, std::min(a.size, b.size));
  return order ? order : (a.size > b.size) - (a.size < b.size);
}
int compare_numbers(bytes_t a, bytes_t b) {  // of 8 bytes; another size is refused before
  const uint64_t x = load<uint64_t>(a.data), y = load<uint64_t>(b.data);
  return (x > y) - (x < y);
}

struct node_t {
  bytes_t key;
  unsigned flags;
  uint64_t child;       // of a branch
  size_t data_size;     // of a leaf
  const uint8_t *data;  // of a leaf; the number of its first page when the value lies outside
  size_t offset, size;  // in the page
};

class walk_c {
 public:
  walk_c(int fd, const btree_format_t &format, const btree_head_t &head, uint64_t file_pages)
      : m_fd(fd), m_format(format), m_head(head), m_file_pages(file_pages) {}

  std::string run();

 private:
  using compare_t = int (*)(bytes_t, bytes_t);
  using on_leaf_t = void (walk_c::*)(const node_t &);
  struct tree_walk_t {
    compare_t compare;
    on_leaf_t on_leaf;
    unsigned depth;
    uint64_t entries;
    std::vector<std::vector<uint8_t>> pages;  // one for each level
  };

  bool ok() const { return m_fault.empty(); }
  void fault(std::string text) {
    if (ok()) m_fault = std::move(text);
  }
  uint64_t page_number(const uint8_t *at) const {
    return m_format.page_number_size == 8 ? load<uint64_t>(at) : load<uint32_t>(at);
  }
  bool claim(uint64_t first, uint64_t count, bool in_file);
  void walk_tree(const btree_tree_t &tree, compare_t compare, on_leaf_t on_leaf);
  void walk_page(tree_walk_t *tree, uint64_t number, unsigned level, const std::string *low,
                 const std::string *high);
  bool read_nodes(const uint8_t *page, uint64_t number, bool leaf, std::vector<node_t> *nodes);
  bool read_node(const uint8_t *page, uint64_t number, size_t offset, bool leaf, node_t *node);
  bool check_order(tree_walk_t *tree, uint64_t number, bool leaf, const std::vector<node_t> &nodes,
                   const std::string *low, const std::string *high);
  void leaf_of_free_list(const node_t &node);
  void leaf_of_main(const node_t &node);
  void leaf_of_table(const node_t &node);
  uint64_t value_pages(size_t size) const { return (m_format.page_header - 1 + size) / m_head.page_size + 1; }

  const int m_fd;
  const btree_format_t &m_format;
  const btree_head_t &m_head;
  const uint64_t m_file_pages;
  struct free_t {
    void operator()(void *p) const { free(p); }
  };
  std::unique_ptr<uint8_t, free_t> m_claimed;  // a bit for each page
  std::optional<btree_tree_t> m_table;
  std::string m_fault;
};

bool walk_c::claim(uint64_t first, uint64_t count, bool in_file) {
  if (first < m_format.metas || count > m_head.pages || first > m_head.pages - count) {
    fault(fmt::format("page {} (+{}) lies outside of the {} in use", first, count, m_head.pages));
    return false;
  }
  if (in_file && first + count > m_file_pages) {
    fault(fmt::format("page {} (+{}) lies behind the end of the file, {} pages", first, count, m_file_pages));
    return false;
  }
  for (uint64_t n = first; n < first + count; ++n) {
    uint8_t &bits = m_claimed.get()[n / 8];
    const auto bit = static_cast<uint8_t>(1U << (n % 8));
    if (bits & bit) {
      fault(fmt::format("page {} is used twice", n));
      return false;
    }
    bits = static_cast<uint8_t>(bits | bit);
  }
  return true;
}

bool walk_c::read_node(const uint8_t *page, uint64_t number, size_t offset, bool leaf, node_t *node) {
  const size_t end = m_head.page_size;
  if (offset % 2 != 0 || offset + NODE_HEADER > end) {
    fault(fmt::format("page {}: a node at {}", number, offset));
    return false;
  }
  const uint8_t *p = page + offset;
  const bool wide = m_format.page_number_size == 8;
  node->offset = offset;
  node->flags = wide ? load<uint16_t>(p + 4) : p[4];
  node->data_size = load<uint32_t>(p);
  node->child = load<uint32_t>(p) + (wide ? static_cast<uint64_t>(node->flags) << 32 : 0);
  node->key = {p + NODE_HEADER, load<uint16_t>(p + 6)};
  node->data = p + NODE_HEADER + node->key.size;
  size_t size = NODE_HEADER + node->key.size;
  if (leaf) size += (node->flags & F_BIGDATA) ? m_format.page_number_size : node->data_size;
  node->size = size + size % 2;
  if (node->key.size > MAX_KEY || node->size > end - offset || (!leaf && !wide && node->flags != 0)) {
    fault(fmt::format("page {}: a node at {} is out of bounds", number, offset));
    return false;
  }
  return true;
}

// Header and nodes of a page. The nodes must fill the space from the page's upper bound on without a gap: both
// stores move whole runs of bytes about on that ground.
bool walk_c::read_nodes(const uint8_t *page, uint64_t number, bool leaf, std::vector<node_t> *nodes) {
  const size_t base = m_format.bounds_from_header ? m_format.page_header : 0;
  const size_t lower = load<uint16_t>(page + m_format.bounds_at) + base;
  const size_t upper = load<uint16_t>(page + m_format.bounds_at + 2) + base;
  if (page_number(page + m_format.page_number_at) != number ||
      load<uint16_t>(page + m_format.flags_at) != (leaf ? P_LEAF : P_BRANCH) || lower < m_format.page_header ||
      lower > upper || upper > m_head.page_size || (lower - m_format.page_header) % 2 != 0) {
    fault(fmt::format("page {} is no {} page", number, leaf ? "leaf" : "branch"));
    return false;
  }
  const size_t count = (lower - m_format.page_header) / 2;
  if (count < (leaf ? 1U : 2U)) {
    fault(fmt::format("page {} holds {} nodes", number, count));
    return false;
  }
  nodes->resize(count);
  std::vector<std::pair<size_t, size_t>> places(count);
  for (size_t i = 0; i < count; ++i) {
    const size_t offset = load<uint16_t>(page + m_format.page_header + 2 * i) + base;
    if (!read_node(page, number, offset, leaf, &(*nodes)[i])) return false;
    places[i] = {offset, (*nodes)[i].size};
  }
  std::sort(places.begin(), places.end());
  size_t at = upper;
  for (const auto &[offset, size] : places) {
    if (offset != at) break;
    at += size;
  }
  if (at != m_head.page_size) {
    fault(fmt::format("page {}: its nodes overlap or leave gaps", number));
    return false;
  }
  return true;
}

bool walk_c::check_order(tree_walk_t *tree, uint64_t number, bool leaf, const std::vector<node_t> &nodes,
                         const std::string *low, const std::string *high) {
  const auto bytes = [](const std::string *s) {
    return bytes_t{reinterpret_cast<const uint8_t *>(s->data()), s->size()};
  };
  bool good = true;
  for (size_t i = leaf ? 0 : 1; i < nodes.size() && good; ++i) {  // the first key of a branch is not looked at
    const bytes_t key = nodes[i].key;
    if (tree->compare == compare_numbers && key.size != 8) good = false;
    if (good && i > (leaf ? 0U : 1U)) good = tree->compare(nodes[i - 1].key, key) < 0;
    if (good && low) good = tree->compare(bytes(low), key) <= 0;
    if (good && high) good = tree->compare(key, bytes(high)) < 0;
  }
  if (!good) fault(fmt::format("page {}: its keys are out of order", number));
  return good;
}

void walk_c::walk_page(tree_walk_t *tree, uint64_t number, unsigned level, const std::string *low,
                       const std::string *high) {
  if (!claim(number, 1, true)) return;
  uint8_t *const page = tree->pages[level].data();
  if (!read_at(m_fd, page, m_head.page_size, number * m_head.page_size)) {
    fault(fmt::format("page {} cannot be read", number));
    return;
  }
  const bool leaf = level + 1 == tree->depth;
  std::vector<node_t> nodes;
  if (!read_nodes(page, number, leaf, &nodes) || !check_order(tree, number, leaf, nodes, low, high)) return;
  if (leaf) {
    tree->entries += nodes.size();
    for (const node_t &node : nodes) {
      (this->*tree->on_leaf)(node);
      if (!ok()) return;
    }
    return;
  }
  const auto text = [](const node_t &node) {
    return std::string(reinterpret_cast<const char *>(node.key.data), node.key.size);
  };
  std::string from, to;
  for (size_t i = 0; i < nodes.size() && ok(); ++i) {
    if (i > 0) from = text(nodes[i]);
    const bool last = i + 1 == nodes.size();
    if (!last) to = text(nodes[i + 1]);
    walk_page(tree, nodes[i].child, level + 1, i > 0 ? &from : low, last ? high : &to);
  }
}

void walk_c::walk_tree(const btree_tree_t &tree, compare_t compare, on_leaf_t on_leaf) {
  if (!ok()) return;
  if (tree.root == BTREE_NO_ROOT) {
    if (tree.depth != 0 || tree.entries != 0) fault("an empty tree has entries");
    return;
  }
  if (tree.depth == 0 || tree.depth > MAX_DEPTH) return fault(fmt::format("a tree of depth {}", tree.depth));
  tree_walk_t walk{compare, on_leaf, tree.depth, 0, {}};
  walk.pages.assign(tree.depth, std::vector<uint8_t>(m_head.page_size));
  walk_page(&walk, tree.root, 0, nullptr, nullptr);
  if (ok() && walk.entries != tree.entries)
    fault(fmt::format("{} entries where {} should be", walk.entries, tree.entries));
}

// A record: how many pages there are, then their numbers, the highest first.
void walk_c::leaf_of_free_list(const node_t &node) {
  const size_t width = m_format.page_number_size, size = node.data_size;
  if ((node.flags & ~F_BIGDATA) != 0 || size < width || size > MAX_FREE_LIST)
    return fault("a bad record of free pages");
  std::vector<uint8_t> record(size);
  if (node.flags & F_BIGDATA) {
    const uint64_t first = page_number(node.data);
    if (!claim(first, value_pages(size), true)) return;
    if (!read_at(m_fd, record.data(), size, first * m_head.page_size + m_format.page_header))
      return fault("the list of free pages cannot be read");
  } else {
    memcpy(record.data(), node.data, size);
  }
  const uint64_t count = page_number(record.data());
  if (count > size / width - 1) return fault("a bad record of free pages");
  uint64_t before = UINT64_MAX;
  for (uint64_t i = 1; i <= count; ++i) {
    const uint64_t number = page_number(record.data() + i * width);
    if (number >= before) return fault("the list of free pages is out of order");
    if (!claim(number, 1, false)) return;
    before = number;
  }
}

void walk_c::leaf_of_main(const node_t &node) {
  if (node.flags != F_SUBDATA || node.data_size != BTREE_TREE_SIZE || m_table || node.key.size != 4 ||
      memcmp(node.key.data, "data", 4) != 0)
    return fault("something else than the table \"data\" is in the file");
  m_table = m_format.page_number_size == 8 ? lmdb_tree(node.data) : mdbx_tree(node.data);
  if (m_table->flags != 0) fault("the table \"data\" has unknown flags");
}

void walk_c::leaf_of_table(const node_t &node) {
  if (node.flags == 0) return;
  if (node.flags != F_BIGDATA) return fault("a node of an unknown kind");
  claim(page_number(node.data), value_pages(node.data_size), true);
}

std::string walk_c::run() {
  m_claimed.reset(static_cast<uint8_t *>(calloc(m_head.pages / 8 + 1, 1)));
  if (!m_claimed) return fmt::format("no memory to look at {} pages", m_head.pages);
  if (m_head.free_pages.flags != FLAG_INTEGERKEY || m_head.main.flags != 0)
    return "its trees have unknown flags";
  walk_tree(m_head.main, compare_texts, &walk_c::leaf_of_main);
  if (ok() && m_table) walk_tree(*m_table, compare_texts, &walk_c::leaf_of_table);
  walk_tree(m_head.free_pages, compare_numbers, &walk_c::leaf_of_free_list);
  return m_fault;
}

}  // namespace

bool value_may_be_freed(const btree_format_t &format, size_t page_size, size_t key_size, const void *value,
                        size_t size) {
  const size_t most_inside = ((page_size - format.page_header) / 2 & ~size_t{1}) - sizeof(uint16_t);
  if (NODE_HEADER + key_size + size <= most_inside) return true;
  const uint8_t *const page = static_cast<const uint8_t *>(value) - format.page_header;
  return load<uint16_t>(page + format.flags_at) == P_OVERFLOW &&
         load<uint32_t>(page + format.bounds_at) == (format.page_header - 1 + size) / page_size + 1;
}

// ---- heads

std::string read_lmdb_head(int fd, btree_head_t *head) {
  constexpr size_t META = 16, TREES = META + 24, SIZE = META + 136;
  constexpr uint32_t MAGIC = 0xBEEFC0DE, VERSION = 1;
  uint8_t meta[2][SIZE];
  if (!read_at(fd, meta[0], SIZE, 0)) return "the file is shorter than its head";
  head->page_size = load<uint32_t>(meta[0] + TREES);
  if (!is_page_size(head->page_size)) return fmt::format("its pages have {} bytes", head->page_size);
  if (!read_at(fd, meta[1], SIZE, head->page_size)) return "the file is shorter than its head";
  uint64_t txnid[2];
  for (int i = 0; i < 2; ++i) {
    if (load<uint64_t>(meta[i]) != static_cast<uint64_t>(i) ||
        load<uint16_t>(meta[i] + LMDB_FORMAT.flags_at) != P_META || load<uint32_t>(meta[i] + META) != MAGIC ||
        load<uint32_t>(meta[i] + META + 4) != VERSION || load<uint32_t>(meta[i] + TREES) != head->page_size)
      return fmt::format("head page {} is damaged", i);
    txnid[i] = load<uint64_t>(meta[i] + SIZE - 8);
  }
  // The store takes the two in turns and finds the newer one by its number's parity.
  const int newest = txnid[1] > txnid[0] ? 1 : 0;
  if (txnid[newest] - txnid[1 - newest] > 1 || static_cast<int>(txnid[newest] & 1) != newest)
    return fmt::format("its head pages are of {} and {}", txnid[0], txnid[1]);
  head->txnid = txnid[newest];
  head->pages = load<uint64_t>(meta[newest] + SIZE - 16) + 1;
  head->free_pages = lmdb_tree(meta[newest] + TREES);
  head->main = lmdb_tree(meta[newest] + TREES + BTREE_TREE_SIZE);
  return {};
}

std::string read_mdbx_head(int fd, btree_head_t *head) {
  constexpr size_t META = 20, TREES = META + 40, SIGN = META + 168, TXNID_A = META + 8, TXNID_B = META + 176,
                   SIZE = META + 208;
  constexpr uint64_t MAGIC = (0x59659DBDEF4C11ULL << 8) + 3;
  constexpr uint64_t STEADY = UINT64_MAX;  // a commit that was synced; there are no others here
  constexpr size_t COUNT = 3;
  uint8_t meta[COUNT][SIZE];
  uint64_t txnid[COUNT];
  size_t newest = 0;
  head->page_size = MIN_PAGE;
  for (size_t i = 0; i < COUNT; ++i) {
    if (!read_at(fd, meta[i], SIZE, i * head->page_size)) return "the file is shorter than its head";
    const uint32_t page_size = load<uint32_t>(meta[i] + TREES + 4);
    if (load<uint32_t>(meta[i] + MDBX_FORMAT.page_number_at) != i ||
        load<uint16_t>(meta[i] + MDBX_FORMAT.flags_at) != P_META || load<uint64_t>(meta[i] + META) != MAGIC ||
        !is_page_size(page_size) || (i > 0 && page_size != head->page_size))
      return fmt::format("head page {} is damaged", i);
    head->page_size = page_size;
    txnid[i] = load<uint64_t>(meta[i] + TXNID_A);
    if (txnid[i] > txnid[newest]) newest = i;
  }
  // The store takes the three in turns, each written whole. It passes over one that contradicts itself, that
  // is, takes the file back to an older state, and stops the process when it finds them out of step.
  head->txnid = txnid[newest];
  for (size_t i = 0; i < COUNT; ++i)
    if (txnid[i] != head->txnid - (newest + COUNT - i) % COUNT || txnid[i] % COUNT != (i + 1) % COUNT ||
        txnid[i] != load<uint64_t>(meta[i] + TXNID_B) || load<uint64_t>(meta[i] + SIGN) != STEADY)
      return fmt::format("its head pages are of {}, {} and {}", txnid[0], txnid[1], txnid[2]);
  const uint8_t *const geometry = meta[newest] + META + 20;  // behind two u16: lower, upper, now, next
  const uint64_t lower = load<uint32_t>(geometry + 4), upper = load<uint32_t>(geometry + 8),
                 now = load<uint32_t>(geometry + 12), next = load<uint32_t>(geometry + 16);
  if (next < MDBX_FORMAT.metas || next > now || now > upper || lower > now)
    return fmt::format("its newest head is damaged: {} pages of {} to {}", next, lower, upper);
  head->pages = next;
  head->free_pages = mdbx_tree(meta[newest] + TREES);
  head->main = mdbx_tree(meta[newest] + TREES + BTREE_TREE_SIZE);
  return {};
}

namespace {

struct opened_c {
  explicit opened_c(const std::string &path) : fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~opened_c() {
    if (fd >= 0) close(fd);
  }
  opened_c(const opened_c &) = delete;
  opened_c &operator=(const opened_c &) = delete;
  const int fd;
};

}  // namespace

uint64_t read_mdbx_txnid(const std::string &path) {
  const opened_c file(path);
  btree_head_t head;
  return file.fd >= 0 && read_mdbx_head(file.fd, &head).empty() ? head.txnid : 0;
}

std::string check_btree_file(const std::string &path, const btree_format_t &format, bool whole) {
  const opened_c file(path);
  if (file.fd < 0) return fmt::format("it cannot be opened: {}", strerror(errno));
  struct stat st;
  if (fstat(file.fd, &st) != 0 || !S_ISREG(st.st_mode)) return "it is no file";
  btree_head_t head;
  const std::string fault =
      &format == &LMDB_FORMAT ? read_lmdb_head(file.fd, &head) : read_mdbx_head(file.fd, &head);
  if (!fault.empty()) return fault;
  const uint64_t file_pages = static_cast<uint64_t>(st.st_size) / head.page_size;
  if (head.pages < format.metas || head.pages > MAX_PAGES)
    return fmt::format("it claims to have {} pages in use", head.pages);
  // Pages at the end that were taken and given back in one transaction were never written: a file that is
  // shorter than its head says need not be a damaged one.
  if (!whole && head.pages <= file_pages) return {};
  return walk_c(file.fd, format, head, file_pages).run();
}

}  // namespace db::ranged::nntbs
