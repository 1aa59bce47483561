#pragma once

// Gives the event system the node's default job queues. The configuration can override any of them.
void velmar_worker_pools_config();
