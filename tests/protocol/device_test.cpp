// The device as a control point sees it: description, fixed files, the
// ConnectionManager and registrar actions, faults and the life cycle.
#include <gtest/gtest.h>

#include "dms_test.h"

using namespace dmstest;

namespace {

class DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "Music/a.mp3");
    ASSERT_TRUE(server_.start({folder_.path()}, "Den & Co"));
  }
  TempDir folder_;
  RunningServer server_;
};

TEST_F(DeviceTest, DescriptionNamesTheDeviceAndItsServices) {
  HttpResponse description = httpGet(server_.port(), "/description.xml");
  ASSERT_EQ(description.status, 200);
  EXPECT_EQ(elementText(description.body, "friendlyName"), "Den & Co: DMS");
}

}  // namespace
