#pragma once
// Addresses are the one thing of a topology that an operator may change while it is in force: net_address,
// net_port, net_apiport, hostname and url_prefix of a host_config, and connect_to of its topo_config.

#include "platform/krel/base/thread_annotations.h"

// Held shared to read those fields of any topology, exclusively to change them.
krel_shared_mutex_c &topo_address_mutex();
