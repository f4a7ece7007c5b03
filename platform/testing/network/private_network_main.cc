// main() of test programs that use the daemons' fixed addresses.
#include <gmock/gmock.h>

#include "platform/testing/network/private_network.h"

int main(int argc, char* argv[]) {
  testing::InitGoogleMock(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) vextest::EnterPrivateNetwork();
  return RUN_ALL_TESTS();
}
