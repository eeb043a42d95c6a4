// kestrelbridge: holds the Wi-Fi link to an action camera and passes its live picture on.

#include "app/startup.h"

int main(int argc, char** argv) { kestrelbridge::RunDaemon(argc, argv); }
