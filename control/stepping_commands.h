// Steps of one camera setting to its next or previous value, round and round.
//
// Each starts from the value that the camera last reported. A value that is not among the steps
// counts as the first, so next gives the second and previous the last. Remote-control thread.
#pragma once

namespace kestrelbridge {

void NextImageMode();  // "auto", "manual"
void PrevImageMode();
void NextShutter();  // 8 seconds to 1/8000
void PrevShutter();
void NextIso();  // automatic, 100 to 3200
void PrevIso();
void NextEv();  // -3.0 to +3.0
void PrevEv();
void NextWhiteBalance();  // "auto", "custom" with the temperature last asked for or reported
void PrevWhiteBalance();
void NextColor();  // "none", "d-clike"
void PrevColor();

}  // namespace kestrelbridge
