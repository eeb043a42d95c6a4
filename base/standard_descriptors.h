// Descriptors 0 to 2, which a program may be started without.
#pragma once

namespace kestrelbridge {

// Whichever of standard input, output and error is closed gets /dev/null, opened for reading: a
// write there fails as it would have, instead of ending in the first file, socket or shared memory
// that the process opens. First thing in main.
void OccupyStandardDescriptors();

}  // namespace kestrelbridge
