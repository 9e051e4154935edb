#include "sim/drive_state.h"

#include <gtest/gtest.h>

#include <vector>

namespace sim {
namespace {

constexpr std::uint16_t kSwitchOnDisabled = 0x50;
constexpr std::uint16_t kReady = 0x31;
constexpr std::uint16_t kSwitchedOn = 0x33;
constexpr std::uint16_t kEnabled = 0x37;
constexpr std::uint16_t kQuickStop = 0x17;
constexpr std::uint16_t kFaultReaction = 0x1F;
constexpr std::uint16_t kFault = 0x18;

void Control(DriveState& state, const std::vector<std::uint16_t>& controlwords) {
  for (const std::uint16_t word : controlwords) state.Control(word);
}

std::uint16_t After(const std::vector<std::uint16_t>& controlwords) {
  DriveState state;
  Control(state, controlwords);
  return state.Statusword();
}

TEST(DriveStateTest, StartsSwitchOnDisabled) { EXPECT_EQ(After({}), kSwitchOnDisabled); }

TEST(DriveStateTest, IsEnabledByShutdownSwitchOnAndEnableOperation) {
  EXPECT_EQ(After({0x06}), kReady);
  EXPECT_EQ(After({0x06, 0x07}), kSwitchedOn);
  EXPECT_EQ(After({0x06, 0x07, 0x0F}), kEnabled);
}

TEST(DriveStateTest, TakesTheShortcutFromReadyToEnabled) {
  EXPECT_EQ(After({0x06, 0x0F}), kEnabled);
}

TEST(DriveStateTest, StaysSwitchOnDisabledWithoutShutdown) {
  EXPECT_EQ(After({0x07}), kSwitchOnDisabled);
  EXPECT_EQ(After({0x0F}), kSwitchOnDisabled);
  EXPECT_EQ(After({0x80}), kSwitchOnDisabled);
  EXPECT_EQ(After({0x02}), kSwitchOnDisabled);
}

TEST(DriveStateTest, StepsBackOnEveryCommandOfTheStandard) {
  EXPECT_EQ(After({0x06, 0x07, 0x0F, 0x07}), kSwitchedOn) << "disable operation";
  EXPECT_EQ(After({0x06, 0x07, 0x0F, 0x06}), kReady) << "shutdown";
  EXPECT_EQ(After({0x06, 0x07, 0x0F, 0x00}), kSwitchOnDisabled) << "disable voltage";
  EXPECT_EQ(After({0x06, 0x07, 0x06}), kReady) << "shutdown";
  EXPECT_EQ(After({0x06, 0x07, 0x00}), kSwitchOnDisabled) << "disable voltage";
  EXPECT_EQ(After({0x06, 0x07, 0x02}), kSwitchOnDisabled) << "quick stop";
  EXPECT_EQ(After({0x06, 0x00}), kSwitchOnDisabled) << "disable voltage";
  EXPECT_EQ(After({0x06, 0x02}), kSwitchOnDisabled) << "quick stop";
}

TEST(DriveStateTest, QuickStopLastsUntilTheMotorRests) {
  DriveState state;
  Control(state, {0x06, 0x0F, 0x02});
  EXPECT_EQ(state.Statusword(), kQuickStop);
  state.Stopped();
  EXPECT_EQ(state.Statusword(), kSwitchOnDisabled);
}

TEST(DriveStateTest, QuickStopCanBeTakenBackOrTurnedIntoDisableVoltage) {
  EXPECT_EQ(After({0x06, 0x0F, 0x02, 0x0F}), kEnabled);
  EXPECT_EQ(After({0x06, 0x0F, 0x02, 0x00}), kSwitchOnDisabled);
}

TEST(DriveStateTest, RestMeansNothingElsewhere) {
  DriveState state;
  Control(state, {0x06, 0x0F});
  state.Stopped();
  EXPECT_EQ(state.Statusword(), kEnabled);
}

TEST(DriveStateTest, FaultIsReachedFromEveryStateByWayOfTheReaction) {
  for (const std::vector<std::uint16_t>& words :
       std::vector<std::vector<std::uint16_t>>{{}, {0x06}, {0x06, 0x07}, {0x06, 0x0F}}) {
    DriveState state;
    Control(state, words);
    state.Fault();
    EXPECT_EQ(state.Statusword(), kFaultReaction);
    EXPECT_TRUE(state.InFault());
    state.Control(0x80);
    EXPECT_EQ(state.Statusword(), kFaultReaction) << "cannot be reset before the motor rests";
    state.Stopped();
    EXPECT_EQ(state.Statusword(), kFault);
  }
}

TEST(DriveStateTest, FaultIsLeftByARisingEdgeOnly) {
  DriveState state;
  state.Control(0x80);
  state.Fault();
  state.Stopped();
  state.Control(0x80);
  EXPECT_EQ(state.Statusword(), kFault) << "bit 7 was set all the time";
  state.Control(0x06);
  EXPECT_EQ(state.Statusword(), kFault) << "no other command leads out";
  state.Control(0x86);
  EXPECT_EQ(state.Statusword(), kSwitchOnDisabled);
  EXPECT_FALSE(state.InFault());
}

TEST(DriveStateTest, OtherCommandsHoldOnlyWithoutTheFaultResetBit) {
  EXPECT_EQ(After({0x86}), kSwitchOnDisabled);
  EXPECT_EQ(After({0x06, 0x8F}), kReady);
}

TEST(DriveStateRulesTest, EnableOperationMayNeedNoShutdown) {
  StateRules rules;
  rules.enable_needs_shutdown = false;
  DriveState state(rules);
  state.Control(0x0F);
  EXPECT_EQ(state.Statusword(), kEnabled);
}

TEST(DriveStateRulesTest, TheControlwordMayNotResetFaults) {
  StateRules rules;
  rules.controlword_resets_faults = false;
  DriveState state(rules);
  state.Fault();
  state.ResetFault();
  EXPECT_EQ(state.Statusword(), kFaultReaction) << "the motor still turns";
  state.Stopped();
  state.Control(0x80);
  EXPECT_EQ(state.Statusword(), kFault);
  state.ResetFault();
  EXPECT_EQ(state.Statusword(), kSwitchOnDisabled);
}

TEST(DriveStateRulesTest, AFaultResetMayShutDownInOne) {
  StateRules rules;
  rules.fault_reset_shuts_down = true;
  for (const bool pressed : {false, true}) {
    for (const std::uint16_t word : {std::uint16_t{0x80}, std::uint16_t{0x86}}) {
      DriveState state(rules);
      state.Fault();
      state.Stopped();
      if (pressed) state.PressEmergencyStop();
      state.Control(word);
      EXPECT_EQ(state.Statusword(), word == 0x86 && !pressed ? kReady : kSwitchOnDisabled);
    }
  }
}

TEST(EmergencyStopTest, DisablesAndTakesNoCommandWhilePressed) {
  DriveState state;
  Control(state, {0x06, 0x0F});
  state.PressEmergencyStop();
  EXPECT_EQ(state.Statusword(), kSwitchOnDisabled);
  Control(state, {0x00, 0x06, 0x07, 0x0F});
  EXPECT_EQ(state.Statusword(), kSwitchOnDisabled);
  EXPECT_TRUE(state.emergency_pressed());
}

TEST(EmergencyStopTest, WaitsForDisableVoltageAfterTheRelease) {
  DriveState state;
  state.PressEmergencyStop();
  state.ReleaseEmergencyStop();
  EXPECT_FALSE(state.emergency_pressed());
  EXPECT_TRUE(state.InEmergency());
  Control(state, {0x06, 0x0F});
  EXPECT_EQ(state.Statusword(), kSwitchOnDisabled);
  state.Control(0x00);
  EXPECT_FALSE(state.InEmergency());
  EXPECT_EQ(state.Statusword(), kSwitchOnDisabled);
  Control(state, {0x06, 0x0F});
  EXPECT_EQ(state.Statusword(), kEnabled);
}

TEST(EmergencyStopTest, AReleaseWithoutAPressMeansNothing) {
  DriveState state;
  state.ReleaseEmergencyStop();
  Control(state, {0x06, 0x0F});
  EXPECT_EQ(state.Statusword(), kEnabled);
}

TEST(EmergencyStopTest, DoesNotHideAFault) {
  DriveState state;
  state.Fault();
  state.Stopped();
  state.PressEmergencyStop();
  EXPECT_EQ(state.Statusword(), kFault);
  state.Control(0x80);
  EXPECT_EQ(state.Statusword(), kSwitchOnDisabled);
}

}  // namespace
}  // namespace sim
