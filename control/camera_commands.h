// Everything that can be asked of the camera: each operation turns its argument into one or two
// command frames and sends them.
//
// Nobody waits for an answer or repeats a command; the camera's next status push shows what took
// effect. Texts are NUL-terminated, never null unless it says so, and compared exactly; the words
// are those of state/vocabulary.h. What a command does with a word that the camera doesn't know is
// said beside it: most send nothing. Any thread; nothing is allocated.
#pragma once

namespace kestrelbridge {

void SetRecording(bool start);
void TakeShot();
void SetCameraMode(const char* mode);     // unknown: nothing sent, nothing logged
void SetVideoMode(const char* mode);      // exposure mode; unknown: nothing sent
void SetShutter(const char* shutter);     // unknown: sent as 0
void SetIso(const char* iso);             // decimal number; unknown: sent as automatic
void SetEv(const char* ev);               // decimal number, one of 19 exactly; other: nothing sent
void SetColor(const char* color);         // unknown: sent as "none"
void SetAspectRatio(const char* aspect);  // unknown: nothing sent
void SetShotMode(const char* mode);       // photo format; unknown: nothing sent
void SetAntiFlicker(const char* mode);    // unknown: sent as automatic
void SetVideoStandard(const char* standard);  // unknown: nothing sent
void SetWifiMode(const char* band);           // "5.8"; anything else is the other band
void ResetCamera();
void SetPower(const char* state);  // "sleep", "wakeup", "restart", "shutdown"; other: nothing sent
void SetHistogram(const char* onoff);   // "1" or "0"; other: nothing sent
void FormatSdCard(const char* target);  // "sd"; other: nothing sent, nothing logged

// The temperature, whole kelvin, is for the mode "custom" only. It is remembered as wb_temp_set
// even where it is too low to send; null: "custom" sends nothing. Unknown mode: nothing sent.
void SetWhiteBalance(const char* mode, const char* temperature);

// A size or a rate that the camera doesn't have is sent as 0.
void SetVideoResolution(int width, int height, int frames_per_second);

}  // namespace kestrelbridge
