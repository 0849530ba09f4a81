/* Tracks a raw recording through the C interface and writes every body frame as it comes:
 *
 *   qbt_python_frame_dump DATAFILE FRAMES.u16 WIDTH HEIGHT MIRRORED OUT
 *
 * Per frame: u32 body count, the qbt_body_t records as they are in memory, the body mask and
 * the floor mask (WIDTH*HEIGHT bytes each), one byte floor detected, the plane (four f32). */
#include <stdio.h>
#include <stdlib.h>

#include <quorvik/body_tracking.h>

static int fail(const char* what) {
  qbt_error_info_t info;
  qbt_error_info(&info);
  fprintf(stderr, "%s failed (%u): %s\n", what, info.code, info.message);
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 7) {
    fprintf(stderr, "usage: %s DATAFILE FRAMES.u16 WIDTH HEIGHT MIRRORED OUT\n", argv[0]);
    return 2;
  }
  const int width = atoi(argv[3]), height = atoi(argv[4]);
  const size_t pixels = (size_t)width * (size_t)height;
  FILE* in = fopen(argv[2], "rb");
  FILE* out = fopen(argv[6], "wb");
  uint16_t* depth = malloc(pixels * sizeof(uint16_t));
  if (in == NULL || out == NULL || depth == NULL) return 2;

  qbt_bodytracker_options_t options;
  qbt_bodytracker_fill_default_options(&options);
  options.dataFilePath = argv[1];
  qbt_bodytracker_t tracker = NULL;
  if (qbt_bodytracker_create(&options, &tracker) != QBT_RESULT_SUCCESS) return fail("create");
  if (qbt_bodytracker_set_is_depth_mirrored(tracker, atoi(argv[5]) == 1) != QBT_RESULT_SUCCESS) return fail("mirror");
  while (fread(depth, sizeof(uint16_t), pixels, in) == pixels) {
    const qbt_depthmap_t map = {depth, width, height};
    qbt_bodyframe_t frame;
    qbt_bodylist_t list;
    qbt_bodymask_t mask;
    qbt_floormask_t floorMask;
    qbt_plane_t plane;
    bool floorDetected = false;
    if (qbt_bodytracker_update(tracker, &map, &frame) != QBT_RESULT_SUCCESS) return fail("update");
    if (qbt_bodyframe_body_list(frame, &list) != QBT_RESULT_SUCCESS ||
        qbt_bodyframe_bodymask(frame, &mask) != QBT_RESULT_SUCCESS ||
        qbt_bodyframe_floor_info(frame, &floorDetected, &plane, &floorMask) != QBT_RESULT_SUCCESS)
      return fail("reading the frame");
    const uint8_t detected = floorDetected ? 1 : 0;
    fwrite(&list.count, sizeof(list.count), 1, out);
    if (list.count > 0) fwrite(list.bodies, sizeof(qbt_body_t), list.count, out);
    fwrite(mask.data, 1, pixels, out);
    fwrite(floorMask.data, 1, pixels, out);
    fwrite(&detected, 1, 1, out);
    fwrite(&plane, sizeof(plane), 1, out);
    qbt_bodyframe_release(&frame);
  }
  qbt_bodytracker_destroy(&tracker);
  free(depth);
  fclose(in);
  return fclose(out) == 0 ? 0 : 1;
}
