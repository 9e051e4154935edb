// The other end of the bus, in a process of its own so that its work is not measured.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

struct Traffic {
  std::uint32_t can_id;             // of the first node
  std::uint32_t nodes;              // identifiers taken in turn, one above the other
  std::uint32_t count;              // frames
  std::uint32_t burst;              // frames sent back to back
  std::uint32_t frames_per_second;  // on average; 0: as fast as it goes
};

struct Sent {
  std::uint32_t count;
  double seconds;
};

class FarEnd {
 public:
  // Forks: no other thread may run yet. Throws std::system_error when `interface` cannot be opened.
  explicit FarEnd(const std::string& interface);
  ~FarEnd();
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;

  // Starts to send frames of 8 bytes that carry the time they were sent, see SecondsSince().
  void Start(const Traffic& traffic);
  // Starts to answer `count` SDO reads of node 1; returns when it listens.
  void StartAnswering(std::uint32_t count);
  // Whether what was started has ended.
  bool Done();
  // Waits for that; frames sent, or requests answered.
  Sent Finish();

 private:
  int control_ = -1;
  pid_t process_ = -1;
};

// Since the frame with these 8 bytes was sent.
double SecondsSince(const std::uint8_t* stamp);
