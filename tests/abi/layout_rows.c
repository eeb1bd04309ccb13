// SPDX-License-Identifier: Apache-2.0
#include "layout_rows.h"

#include "ip_api.h"

const struct layout_row *c_layout_rows(size_t *count) {
  static const struct layout_row rows[] = {LAYOUT_ROWS};
  *count = sizeof rows / sizeof rows[0];
  return rows;
}
