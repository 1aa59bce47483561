#pragma once
// The metadata blocks at the end of a metric's name: |ST[stream tags] and |MT{measurement tags}.

#include "platform/dorn/dorn_tagset.h"
#include "util/mem_reader.h"

// Cuts the last block off the name. 0: there is none. 1: a stream tag block, 2: a measurement block; *type is
// its two letters, *value the text inside, *out the name before its "|". in and out may be the same.
int metric_name_parse_next_metadata(const mem_reader_t *in, mem_reader_t *out, mem_reader_t *type,
                                    mem_reader_t *value);

// Reads the stream tags of a canonical name into a set that looks into it. *out becomes the name as given.
// False, and an empty set: bad or reserved tags, or more than one stream tag block.
bool metric_name_v1_parse(const mem_reader_t *in, mem_reader_t *out, dorn_metric_tagset_t *stream_tags);

// False for a tag of a category that tag search reserves (__check_uuid, __activity, __name, __type). The
// category's size counts the colon; 0: the tag has none.
bool reject_artificial_stream_tags(const char *tag, size_t total_size, size_t category_size);
