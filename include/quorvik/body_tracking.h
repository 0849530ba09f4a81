/* Quorvik Body Tracking: body tracking for structured-light depth cameras.
 *
 * The host creates a tracker, hands it one depth map (unsigned 16-bit millimetres, 0 = no
 * measurement, width and height the same whole multiple of 160x120, at most 2560x1920) per
 * camera frame, and reads back a body frame: up to ten people with ids, statuses and sixteen
 * joints each, a per-pixel body mask and the floor. Every function except the two ..._is_valid functions
 * returns a qbt_result_t: 0 on success, else an error code whose text qbt_error_info reads.
 */
#ifndef QUORVIK_BODY_TRACKING_H
#define QUORVIK_BODY_TRACKING_H

#include <stdbool.h>
#include <stdint.h>

/* The library's version; the shared library's SONAME carries the major number. */
#define QBT_VERSION_MAJOR 0
#define QBT_VERSION_MINOR 1
#define QBT_VERSION_PATCH 0

#if defined(QBT_BUILDING_LIBRARY)
#define QBT_API __attribute__((visibility("default")))
#else
#define QBT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t qbt_result_t;

/* Result codes. */
#define QBT_RESULT_SUCCESS 0
#define QBT_RESULT_BODYFRAME_NOT_RELEASED 1
#define QBT_RESULT_DATAFILE_INVALID_FORMAT 2
#define QBT_RESULT_DATAFILE_NOT_FOUND 3
#define QBT_RESULT_ASYNC_BODYFRAME_MISMATCH 4
#define QBT_RESULT_ASYNC_BODYFRAME_UNAVAILABLE 5
#define QBT_RESULT_INVALID_DEPTHMAP_SIZE 6
#define QBT_RESULT_INVALID_PARAMETER 7
#define QBT_RESULT_RESULT_ALREADY_TAKEN 8
#define QBT_RESULT_JOINT_TYPE_CONVERSION_FAILED 100
#define QBT_RESULT_JOINT_STATUS_CONVERSION_FAILED 101
#define QBT_RESULT_BODY_STATUS_CONVERSION_FAILED 102
#define QBT_RESULT_UNHANDLED_EXCEPTION 103
#define QBT_RESULT_NULL_BODYFRAME 104
#define QBT_RESULT_WORKER_QUEUE_FULL 105
#define QBT_RESULT_UNKNOWN_ERROR 127

/* Joint types: slot j of qbt_body_t.joints holds joint type j. */
#define QBT_JOINT_HEAD 0
#define QBT_JOINT_SHOULDER_SPINE 1
#define QBT_JOINT_LEFT_SHOULDER 2
#define QBT_JOINT_LEFT_ELBOW 3
#define QBT_JOINT_LEFT_HAND 4
#define QBT_JOINT_RIGHT_SHOULDER 5
#define QBT_JOINT_RIGHT_ELBOW 6
#define QBT_JOINT_RIGHT_HAND 7
#define QBT_JOINT_MID_SPINE 8
#define QBT_JOINT_BASE_SPINE 9
#define QBT_JOINT_LEFT_HIP 10
#define QBT_JOINT_LEFT_KNEE 11
#define QBT_JOINT_LEFT_FOOT 12
#define QBT_JOINT_RIGHT_HIP 13
#define QBT_JOINT_RIGHT_KNEE 14
#define QBT_JOINT_RIGHT_FOOT 15
#define QBT_JOINT_COUNT 16

/* Joint status: how much a joint's position rests on the current frame. */
#define QBT_JOINT_STATUS_NONE 0
#define QBT_JOINT_STATUS_LOW 1
#define QBT_JOINT_STATUS_HIGH 2

/* Body status. */
#define QBT_BODY_STATUS_NOT_TRACKING 0
#define QBT_BODY_STATUS_TRACKING_LOST 1
#define QBT_BODY_STATUS_TRACKING_STARTED 2
#define QBT_BODY_STATUS_TRACKING 3

struct qbt_tracker_object;
struct qbt_frame_object;
struct qbt_pending_slot;

/* Handles. The invalid value of each is all zero bytes. */
typedef struct qbt_tracker_object* qbt_bodytracker_t;

typedef struct qbt_bodyframe_t {
  struct qbt_tracker_object* tracker;
  struct qbt_frame_object* frame;
} qbt_bodyframe_t;

typedef struct qbt_asyncbodyframe_t {
  struct qbt_tracker_object* tracker;
  struct qbt_pending_slot* slot;
} qbt_asyncbodyframe_t;

/* Images: rows top to bottom, no padding between rows. */
typedef struct qbt_depthmap_t {
  const uint16_t* data;
  int32_t width;
  int32_t height;
} qbt_depthmap_t;

typedef struct qbt_bodymask_t {
  const uint8_t* data; /* id of the body covering each pixel, 0 for none */
  int32_t width;
  int32_t height;
} qbt_bodymask_t;

typedef struct qbt_floormask_t {
  const uint8_t* data; /* 1 on the floor, 0 elsewhere */
  int32_t width;
  int32_t height;
} qbt_floormask_t;

typedef struct qbt_bodytracker_options_t {
  float horizontalFov;        /* degrees */
  float verticalFov;          /* degrees */
  uint16_t zeroPlaneDistance; /* the sensor's shift-to-depth conversion parameters follow */
  float zeroPlanePixelSize;
  float emitterDcmosDistance;
  int32_t maxShiftValue;
  int32_t deviceMaxDepth;
  uint32_t constShift;
  uint32_t pixelSizeFactor; /* must not be 0 */
  uint32_t paramCoeff;
  uint32_t shiftScale;
  uint16_t minDepth;
  uint16_t maxDepth;
  const char* dataFilePath; /* null or empty: "QuorvikBodyTracking.data" */
} qbt_bodytracker_options_t;

