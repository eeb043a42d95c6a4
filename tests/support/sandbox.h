// A private world for one test program: real paths, real ports, nothing shared with other tests.
#pragma once

namespace kestrelbridge::test {

// The address on which the camera listens. The sandbox's loopback has it, so a test can be the
// camera.
inline constexpr char kCameraAddress[] = "192.168.2.1";

// Moves the process into network and mount namespaces of its own: empty /run with
// /run/kestrelbridge, empty /dev/shm, a loopback with the camera's address, no way out to any
// other machine. Who is not root gets a user namespace, too; root stays root, because the daemon
// may then do more. Returns false, and says what the kernel refused, when that is not possible:
// tests that cannot run have not passed. Before any thread is started.
bool EnterSandbox();

}  // namespace kestrelbridge::test
