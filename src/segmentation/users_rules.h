#pragma once
// Thresholds of the users stage, in one place.
//
// How new users are found (stage 2, only while the background is not in a scene change, at
// least 30 frames after its last rebuild, and never on a bad frame). The paths run in this
// order and each one takes only regions that have no owner and were not handed back:
//
//  1. Lost users come back. A user that owns less than 1500 mm2 (it walked behind someone
//     or something, or moved too fast for the overlap rule) takes the nearest group (grouped
//     as in 3 below) of at least 20,000 mm2 whose centroid is within 500 mm in depth of
//     where the user was last seen and, sideways, within 1000 mm plus 50 mm for
//     every frame it has been unseen (up to 60 frames). A user whose last pixels touched the
//     left or right side of the image walked out of view instead: it takes only a group that
//     touches the same side. A person hidden by a pillar or by someone crossing in front
//     keeps their id instead of coming back under a new one.
//  2. Confirmed person candidates that no user covers gather the unowned regions inside
//     their box (the candidate-driven creation). The gathered regions must also be at least
//     1000 mm tall: a chair pushed across the room is tall enough and moves enough to be
//     confirmed as a candidate, but is no person.
//  3. Person-sized foreground. Unowned, mostly-foreground regions of at least 500 mm2 are
//     grouped unless a present user would take them in (centroid within 2 pixels of its box,
//     mean depth within 200 mm of its mean depth: a part of that user). The others are
//     grouped when their boxes come within 2 pixels and their depth ranges within 200 mm.
//     (Someone walking out from behind a user is 200 mm or more behind the user's mean
//     depth, so their pixels are not mistaken for the user's own.)
//     A group looks like a person when its area is between 100,000 and 1,500,000 mm2, it is
//     1000 to 2600 mm tall and at most 1500 mm wide. Such a group is followed from frame to
//     frame (matched within 500 mm on the ground); once it has been seen in 4 frames in a
//     row and its centroid has moved at least 100 mm from where it was first seen, it
//     becomes a user. Furniture that has been put down does not move; a low object (chair,
//     box, table) is not tall enough. Regions that a user let go of as a separate
//     person-sized part (see the fragments) may be grouped even inside that user's box.
//
//  4. Still people. Static pixels of nobody are pushed away in the labelling images, so a
//     person who has stood still since the background was learnt has no near pixels; they
//     are found among the static regions instead. Every static region and every group of
//     them (touching boxes, overlapping depth ranges) of at least 100,000 mm2 and 1000 mm
//     tall (700 mm where it reaches the image's bottom row) is a proposal, followed on the ground within 300 mm from frame to
//     frame. A proposal is cut to its person: floor pixels leave (those with the floor's
//     slope, receding by depth / 150 or more a row both above and below, measured to the
//     nearest row with depth 2 to 5 rows away, and those within
//     3 shift steps of a known floor plane, wherever the floor mask ends), so does all
//     behind the first gap of 150 mm in its depths (50 mm bins each holding at most 0.5
//     percent of its pixels, or 3, once a fifth of them lie nearer: someone in front of a
//     cabinet joins it through a few grazing pixels of their outline), and of the rest only
//     the largest connected part stays, with the parts of at least 3 percent of its size
//     that come, one after another, within 2 pixels sideways and 100 mm above or below of
//     what it has gathered (legs below a skirt, a box carried in front, the head above it). The cut must be
//     person-sized (as in 3 above, at most 1500 mm deep), have a head (its top 12 percent
//     of rows at most 80 percent as wide as the widest row between 18 and 40 percent: a
//     cabinet or a stack of boxes is as wide at the top), not covered by a user, and read
//     as a person by the owner of the body-part forest; a cut of the wrong size is cut
//     again two frames later without a question, and the forest is asked about one
//     proposal a frame at most. Two yes answers in a row make a user that is
//     given the cut pixels (they then carry its id, so they are no longer pushed away and
//     form near regions that inherit it, while what lay behind stays pushed and apart),
//     and the background under it becomes unknown, so that it is foreground from then on
//     like anyone who walked in. After a no, the next question waits 4, 8, 16, 32 and then
//     64 frames. This path runs before the candidate-driven one, so a person who stands
//     still and then kicks becomes a user as a whole, not as the moving leg.
//
// Unowned regions are then attached to a present user when their box lies within the user's
// box (one pixel of tolerance) and their mean depth is within 200 mm of the user's mean
// depth; the nearest user in depth wins.
//
// Shapes: a user younger than 30 frames whose box is under 800 mm tall or whose area is under
// 40,000 mm2 (or that is the second of a pair) goes on probation; one older than 30 frames
// whose pixels are under 500 mm tall carries the static-blob flag, which lets the hand-back
// release its static regions.
//
// Still objects: an older user under 1000 mm tall (and never 1400 mm) whose regions have
// stayed 95 percent unchanged for 15 frames, that has not shrunk to less than half of its
// most pixels and is not hidden at its lower edge by something 200 mm nearer, is put to the
// person check every 4 frames; two no answers in a row with under 3 percent of its labels a
// head remove it, and the background learns its pixels (pushed furniture left standing).

#include <cstdint>

