/* Compiled as C: any change of a public structure's size or field offset fails the build. */
#include <stddef.h>

#include "quorvik/body_tracking.h"

#define CHECK_SIZE(type, size) _Static_assert(sizeof(type) == (size), #type " size")
#define CHECK_OFFSET(type, field, offset) _Static_assert(offsetof(type, field) == (offset), #type "." #field)

CHECK_SIZE(qbt_result_t, 1);
CHECK_SIZE(bool, 1);
CHECK_SIZE(qbt_bodytracker_t, 8);
CHECK_SIZE(qbt_bodyframe_t, 16);
CHECK_OFFSET(qbt_bodyframe_t, tracker, 0);
CHECK_OFFSET(qbt_bodyframe_t, frame, 8);
CHECK_SIZE(qbt_asyncbodyframe_t, 16);
CHECK_OFFSET(qbt_asyncbodyframe_t, tracker, 0);
CHECK_OFFSET(qbt_asyncbodyframe_t, slot, 8);

CHECK_SIZE(qbt_depthmap_t, 16);
CHECK_OFFSET(qbt_depthmap_t, data, 0);
CHECK_OFFSET(qbt_depthmap_t, width, 8);
CHECK_OFFSET(qbt_depthmap_t, height, 12);
CHECK_SIZE(qbt_bodymask_t, 16);
CHECK_OFFSET(qbt_bodymask_t, width, 8);
CHECK_OFFSET(qbt_bodymask_t, height, 12);
CHECK_SIZE(qbt_floormask_t, 16);
CHECK_OFFSET(qbt_floormask_t, width, 8);
CHECK_OFFSET(qbt_floormask_t, height, 12);

CHECK_SIZE(qbt_bodytracker_options_t, 56);
CHECK_OFFSET(qbt_bodytracker_options_t, horizontalFov, 0);
CHECK_OFFSET(qbt_bodytracker_options_t, verticalFov, 4);
CHECK_OFFSET(qbt_bodytracker_options_t, zeroPlaneDistance, 8);
CHECK_OFFSET(qbt_bodytracker_options_t, zeroPlanePixelSize, 12);
CHECK_OFFSET(qbt_bodytracker_options_t, emitterDcmosDistance, 16);
CHECK_OFFSET(qbt_bodytracker_options_t, maxShiftValue, 20);
CHECK_OFFSET(qbt_bodytracker_options_t, deviceMaxDepth, 24);
CHECK_OFFSET(qbt_bodytracker_options_t, constShift, 28);
CHECK_OFFSET(qbt_bodytracker_options_t, pixelSizeFactor, 32);
CHECK_OFFSET(qbt_bodytracker_options_t, paramCoeff, 36);
CHECK_OFFSET(qbt_bodytracker_options_t, shiftScale, 40);
CHECK_OFFSET(qbt_bodytracker_options_t, minDepth, 44);
CHECK_OFFSET(qbt_bodytracker_options_t, maxDepth, 46);
CHECK_OFFSET(qbt_bodytracker_options_t, dataFilePath, 48);

CHECK_SIZE(qbt_error_info_t, 16);
CHECK_OFFSET(qbt_error_info_t, message, 0);
CHECK_OFFSET(qbt_error_info_t, code, 8);

CHECK_SIZE(qbt_joint_t, 24);
CHECK_OFFSET(qbt_joint_t, jointType, 0);
CHECK_OFFSET(qbt_joint_t, status, 1);
CHECK_OFFSET(qbt_joint_t, depthPosition, 4);
CHECK_OFFSET(qbt_joint_t, worldPosition, 12);
CHECK_SIZE(qbt_body_t, 392);
CHECK_OFFSET(qbt_body_t, id, 0);
CHECK_OFFSET(qbt_body_t, joints, 4);
CHECK_OFFSET(qbt_body_t, status, 388);
CHECK_SIZE(qbt_bodylist_t, 16);
CHECK_OFFSET(qbt_bodylist_t, bodies, 0);
CHECK_OFFSET(qbt_bodylist_t, count, 8);
CHECK_SIZE(qbt_plane_t, 16);
CHECK_OFFSET(qbt_plane_t, nx, 0);
CHECK_OFFSET(qbt_plane_t, d, 12);
CHECK_SIZE(qbt_bodyframe_info_t, 8);
CHECK_OFFSET(qbt_bodyframe_info_t, height, 4);

/* Referenced from the C++ tests so that this unit is part of the binary. */
int qbt_abi_layout_checked(void) { return 1; }
