// Namespaces of our own, in which a daemon has its real paths and nothing is left behind.
#pragma once

namespace kestrelbridge::tools {

// Moves this process into new namespaces: a network with nothing but a loopback, an empty /dev/shm
// and an empty /run. A user who is not root becomes root in them, and only there. One thread only,
// and before any other exists. Throws ToolError where the kernel forbids it.
void EnterStage();

}  // namespace kestrelbridge::tools
