// GetSpeed of every drive class: whatever is queued, one call takes one frame, the position reports
// of the make give their node, counts and speed, and every other frame gives none.
#include <amps_driver.h>
#include <fake_driver.h>
#include <hls_driver.h>
#include <kinco_driver.h>
#include <tt_driver.h>
#include <zl_driver.h>

#include <cmath>
#include <map>
#include <memory>
#include <vector>

#include "bus.h"
#include "input.h"

namespace {

constexpr unsigned long kKincoCounts = 10000;

// What the position reports of a make look like.
struct Make {
  std::uint32_t first_id;
  std::uint32_t last_id;
  std::size_t motors;
  std::size_t offset;  // of the first position
  double counts_per_revolution;
  double sign;
  bool true_for_others;  // the answer to a frame that is no position report
};

struct Reading {
  bool answer = false;
  std::uint8_t node = 0xAA;
  double rpm[2] = {0.5, 0.5};
  int counts[2] = {-7, -7};
};

class Subject {
 public:
  explicit Subject(const Make& make) : make_(make) {}
  virtual ~Subject() = default;
  void Run(std::uint16_t period_ms, const std::vector<CanFrame>& frames);

 protected:
  virtual DriverCommon& drive() = 0;
  virtual fuzz::FarEnd& far_end() = 0;
  virtual void SetPeriod(std::uint16_t period_ms) = 0;

 private:
  Reading Read();
  void Check(const CanFrame& frame, const Reading& reading, std::uint16_t period_ms);

  const Make make_;
  std::map<std::uint32_t, std::uint32_t> previous_;  // by identifier, motor in bit 31
};

template <typename Drive>
class SubjectOf : public Subject {
 public:
  template <typename... Arguments>
  explicit SubjectOf(const Make& make, Arguments... arguments)
      : Subject(make), drive_(arguments...), far_end_(drive_) {}

 private:
  struct Open : Drive {
    using Drive::Drive;
    void set_period(std::uint16_t period_ms) { this->pdo_period_ = period_ms; }
  };

  DriverCommon& drive() override { return drive_; }
  fuzz::FarEnd& far_end() override { return far_end_; }
  void SetPeriod(std::uint16_t period_ms) override { drive_.set_period(period_ms); }

  Open drive_;
  fuzz::FarEnd far_end_;
};

Reading Subject::Read() {
  Reading reading;
  reading.answer = make_.motors == 2
                       ? drive().GetSpeed(reading.node, reading.rpm[0], reading.counts[0],
                                          reading.rpm[1], reading.counts[1])
                       : drive().GetSpeed(reading.node, reading.rpm[0], reading.counts[0]);
  return reading;
}

void Subject::Check(const CanFrame& frame, const Reading& reading, std::uint16_t period_ms) {
  const bool report = frame.can_id >= make_.first_id && frame.can_id <= make_.last_id;
  fuzz::Require(reading.answer == (report || make_.true_for_others), "answer");
  if (!report) {
    return;
  }
  fuzz::Require(make_.motors == 2 || reading.node == frame.can_id - 0x180, "node");
  for (std::size_t motor = 0; motor < make_.motors; ++motor) {
    const std::uint32_t position = fuzz::Load(frame.data + make_.offset + 4 * motor, 4);
    fuzz::Require(static_cast<std::uint32_t>(reading.counts[motor]) == position, "counts");
    std::uint32_t& previous = previous_[frame.can_id | static_cast<std::uint32_t>(motor) << 31];
    const auto distance = static_cast<std::int32_t>(position - previous);
    previous = position;
    if (period_ms != 0) {
      const double rpm =
          make_.sign * distance * 60000.0 / (make_.counts_per_revolution * period_ms);
      fuzz::Require(std::abs(reading.rpm[motor] - rpm) <= 1e-9 * std::abs(rpm), "speed");
    }
  }
}

void Subject::Run(std::uint16_t period_ms, const std::vector<CanFrame>& frames) {
  SetPeriod(period_ms);
  for (const CanFrame& frame : frames) {
    far_end().Send(frame);
  }
  far_end().Flush();
  // Those of other numbers of motors take nothing.
  Reading other;
  double rpm[4] = {};
  int counts[4] = {};
  drive().GetSpeed(other.node, rpm[0], counts[0], rpm[1], counts[1], rpm[2], counts[2], rpm[3],
                   counts[3]);
  if (make_.motors == 2) {
    drive().GetSpeed(other.node, rpm[0], counts[0]);
  } else {
    drive().GetSpeed(other.node, rpm[0], counts[0], rpm[1], counts[1]);
  }
  for (std::size_t i = 0; i < frames.size(); ++i) {
    fuzz::Require(drive().GetReadQueueSize() == frames.size() - i, "frames queued");
    Check(frames[i], Read(), period_ms);
  }
  fuzz::Require(drive().GetReadQueueSize() == 0 && !Read().answer, "an empty queue");
}

std::vector<std::unique_ptr<Subject>> MakeSubjects() {
  std::vector<std::unique_ptr<Subject>> subjects;
  subjects.push_back(std::make_unique<SubjectOf<ZlDriver>>(Make{0x181, 0x181, 2, 0, 4096, 1, false},
                                                           fuzz::kDevice));
  subjects.push_back(std::make_unique<SubjectOf<TtDriver>>(Make{0x181, 0x182, 1, 0, 32768, 1, true},
                                                           fuzz::kDevice));
  subjects.push_back(std::make_unique<SubjectOf<HlsDriver>>(
      Make{0x180, 0x181, 1, 0, 131072, -1, true}, fuzz::kDevice));
  subjects.push_back(std::make_unique<SubjectOf<AMPSDriver>>(
      Make{0x181, 0x182, 1, 4, 4096, 1, true}, fuzz::kDevice));
  subjects.push_back(std::make_unique<SubjectOf<KincoDriver>>(
      Make{0x181, 0x184, 1, 0, kKincoCounts, 1, false}, fuzz::kDevice, kKincoCounts));
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
  const std::size_t subject = input.Byte() % (subjects.size() + 1);
  const auto period_ms = static_cast<std::uint16_t>(input.Number(2));
  if (subject < subjects.size()) {
    subjects[subject]->Run(period_ms, input.Frames());
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
