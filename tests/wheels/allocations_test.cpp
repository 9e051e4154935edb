// What a control loop calls in every cycle takes no memory: counted where memory is taken.
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "fault_test.h"
#include "two_wheels.h"

namespace {

thread_local std::size_t allocations = 0;

void* Allocate(std::size_t size) {
  ++allocations;
  void* const memory = std::malloc(size > 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using motor_driver::State;
using motor_driver::Wheels;

class AllocationsTest : public FaultTest, public ::testing::WithParamInterface<tested::Make> {};

TEST_P(AllocationsTest, CommandAndGetWheelTakeNoMemory) {
  const two_wheels::Drives drives(GetParam());
  Wheels wheels(two_wheels::VehicleOf(GetParam()));
  const double rpm[] = {20, 20};
  const auto count = [&] {
    const std::size_t before = allocations;
    wheels.Command(rpm, 2);
    wheels.Command(rpm, 1);
    wheels.Command(nullptr, 2);
    wheels.GetWheel(0);
    wheels.GetWheel(1);
    return allocations - before;
  };
  EXPECT_EQ(count(), 0U) << "off";
  ASSERT_TRUE(BroughtUp(wheels));
  EXPECT_EQ(count(), 0U) << "ready";
  ASSERT_TRUE(Eventually([&] {
    EXPECT_EQ(count(), 0U);
    return wheels.GetReport().state == State::kRunning;
  }));
  EXPECT_EQ(count(), 0U) << "running";

  const std::size_t before = allocations;
  delete new int;
  EXPECT_EQ(allocations, before + 1) << "what is counted is what is taken";
}

INSTANTIATE_TEST_SUITE_P(EveryMake, AllocationsTest, ::testing::ValuesIn(tested::Makes()),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
