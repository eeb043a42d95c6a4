#include "tools/camera_command.h"

namespace kestrelbridge {

void AddCameraCommand(CLI::App& app) {
  app.add_subcommand("camera", "Simulated camera: streams an H.264 clip to the daemon");
}

}  // namespace kestrelbridge
