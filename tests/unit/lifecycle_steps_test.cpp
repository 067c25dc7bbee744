// The runner of the lifecycle table: the order of the steps, which failure
// fails a phase, and which steps run after a failure.
#include "platform/nt.h"

#include "frame/subsystems.h"
#include "support/machine.h"

#include <string>

using namespace texprt_test;

namespace {

std::string ran;

template <char Name, NTSTATUS Result>
NTSTATUS Step() {
    ran += Name;
    return Result;
}

constexpr NTSTATUS Fail1 = STATUS_INSUFFICIENT_RESOURCES;
constexpr NTSTATUS Fail2 = STATUS_INVALID_PARAMETER;

class LifecycleStepsTest : public MachineTest {
protected:
    void SetUp() override {
        MachineTest::SetUp();
        ran.clear();
    }
    template <size_t N>
    static NTSTATUS Run(const LifecycleStep (&steps)[N]) {
        return RunLifecycleSteps(LifecycleSteps{steps, N});
    }
};

TEST_F(LifecycleStepsTest, StepsRunInTheirOrderAndASuccessfulPhaseSucceeds) {
    const LifecycleStep steps[] = {{"a", Step<'a', STATUS_SUCCESS>, TRUE, FALSE},
                                   {"b", Step<'b', STATUS_SUCCESS>, TRUE, FALSE},
                                   {"c", Step<'c', STATUS_SUCCESS>, FALSE, TRUE}};
    EXPECT_EQ(Run(steps), STATUS_SUCCESS);
    EXPECT_EQ(ran, "abc");
}

TEST_F(LifecycleStepsTest, AFailureThatDoesNotFailThePhaseIsOnlyTraced) {
    const LifecycleStep steps[] = {{"a", Step<'a', Fail1>, FALSE, FALSE}, {"b", Step<'b', STATUS_SUCCESS>, TRUE, FALSE}};
    EXPECT_EQ(Run(steps), STATUS_SUCCESS);
    EXPECT_EQ(ran, "ab");
}

TEST_F(LifecycleStepsTest, TheFirstFailureFailsThePhaseAndOnlyStepsThatRunAfterAFailureGoOn) {
    const LifecycleStep steps[] = {{"a", Step<'a', STATUS_SUCCESS>, TRUE, FALSE},
                                   {"b", Step<'b', Fail1>, TRUE, FALSE},
                                   {"c", Step<'c', STATUS_SUCCESS>, TRUE, FALSE},
                                   {"d", Step<'d', Fail2>, TRUE, TRUE},
                                   {"e", Step<'e', STATUS_SUCCESS>, FALSE, TRUE}};
    EXPECT_EQ(Run(steps), Fail1);
    EXPECT_EQ(ran, "abde");
}

TEST_F(LifecycleStepsTest, AnEmptyTableSucceeds) {
    EXPECT_EQ(RunLifecycleSteps(LifecycleSteps{nullptr, 0}), STATUS_SUCCESS);
    EXPECT_EQ(ran, "");
}

}  // namespace
