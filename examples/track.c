/* A small host program: creates a tracker, feeds it depth maps and prints what it finds.
 *
 *   qbt_example_track DATAFILE [FRAMES.u16 WIDTH HEIGHT]
 *
 * With a raw file of concatenated 16-bit little-endian depth frames it tracks those;
 * otherwise it generates a scene: a floor seen from 1.2 m and a box that slides across. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <quorvik/body_tracking.h>

static const char* joint_names[QBT_JOINT_COUNT] = {
    "Head", "ShoulderSpine", "LeftShoulder", "LeftElbow", "LeftHand", "RightShoulder", "RightElbow", "RightHand",
    "MidSpine", "BaseSpine", "LeftHip", "LeftKnee", "LeftFoot", "RightHip", "RightKnee", "RightFoot"};

static int fail(const char* what) {
  qbt_error_info_t info;
  qbt_error_info(&info);
  fprintf(stderr, "%s failed (%u): %s\n", what, info.code, info.message);
  return 1;
}

/* Floor plane 1200 mm below the camera, a back wall at 4 m, and a box moving left to right. */
static void generate(uint16_t* depth, int width, int height, int frame) {
  const float fy = (float)height / 0.8418f; /* height / (2 tan(45.64 deg / 2)) */
  const float fx = (float)width / 1.1227f;  /* width / (2 tan(58.59 deg / 2)) */
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const float ry = ((float)y - height / 2.f) / fy; /* ray slope downward */
      float z = 4000.f;
      if (ry > 0.f && 1200.f / ry < z) z = 1200.f / ry;
      const float boxX = -1000.f + 25.f * (float)frame;
      const float wx = ((float)x - width / 2.f) / fx * 2500.f;
      const float wy = -ry * 2500.f;
      if (wx > boxX && wx < boxX + 500.f && wy > -1200.f && wy < 500.f && z > 2500.f) z = 2500.f;
      depth[y * width + x] = (uint16_t)z;
    }
  }
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s DATAFILE [FRAMES.u16 WIDTH HEIGHT]\n", argv[0]);
    return 2;
  }
  int width = 320, height = 240;
  FILE* input = NULL;
  if (argc >= 5) {
    input = fopen(argv[2], "rb");
    if (!input) {
      perror(argv[2]);
      return 2;
    }
    width = atoi(argv[3]);
    height = atoi(argv[4]);
  }

  qbt_bodytracker_options_t options;
  qbt_bodytracker_fill_default_options(&options);
  options.dataFilePath = argv[1];
  qbt_bodytracker_t tracker = NULL;
  if (qbt_bodytracker_create(&options, &tracker) != QBT_RESULT_SUCCESS) return fail("create");

  uint16_t* pixels = malloc(sizeof(uint16_t) * (size_t)width * (size_t)height);
  qbt_depthmap_t depth = {pixels, width, height};
  int status = 0;
  for (int frame = 0; frame < 90; ++frame) {
    if (input) {
      if (fread(pixels, sizeof(uint16_t), (size_t)width * (size_t)height, input) != (size_t)width * (size_t)height)
        break;
    } else {
      generate(pixels, width, height, frame);
    }
    qbt_bodyframe_t bodyFrame;
    if (qbt_bodytracker_update(tracker, &depth, &bodyFrame) != QBT_RESULT_SUCCESS) {
      status = fail("update");
      break;
    }
    qbt_bodylist_t bodies;
    bool floorDetected = false;
    qbt_plane_t plane;
    qbt_floormask_t floorMask;
    qbt_bodyframe_body_list(bodyFrame, &bodies);
    qbt_bodyframe_floor_info(bodyFrame, &floorDetected, &plane, &floorMask);
    printf("frame %3d: %u bodies, floor %s", frame, bodies.count, floorDetected ? "yes" : "no");
    if (floorDetected) printf(" (n = %.2f %.2f %.2f, d = %.0f mm)", plane.nx, plane.ny, plane.nz, plane.d);
    printf("\n");
    for (uint32_t b = 0; b < bodies.count; ++b) {
      const qbt_body_t* body = &bodies.bodies[b];
      printf("  body %u status %u\n", body->id, body->status);
      for (int j = 0; j < QBT_JOINT_COUNT; ++j) {
        const qbt_joint_t* joint = &body->joints[j];
        if (joint->status == QBT_JOINT_STATUS_NONE) continue;
        printf("    %-13s %s (%6.0f %6.0f %6.0f) mm\n", joint_names[j],
               joint->status == QBT_JOINT_STATUS_HIGH ? "high" : "low ", joint->worldPosition.x,
               joint->worldPosition.y, joint->worldPosition.z);
      }
    }
    qbt_bodyframe_release(&bodyFrame);
  }
  free(pixels);
  if (input) fclose(input);
  qbt_bodytracker_destroy(&tracker);
  return status;
}
