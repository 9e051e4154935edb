// GetSpeed of every drive class: whatever is queued, one call takes one frame, the position reports
// of the make give their node, counts and speed, and every other frame gives none.
#include <fake_driver.h>

#include <cmath>
#include <map>
#include <memory>
#include <vector>

#include "bus.h"
#include "input.h"
#include "tests/driver/makes.h"

namespace {

// Above the numbers of the makes, however many there are.
constexpr std::uint8_t kFake = 0xFF;

struct Reading {
  bool answer = false;
  std::uint8_t node = 0xAA;
  double rpm[2] = {0.5, 0.5};
  int counts[2] = {-7, -7};
};

// The period is the drive's own knowledge; a set-up that would tell it takes seconds.
struct Open : DriverCommon {
  static void SetPeriod(DriverCommon& drive, std::uint16_t period_ms) {
    drive.*(&Open::pdo_period_) = period_ms;
  }
};

class Subject {
 public:
  explicit Subject(const tested::Make& make)
      : make_(make), drive_(make.create(fuzz::kDevice)), far_end_(*drive_) {}
  void Run(std::uint16_t period_ms, const std::vector<CanFrame>& frames);

 private:
  Reading Read();
  void Check(const CanFrame& frame, const Reading& reading, std::uint16_t period_ms);

  const tested::Make& make_;
  const std::unique_ptr<DriverCommon> drive_;
  fuzz::FarEnd far_end_;
  std::map<std::uint32_t, std::uint32_t> previous_;  // by identifier, motor in bit 31
};

Reading Subject::Read() {
  Reading reading;
  reading.answer = make_.motors == 2
                       ? drive_->GetSpeed(reading.node, reading.rpm[0], reading.counts[0],
                                          reading.rpm[1], reading.counts[1])
                       : drive_->GetSpeed(reading.node, reading.rpm[0], reading.counts[0]);
  return reading;
}

void Subject::Check(const CanFrame& frame, const Reading& reading, std::uint16_t period_ms) {
  const bool report =
      frame.can_id >= make_.reports.first_id && frame.can_id <= make_.reports.last_id;
  fuzz::Require(reading.answer == (report || make_.reports.true_for_others), "answer");
  if (!report) {
    return;
  }
  fuzz::Require(make_.motors == 2 || reading.node == frame.can_id - 0x180, "node");
  for (std::size_t motor = 0; motor < make_.motors; ++motor) {
    const std::uint32_t position = fuzz::Load(frame.data + make_.reports.offset + 4 * motor, 4);
    fuzz::Require(static_cast<std::uint32_t>(reading.counts[motor]) == position, "counts");
    std::uint32_t& previous = previous_[frame.can_id | static_cast<std::uint32_t>(motor) << 31];
    const auto distance = static_cast<std::int32_t>(position - previous);
    previous = position;
    if (period_ms != 0) {
      const double rpm =
          make_.sign * distance * 60000.0 / (make_.reports.counts_per_revolution * period_ms);
      fuzz::Require(std::abs(reading.rpm[motor] - rpm) <= 1e-9 * std::abs(rpm), "speed");
    }
  }
}

void Subject::Run(std::uint16_t period_ms, const std::vector<CanFrame>& frames) {
  Open::SetPeriod(*drive_, period_ms);
  for (const CanFrame& frame : frames) {
    far_end_.Send(frame);
  }
  far_end_.Flush();
  // Those of other numbers of motors take nothing.
  Reading other;
  double rpm[4] = {};
  int counts[4] = {};
  drive_->GetSpeed(other.node, rpm[0], counts[0], rpm[1], counts[1], rpm[2], counts[2], rpm[3],
                   counts[3]);
  if (make_.motors == 2) {
    drive_->GetSpeed(other.node, rpm[0], counts[0]);
  } else {
    drive_->GetSpeed(other.node, rpm[0], counts[0], rpm[1], counts[1]);
  }
  for (std::size_t i = 0; i < frames.size(); ++i) {
    fuzz::Require(drive_->GetReadQueueSize() == frames.size() - i, "frames queued");
    Check(frames[i], Read(), period_ms);
  }
  fuzz::Require(drive_->GetReadQueueSize() == 0 && !Read().answer, "an empty queue");
}

std::vector<std::unique_ptr<Subject>> MakeSubjects() {
  std::vector<std::unique_ptr<Subject>> subjects;
  for (const tested::Make& make : tested::Makes()) {
    subjects.push_back(std::make_unique<Subject>(make));
  }
  return subjects;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const std::vector<std::unique_ptr<Subject>> subjects = MakeSubjects();
  static FakeDriver fake("absent");

  fuzz::Input input(bytes, size);
  const std::uint8_t subject = input.Byte();
  const auto period_ms = static_cast<std::uint16_t>(input.Number(2));
  if (subject != kFake) {
    subjects[subject % subjects.size()]->Run(period_ms, input.Frames());
    return 0;
  }
  std::uint8_t node = input.Byte();
  const std::uint8_t before = node;
  double rpm[4] = {};
  int counts[4] = {};
  fuzz::Require(fake.GetSpeed(node, rpm[0], counts[0]) && node == before % 4 + 1, "one motor");
  fuzz::Require(fake.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]), "two motors");
  fuzz::Require(fake.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1], rpm[2], counts[2], rpm[3],
                              counts[3]) &&
                    node == 1 && rpm[3] == 400 && counts[3] == 4000,
                "four motors");
  return 0;
}
