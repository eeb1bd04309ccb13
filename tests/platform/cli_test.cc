// SPDX-License-Identifier: Apache-2.0
// Command-line output: formatted text reaches the stream that the command line handed out.
#include "cli.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace {

TEST(CliTest, FormattedTextReachesTheStream) {
  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  ASSERT_NE(stream, nullptr);
  cli_new_printf(stream, "%s has %d%c\n", "eth0", 3, '!');
  cli_new_printf(stream, "%s", "100%");
  fclose(stream);
  EXPECT_EQ(std::string(text, size), "eth0 has 3!\n100%");
  free(text);
}

}  // namespace
