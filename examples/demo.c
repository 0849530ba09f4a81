/* A minimal host: fills the default options and shows how a refused call is reported. */
#include <stdio.h>

#include <quorvik/body_tracking.h>

int main(void) {
  qbt_bodytracker_options_t options;
  qbt_bodytracker_fill_default_options(&options);
  printf("default options: fov %.2f x %.2f degrees, depth range %u..%u mm\n", options.horizontalFov,
         options.verticalFov, options.minDepth, options.maxDepth);

  qbt_bodyframe_t frame;
  qbt_result_t code = qbt_bodytracker_update(NULL, NULL, &frame);
  qbt_error_info_t info;
  qbt_error_info(&info);
  printf("update without a tracker returned %u: %s\n", code, info.message);
  printf("frame handle valid after the refusal: %s\n", qbt_bodyframe_is_valid(frame) ? "yes" : "no");
  return code == QBT_RESULT_INVALID_PARAMETER ? 0 : 1;
}
