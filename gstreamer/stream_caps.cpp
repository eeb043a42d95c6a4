#include "gstreamer/stream_caps.h"

#include <gst/pbutils/pbutils.h>

#include <cstdint>
#include <vector>

#include "gstreamer/avc_format.h"

namespace kestrelbridge::gstreamer {
namespace {

constexpr char kStreamFormat[] = "stream-format";
constexpr char kByteStream[] = "byte-stream";

void SetPicture(GstCaps* caps, const ParameterSets& sets) {
  const PictureFormat& format = sets.format;
  gst_caps_set_simple(caps, "width", G_TYPE_INT, format.width, "height", G_TYPE_INT, format.height,
                      "pixel-aspect-ratio", GST_TYPE_FRACTION, format.pixel_aspect.numerator,
                      format.pixel_aspect.denominator, nullptr);
  if (format.frame_rate.numerator != 0) {
    gst_caps_set_simple(caps, "framerate", GST_TYPE_FRACTION, format.frame_rate.numerator,
                        format.frame_rate.denominator, nullptr);
  }
  // From profile_idc on, the byte behind the header.
  gst_codec_utils_h264_caps_set_level_and_profile(caps, sets.sps.data() + 1,
                                                  static_cast<guint>(sets.sps.size() - 1));
}

void SetCodecData(GstCaps* caps, const ParameterSets& sets) {
  const std::vector<std::uint8_t> record = DecoderConfiguration(sets.sps, sets.pps);
  GstBuffer* codec_data = gst_buffer_new_memdup(record.data(), record.size());
  gst_caps_set_simple(caps, "codec_data", GST_TYPE_BUFFER, codec_data, nullptr);
  gst_buffer_unref(codec_data);
}

}  // namespace

GstCaps* TemplateCaps() {
  return gst_caps_from_string(
      "video/x-h264, stream-format=(string){ byte-stream, avc }, alignment=(string)au");
}

StreamFormat ChooseFormat(GstPad* pad) {
  GstCaps* ours = TemplateCaps();
  GstCaps* wanted = gst_pad_peer_query_caps(pad, ours);
  gst_caps_unref(ours);
  StreamFormat format = StreamFormat::kByteStream;
  if (!gst_caps_is_empty(wanted) && !gst_caps_is_any(wanted)) {
    wanted = gst_caps_fixate(wanted);  // the first structure, of its lists the first value
    const char* name = gst_structure_get_string(gst_caps_get_structure(wanted, 0), kStreamFormat);
    if (name != nullptr && g_strcmp0(name, kByteStream) != 0) {
      format = StreamFormat::kAvc;
    }
  }
  gst_caps_unref(wanted);
  return format;
}

GstCaps* StreamCaps(StreamFormat format, const ParameterSets* sets) {
  const bool is_avc = format == StreamFormat::kAvc;
  GstCaps* caps = gst_caps_new_simple("video/x-h264", kStreamFormat, G_TYPE_STRING,
                                      is_avc ? "avc" : kByteStream, "alignment", G_TYPE_STRING,
                                      "au", "parsed", G_TYPE_BOOLEAN, TRUE, nullptr);
  if (sets != nullptr) {
    SetPicture(caps, *sets);
    if (is_avc) {
      SetCodecData(caps, *sets);
    }
  }
  return caps;
}

}  // namespace kestrelbridge::gstreamer
