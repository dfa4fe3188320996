#include <gmock/gmock.h>

#include "support/sandbox.h"

namespace {

// Every test must leave the process with the descriptors it found.
class DescriptorLeakCheck : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override {
    m_before = qel_test::OpenDescriptors();
  }
  void OnTestEnd(const testing::TestInfo&) override {
    EXPECT_EQ(m_before, qel_test::OpenDescriptors())
        << "the test leaked or closed a descriptor";
  }
  std::string m_before;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new DescriptorLeakCheck);
  return RUN_ALL_TESTS();
}
