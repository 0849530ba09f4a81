#include <stdio.h>
#include <string.h>

#include <quorvik/body_tracking.h>

int main(void) {
  qbt_bodytracker_options_t options;
  if (qbt_bodytracker_fill_default_options(&options) != QBT_RESULT_SUCCESS) return 1;
  if (qbt_bodytracker_reset(NULL) != QBT_RESULT_INVALID_PARAMETER) return 2;
  qbt_error_info_t info;
  qbt_error_info(&info);
  if (strcmp(info.message, "qbt_bodytracker_reset(): Invalid parameter: bodyTracker") != 0) return 3;
  printf("consumer ok: %s\n", info.message);
  return 0;
}
