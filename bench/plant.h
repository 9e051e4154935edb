#pragma once

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "sim/simulated_drive.h"

// Kinco drives as nodes 1, 2, ..., their bus, and all that can go wrong with them. One thread.
class Plant {
 public:
  // `interface`: the host's end of the bus; `far_interface`: the drives' end.
  Plant(std::string interface, const std::string& far_interface, int nodes, unsigned seed);

  // A fault of random kind, on a drive or on the bus, that ends after a random time.
  void Break();

  const std::map<std::string, int>& faults() const { return faults_; }
  // Drives that turn at this speed.
  int Turning(int rpm);

 private:
  int Random(int low, int high) { return std::uniform_int_distribution<>(low, high)(random_); }
  void Last();
  void Misbehave(sim::SimulatedDrive& drive);
  void Disturb(const std::string& discipline);

  const std::string interface_;
  std::mt19937 random_;
  std::vector<std::unique_ptr<sim::SimulatedDrive>> drives_;
  std::map<std::string, int> faults_;
};
