#pragma once
// Moving, copying and removing files, also from one file system to another. Results are 0 or the errno of
// the step that failed; each step is logged on "debug/tolv_move". The target's directories are made.
//
// A rename within a file system is atomic. Across file systems the bytes go to a temporary name beside the
// target, are synced and renamed, and only then is the source removed: at every moment the source or the
// target is whole. Mode and times are kept. Regular files only.

#include <functional>
#include <string>

struct krelev_jobq_t;

void tolv_move_init();  // once at start-up, before the asynch forms: names their callbacks

int tolv_synch_move(const std::string &from, const std::string &to);
int tolv_synch_copy(const std::string &from, const std::string &to);  // by the same copy; leaves the source

// The same on a job queue (null: the default one). `done`, which may be empty, gets the result on the
// queue's thread.
using tolv_move_done_f = std::function<void(int error)>;
void tolv_asynch_move(krelev_jobq_t *jobq, std::string from, std::string to, tolv_move_done_f done = {});
void tolv_asynch_unlink(krelev_jobq_t *jobq, std::string path, tolv_move_done_f done = {});
