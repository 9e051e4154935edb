// A case that makes its vehicle in its body: nothing of it is left afterwards.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "fault_test.h"
#include "simulated_vehicle.h"

using WheelsTest = FaultTest;

class EveryMakeTest : public WheelsTest, public ::testing::WithParamInterface<wire::DriveMake> {};

template <typename Param>
std::string NameOfMake(const ::testing::TestParamInfo<Param>& test) {
  return test.param.name;
}

inline const wire::DriveMake& MakeByName(const std::string& name) {
  for (const wire::DriveMake& make : wire::DriveMakes()) {
    if (make.name == name) {
      return make;
    }
  }
  throw std::invalid_argument("no make " + name);
}
