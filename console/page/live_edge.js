// How a player that keeps a buffer stays at the live edge. Pure.
//
//   behind the end    what to do
//   > 300 ms          jump to the aim
//   100 to 300 ms     play faster, 1.1 at most; where the rate is not to be changed: jump above 150
//   40 to 100 ms      play on
//   < 40 ms           a little slower, so that the next late unit does not stop the picture
const kAim_ms = 80;
const kJumpAbove_ms = 300;
const kJumpInsteadAbove_ms = 150;
const kFasterAbove_ms = 100;
const kSlowerBelow_ms = 40;
const kFastest = 1.1;
const kSlow = 0.95;

// {jump_to_ms, rate}: jump_to_ms is how far behind the end to go on, null for no jump.
export function liveEdge(behind_ms, may_change_rate) {
  const jump_above_ms = may_change_rate ? kJumpAbove_ms : kJumpInsteadAbove_ms;
  if (behind_ms > jump_above_ms) {
    return { jump_to_ms: kAim_ms, rate: 1 };
  }
  if (!may_change_rate) {
    return { jump_to_ms: null, rate: 1 };
  }
  if (behind_ms > kFasterAbove_ms) {
    return {
      jump_to_ms: null,
      rate: Math.min(kFastest, 1 + (behind_ms - kFasterAbove_ms) / 1000 + 0.02),
    };
  }
  return { jump_to_ms: null, rate: behind_ms < kSlowerBelow_ms ? kSlow : 1 };
}