typedef struct qbt_error_info_t {
  const char* message;
  qbt_result_t code;
} qbt_error_info_t;

typedef struct qbt_vector2_t {
  float x, y;
} qbt_vector2_t;

typedef struct qbt_vector3_t {
  float x, y, z;
} qbt_vector3_t;

typedef struct qbt_joint_t {
  uint8_t jointType; /* QBT_JOINT_... */
  uint8_t status;    /* QBT_JOINT_STATUS_... */
  qbt_vector2_t depthPosition; /* pixels of the input depth map */
  qbt_vector3_t worldPosition; /* millimetres, camera frame: x right, y up, z forward */
} qbt_joint_t;

typedef struct qbt_body_t {
  uint8_t id;
  qbt_joint_t joints[QBT_JOINT_COUNT];
  uint8_t status; /* QBT_BODY_STATUS_... */
} qbt_body_t;

typedef struct qbt_bodylist_t {
  qbt_body_t* bodies; /* null when count is 0 */
  uint32_t count;
} qbt_bodylist_t;

/* The floor is the set of world points P with nx*Px + ny*Py + nz*Pz + d = 0 (millimetres). */
typedef struct qbt_plane_t {
  float nx, ny, nz, d;
} qbt_plane_t;

typedef struct qbt_bodyframe_info_t {
  uint32_t width;
  uint32_t height;
} qbt_bodyframe_info_t;

/* Asynchronous frames: a handle from qbt_bodytracker_update_async. frame_ready sets *isReady
 * once the update has finished; take_frame then hands out its body frame (or the update's own
 * error), after which the handle is spent. is_valid is false only for the all-zero handle. */
QBT_API qbt_result_t qbt_asyncbodyframe_frame_ready(qbt_asyncbodyframe_t asyncBodyFrame, bool* isReady);
QBT_API bool qbt_asyncbodyframe_is_valid(qbt_asyncbodyframe_t asyncBodyFrame);
QBT_API qbt_result_t qbt_asyncbodyframe_take_frame(qbt_asyncbodyframe_t asyncBodyFrame, qbt_bodyframe_t* bodyFrame);

/* Body frames. A frame is not a copy: its bodies, masks and floor point into the tracker and
 * stay valid until it is released; the tracker's next update fails with code 1 while a frame
 * is still held. body_list fills *bodyList with the tracker's one body array, rebuilt by
 * every call (any frame of the same tracker); joint slot j holds joint type j. bodymask and
 * floor_info hand out views at the input size (body id per pixel, 0 for nobody; 1 on the
 * floor); without a floor the plane and the mask are all 0. release gives the frame back
 * and zeroes the handle. */
QBT_API qbt_result_t qbt_bodyframe_body_list(qbt_bodyframe_t bodyFrame, qbt_bodylist_t* bodyList);
QBT_API qbt_result_t qbt_bodyframe_bodymask(qbt_bodyframe_t bodyFrame, qbt_bodymask_t* bodyMask);
QBT_API qbt_result_t qbt_bodyframe_floor_info(qbt_bodyframe_t bodyFrame, bool* floorDetected,
                                              qbt_plane_t* floorPlane, qbt_floormask_t* floorMask);
QBT_API qbt_result_t qbt_bodyframe_info(qbt_bodyframe_t bodyFrame, qbt_bodyframe_info_t* info);
QBT_API bool qbt_bodyframe_is_valid(qbt_bodyframe_t bodyFrame);
QBT_API qbt_result_t qbt_bodyframe_release(qbt_bodyframe_t* bodyFrame);

/* Trackers. create starts loading the data file and returns at once; a null options pointer
 * means the defaults that fill_default_options writes. destroy waits for a running
 * asynchronous update and zeroes the handle. reset forgets everyone from the next update on.
 * update tracks one depth map and hands out its frame (release it before the next update);
 * update_async does the same on the tracker's worker and hands out a handle to poll. The
 * depth map's size must be the same whole multiple of 160x120 in both directions. */
QBT_API qbt_result_t qbt_bodytracker_create(const qbt_bodytracker_options_t* options, qbt_bodytracker_t* bodyTracker);
QBT_API qbt_result_t qbt_bodytracker_destroy(qbt_bodytracker_t* bodyTracker);
QBT_API qbt_result_t qbt_bodytracker_fill_default_options(qbt_bodytracker_options_t* options);
QBT_API qbt_result_t qbt_bodytracker_is_depth_mirrored(qbt_bodytracker_t bodyTracker, bool* isDepthMirrored);
QBT_API qbt_result_t qbt_bodytracker_reset(qbt_bodytracker_t bodyTracker);
QBT_API qbt_result_t qbt_bodytracker_set_is_depth_mirrored(qbt_bodytracker_t bodyTracker, bool isDepthMirrored);
QBT_API qbt_result_t qbt_bodytracker_update(qbt_bodytracker_t bodyTracker, const qbt_depthmap_t* depthMap,
                                            qbt_bodyframe_t* bodyFrame);
QBT_API qbt_result_t qbt_bodytracker_update_async(qbt_bodytracker_t bodyTracker, const qbt_depthmap_t* depthMap,
                                                  qbt_asyncbodyframe_t* asyncBodyFrame);

/* The code and text of the last failure in the process (one record for all trackers and
 * threads; a success does not clear it). The text is the record's own buffer: a later
 * failure changes it. */
QBT_API qbt_result_t qbt_error_info(qbt_error_info_t* info);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIK_BODY_TRACKING_H */