namespace quorvik::legacy::users_rules {

// Labelling images.
inline constexpr int32_t kFarCut = 4500;       // mm; pixels at or beyond never carry an id
inline constexpr uint16_t kPushDepth = 5000;   // static pixels of nobody are pushed this far
inline constexpr uint16_t kPushShift = 1500;
inline constexpr uint16_t kZeroDepth = 10000;  // stand-ins for pixels without a measurement
inline constexpr uint16_t kZeroShift = 3000;
inline constexpr int32_t kJoinDepth = 50;  // neighbours join within 50 mm or 2 shift steps
inline constexpr int32_t kJoinShift = 2;
inline constexpr int32_t kUnchangedMm = 100;

// Pairs and checks.
inline constexpr int64_t kPairOverlap = 100001;        // mm2
inline constexpr int64_t kSmallStaticRegion = 5000;    // mm2
inline constexpr int64_t kHandBackForeground = 50001;  // mm2
inline constexpr int32_t kSurfaceJoin = 60;           // mm between neighbours of one surface in a pair's cut
inline constexpr int64_t kPairedAreaLimit = 2000000;   // mm2
inline constexpr int64_t kAreaLimit = 1500000;         // mm2
inline constexpr int64_t kLostArea = 1500;             // mm2
inline constexpr int32_t kLostFrames = 301;
inline constexpr int32_t kProbationAge = 30;
inline constexpr int32_t kProbationEnd = 61;

// Shapes.
inline constexpr int64_t kPersonArea = 100000;        // mm2
inline constexpr int64_t kPersonMaxArea = 1500000;    // mm2
inline constexpr int32_t kPersonHeight = 1000;        // mm
inline constexpr int32_t kPersonMaxHeight = 2600;     // mm
inline constexpr int32_t kPersonMaxWidth = 1500;      // mm
inline constexpr int32_t kFragmentMainHeight = 800;   // mm
inline constexpr double kFragmentGap = 100;           // mm
inline constexpr int32_t kDoubtfulHeight = 800;       // mm; a young user this short is on probation
inline constexpr int64_t kDoubtfulArea = 40000;       // mm2
inline constexpr int32_t kStaticBlobHeight = 500;     // mm; an older user this short is flagged
inline constexpr int32_t kObjectStillFrames = 15;     // a short user this still is asked about
inline constexpr int32_t kObjectStillPerMille = 950;  // of its area unchanged, for a still frame
inline constexpr int32_t kObjectTallest = 1400;       // mm; a user once this tall is a person
inline constexpr double kObjectHeadShare = 0.03;     // of its labelled pixels read as a head: a person
inline constexpr int32_t kObjectNo = 2;               // no answers in a row remove it
inline constexpr int32_t kObjectWait = 4;             // frames between questions
inline constexpr int32_t kHiddenRows = 3;             // rows below a user's lower edge looked at
inline constexpr int32_t kHiddenDepth = 200;          // mm nearer than the user: something in front
inline constexpr int32_t kHiddenPercent = 30;         // of the lower edge's columns: partly hidden

// New-user search.
inline constexpr int64_t kRegionMinArea = 500;        // mm2
inline constexpr int32_t kGroupTouch = 2;             // pixels
inline constexpr int32_t kGroupDepthGap = 200;        // mm
inline constexpr int32_t kNearUserColumns = 2;        // pixels around a present user's box
inline constexpr double kNearUserDepth = 200;         // mm from the user's mean depth
inline constexpr float kPendingMatch = 500;           // mm
inline constexpr int32_t kPendingFrames = 4;
inline constexpr float kPendingMoved = 100;           // mm
inline constexpr int64_t kReacquireArea = 20000;      // mm2
inline constexpr double kReacquireDepth = 500;        // mm
inline constexpr double kReacquireSide = 1000;        // mm, plus 50 mm per frame unseen
inline constexpr double kReacquireSidePerFrame = 50;  // mm
inline constexpr int32_t kReacquireFrames = 60;       // the side range stops growing here; no later return
inline constexpr int32_t kBorderColumns = 1;          // a box this close to the side touches it
inline constexpr int64_t kCandidateArea = 100000;     // mm2
inline constexpr double kAttachDepth = 200;           // mm from the user's mean depth
inline constexpr int32_t kStillBin = 50;              // mm
inline constexpr int32_t kStillMaxBins = 90;          // 4500 mm of depths
inline constexpr int32_t kStillSparseMin = 3;         // pixels in a bin of the gap
inline constexpr int32_t kStillSparsePerMille = 5;
inline constexpr int32_t kStillGapBins = 3;
inline constexpr int32_t kStillNearestPercent = 20;   // of the pixels before a gap counts
inline constexpr int32_t kStillSlopeRows = 2;         // rows above and below for the floor's slope
inline constexpr int32_t kStillSlopeReach = 5;        // farthest row tried past pixels without depth
inline constexpr int32_t kStillFloorSlope = 150;      // a floor recedes by depth / 150 a row, or more
inline constexpr double kStillFloorShift = 3;         // shift steps from a known floor plane
inline constexpr int32_t kStillPartPercent = 3;      // of the largest part, for a part beside it
inline constexpr double kStillPartGap = 100;          // mm between a part and the rest, above or below
inline constexpr int32_t kStillHeadEnd = 12;          // percent of the height from the top: the head
inline constexpr int32_t kStillShoulderStart = 18;    // and the shoulders
inline constexpr int32_t kStillShoulderEnd = 40;
inline constexpr int32_t kStillHeadWidthPercent = 80;  // of the shoulders' width, at most
inline constexpr int32_t kStillCutHeight = 700;       // mm, for a proposal cut off by the image's bottom
inline constexpr int32_t kStillThickness = 1500;      // mm from the nearest to the farthest pixel
inline constexpr float kStillMatch = 300;             // mm on the ground between frames
inline constexpr int32_t kStillYes = 2;
inline constexpr int32_t kStillShapeWait = 2;        // frames before a shape that failed is cut again
inline constexpr int32_t kStillFirstWait = 4;         // frames after the first no, doubling
inline constexpr int32_t kStillLongestWait = 64;

}  // namespace quorvik::legacy::users_rules
