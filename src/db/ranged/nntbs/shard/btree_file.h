#pragma once
// A look at a store's file before the store itself is let loose on it.
//
// LMDB and libmdbx map their file and follow the page numbers, offsets and sizes that they find there, LMDB
// without testing any. A page that was never written (a power cut, a copy that was cut short) or a bit that has
// turned would take the process down, or let the store write over live pages. The walk here reads every page
// that holds structure, once and with pread, and follows nothing it has not tested: branch pages, leaves and
// the list of free pages, but not the pages of values, which are most of the file and carry checksums of their
// own.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace db::ranged::nntbs {

// What the formats of the two stores share and where they differ.
struct btree_format_t {
  size_t page_header;       // bytes
  size_t page_number_at;    // in the header
  size_t page_number_size;  // bytes, here and in nodes
  size_t bounds_at;  // two u16: end of the offsets, start of the nodes; of an overflow page: u32 its pages
  bool bounds_from_header;  // these and the offsets count from behind the header, else from the page's start
  size_t flags_at;          // u16
  uint64_t metas;           // pages in front that are not in any tree
};
extern const btree_format_t LMDB_FORMAT, MDBX_FORMAT;

struct btree_tree_t {
  uint64_t root;  // BTREE_NO_ROOT: the tree is empty
  uint64_t entries;
  unsigned depth;
  uint64_t flags;
};
constexpr uint64_t BTREE_NO_ROOT = UINT64_MAX;
constexpr size_t BTREE_TREE_SIZE = 48;  // of a stored record of a tree, in both formats

// The newest committed state of a file.
struct btree_head_t {
  size_t page_size = 0;
  uint64_t pages = 0;  // in use
  uint64_t txnid = 0;
  btree_tree_t free_pages{}, main{};
};

// Each gives what is wrong, empty when nothing is. The file is not changed; fd is open for reading.
std::string read_lmdb_head(int fd, btree_head_t *head);
std::string read_mdbx_head(int fd, btree_head_t *head);
// What a mdbx file's newest state is; 0 when none can be read.
uint64_t read_mdbx_txnid(const std::string &path);
// Both stores give a replaced value's pages back, as many as their header says: does it say what is right for a
// value of that size with a key of that size? True for a value that lies in a leaf.
bool value_may_be_freed(const btree_format_t &format, size_t page_size, size_t key_size, const void *value,
                        size_t size);
// The whole file with its one table. Unless `whole` only the head is read when the file is long enough for it.
std::string check_btree_file(const std::string &path, const btree_format_t &format, bool whole);

}  // namespace db::ranged::nntbs
