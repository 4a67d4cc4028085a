/* Unit tests share one agent instance, made before the first test runs (and
 * not when the tests are only listed). */
#include <gtest/gtest.h>

#include "vx_test_support.h"

namespace {

class AgentEnvironment : public testing::Environment {
public:
    void SetUp() override { vx_test::agent(); }
};

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new AgentEnvironment);
    return RUN_ALL_TESTS();
}
