#pragma once
// The data directories at start-up, before anything is read: what a crash left behind is put in order. Every
// step may be cut off at any point; the next start goes on from there.

#include "db/surrogate3/codec/surrogate_codec_factory.h"

namespace db::surrogate3 {

constexpr char REPAIR_SUFFIX[] = ".repair";    // set aside while its successor is being written
constexpr char DAMAGED_SUFFIX[] = ".damaged";  // cut off by a crash, kept for inspection
constexpr size_t MAX_FILES_AT_START = 32;      // of a kind; more are merged
constexpr size_t MERGED_AT_START = 128 << 20;  // bytes, so that a start does not take long

// Both directories, durable.
void make_directories(const file_selection_strategy_c &fss);
// Brings files that were set aside back under their names: their successors may not be whole.
void restore_repair_files(const file_selection_strategy_c &fss, spec_e spec);
void remove_empty_files(const file_selection_strategy_c &fss, spec_e spec);
// A crash while a file is written leaves the newest one without its end. Nothing in it was acknowledged: it
// is renamed out of the way.
void set_cut_file_aside(const file_selection_strategy_c &fss, spec_e spec);
// Renames files so that their ids count from 1 without gaps, in the order that they have.
void resequence_files(const file_selection_strategy_c &fss, spec_e spec);
// When there are more than `limit` files, writes one in place of as many neighbours as fit into the budget of
// bytes. On any failure the files stay as they are.
void merge_files(const file_selection_strategy_c &fss, spec_e spec, size_t limit = MAX_FILES_AT_START,
                 size_t byte_budget = MERGED_AT_START);

}  // namespace db::surrogate3
