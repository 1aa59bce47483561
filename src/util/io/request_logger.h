#pragma once
// Requests written to files, one each: what was in flight when a node died can be read afterwards.
// Settings: //request_logger/@directory (unset: off), @save_post_bodies, @remove_after_finish.
// From any thread; blocking.

#include <string>
#include <string_view>

void request_logger_init();  // reads the settings; a directory that cannot be used is fatal
bool request_logger_enabled();

// Writes the request's file and returns its path, "" when the logger is off or the file cannot be
// written: the request goes on either way.
std::string request_logger_start_request(const char *url, std::string_view body);
// With @remove_after_finish removes the file. An empty path is passed over.
void request_logger_end_request(const std::string &path);
