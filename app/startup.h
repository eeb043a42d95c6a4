// The daemon's start-up, step by step, and its main loop.
#pragma once

namespace kestrelbridge {

// Brings up everything in its fixed order and then ticks for ever. Ends the process when a step
// that the daemon cannot do without fails. Main thread.
[[noreturn]] void RunDaemon(int argc, char** argv);

}  // namespace kestrelbridge
