// main() of this library's tests, which also run as child processes of themselves.
#include <gtest/gtest.h>

#include "platform/klrpc/testing/servers.h"

int main(int argc, char** argv) {
  if (const int status = klrpc::testing::RunChild(argc, argv); status >= 0) return status;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
