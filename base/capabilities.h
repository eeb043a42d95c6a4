// Root's powers over the network, which only start-up needs: for large socket buffers and for the
// redirect rule.
#pragma once

namespace kestrelbridge {

// The calling thread gives up CAP_NET_ADMIN and CAP_NET_RAW for good; no other thread does. Under
// the service these are all that it has. What else root has, when it starts the daemon by hand,
// stays: blocks and files of other users. Any thread.
void DropNetworkCapabilities();

}  // namespace kestrelbridge
