#pragma once
// Listeners of type "graphite". Configuration: <config> with <check_uuid> (required), <account_id> and
// <buffer_size> (bytes, at least 512000).

// Registers the type; looks at the listeners configured and says what is wrong with them. An ephemeral node
// opens none. At start, before the listeners are opened.
void graphite_listener_init(bool ephemeral);
// Takes what has been sent, then ends the connections. Not on a loop thread.
void graphite_listener_close();
