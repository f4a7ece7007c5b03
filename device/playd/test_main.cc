#include <gst/gst.h>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  gst_init(nullptr, nullptr);
  testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  gst_deinit();
  return status;
}
