// The plugin: what GStreamer finds in libgstkestrelbridge.so.

#include <gst/gst.h>

#include "gstreamer/device_provider.h"
#include "gstreamer/kestrelbridge_src.h"

#define PACKAGE "kestrelbridge"

namespace {

gboolean Register(GstPlugin* plugin) {
  using namespace kestrelbridge::gstreamer;
  const gboolean has_element =
      gst_element_register(plugin, kElementName, GST_RANK_NONE, ElementType());
  const gboolean has_provider = gst_device_provider_register(
      plugin, "kestrelbridgedeviceprovider", GST_RANK_PRIMARY, DeviceProviderType());
  return has_element != FALSE && has_provider != FALSE ? TRUE : FALSE;
}

}  // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kestrelbridge,
                  "Live picture of an action camera through the kestrelbridge daemon", Register,
                  KESTRELBRIDGE_VERSION, "MIT", "kestrelbridge",
                  "https://example.org/kestrelbridge")
