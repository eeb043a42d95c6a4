#include "gstreamer/device_provider.h"

#include <chrono>
#include <memory>

#include "gstreamer/kestrelbridge_src.h"
#include "gstreamer/stream_caps.h"
#include "gstreamer/unit_source.h"

namespace kestrelbridge::gstreamer {
namespace {

// --- the camera
// -----------------------------------------------------------------------------------

struct KestrelbridgeDevice {
  GstDevice parent;
};
struct KestrelbridgeDeviceClass {
  GstDeviceClass parent;
};
G_DEFINE_TYPE(KestrelbridgeDevice, kestrelbridge_device, GST_TYPE_DEVICE)

GstElement* MakeSource(GstDevice* /*device*/, const gchar* name) {
  return gst_element_factory_make(kElementName, name);
}

void kestrelbridge_device_class_init(KestrelbridgeDeviceClass* klass) {
  GST_DEVICE_CLASS(klass)->create_element = MakeSource;
}
void kestrelbridge_device_init(KestrelbridgeDevice* /*camera*/) {}

// --- the list of one
// ------------------------------------------------------------------------------

struct KestrelbridgeDeviceProvider {
  GstDeviceProvider parent;
};
struct KestrelbridgeDeviceProviderClass {
  GstDeviceProviderClass parent;
};
G_DEFINE_TYPE(KestrelbridgeDeviceProvider, kestrelbridge_device_provider, GST_TYPE_DEVICE_PROVIDER)

// As the ring's latest keyframe tells it; what the element can give at all, before there is one.
GstCaps* CapsOfRing() {
  UnitSource source(FrameBlockReader::Start::kOldest);
  OutgoingUnit unit;
  std::shared_ptr<const ParameterSets> sets;
  while (source.Next({}, std::chrono::milliseconds{0}, unit) == RingState::kUnit) {
    sets = unit.sets;
  }
  if (sets == nullptr) {
    return TemplateCaps();
  }
  GstCaps* caps = StreamCaps(StreamFormat::kByteStream, sets.get());
  gst_caps_append(caps, StreamCaps(StreamFormat::kAvc, sets.get()));
  return caps;
}

GList* Probe(GstDeviceProvider* /*provider*/) {
  if (!FrameBlockMapping().Open()) {
    return nullptr;
  }
  GstCaps* caps = CapsOfRing();
  GstStructure* properties =
      gst_structure_new("kestrelbridge-proplist", "device.api", G_TYPE_STRING, "kestrelbridge",
                        "object.path", G_TYPE_STRING, kFrameBlockName, nullptr);
  gpointer camera =
      g_object_new(kestrelbridge_device_get_type(), "display-name", "Camera of kestrelbridge",
                   "device-class", "Source/Video", "caps", caps, "properties", properties, nullptr);
  gst_structure_free(properties);
  gst_caps_unref(caps);
  return g_list_append(nullptr, camera);
}

void kestrelbridge_device_provider_class_init(KestrelbridgeDeviceProviderClass* klass) {
  GstDeviceProviderClass* provider_class = GST_DEVICE_PROVIDER_CLASS(klass);
  provider_class->probe = Probe;
  gst_device_provider_class_set_static_metadata(
      provider_class, "Camera bridge device provider", "Source/Video",
      "Lists the camera whose picture the kestrelbridge daemon publishes", "kestrelbridge authors");
}
void kestrelbridge_device_provider_init(KestrelbridgeDeviceProvider* /*provider*/) {}

}  // namespace

GType DeviceProviderType() { return kestrelbridge_device_provider_get_type(); }

}  // namespace kestrelbridge::gstreamer
