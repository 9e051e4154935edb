#include "described_makes.h"

#include <climits>
#include <cmath>
#include <stdexcept>

namespace tested {
namespace {

// A make of one's own that replaces two parts of the set-up, and notes their calls.
template <typename Drive>
class OwnParts : public Drive {
 public:
  template <typename... Arguments>
  explicit OwnParts(Texts& calls, Arguments... arguments)
      : Drive("can0", arguments...), calls_(calls) {}
  std::uint16_t SetSpeedMode(std::uint8_t node) override {
    calls_.push_back("mode of node " + std::to_string(node));
    return 100;
  }
  bool SetHeartbeatPacket(std::uint8_t node, std::uint16_t period_ms) override {
    calls_.push_back("heartbeat of node " + std::to_string(node) + " every " +
                     std::to_string(period_ms));
    return false;
  }

 private:
  Texts& calls_;
};

// Calls through the type that a host holds: an overload of it hides those of the base.
template <typename Drive>
void ExpectDefaults(DriverCommon& common, const DescribedMake& described) {
  auto& drive = dynamic_cast<Drive&>(common);
  std::uint8_t node = 0;
  double rpm[4] = {};
  int counts[4] = {};
  if (described.make.motors != 1) {
    EXPECT_FALSE(drive.SetSpeed(1, 100));
    EXPECT_FALSE(drive.GetSpeed(node, rpm[0], counts[0]));
  }
  if (described.make.motors != 2) {
    EXPECT_FALSE(drive.SetSpeed(1, 100, 200));
    EXPECT_FALSE(drive.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]));
  }
  EXPECT_FALSE(drive.SetSpeed(1, 100, 200, 300, 400));
  EXPECT_FALSE(drive.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1], rpm[2], counts[2], rpm[3],
                              counts[3]));
  if (described.own_init != OwnInit::kOfOneNode) {
    EXPECT_TRUE(drive.Init(1, 10));
  }
  if (described.own_init != OwnInit::kOfTwoNodes) {
    EXPECT_TRUE(drive.Init(1, 2, 10));
  }
  if (!described.clears_errors) {
    EXPECT_FALSE(drive.ClearDriverError(1));
    EXPECT_FALSE(drive.CheckReportPeriod(1));
  }
  EXPECT_EQ(drive.GetErrorCode(1).msg, "unknown");
  EXPECT_EQ(drive.GetDriverStatus(1), DriverStatus::Unknown);
}

// What follows from the class; `arguments`: of its constructor, after the interface.
template <typename Drive, typename... Arguments>
DescribedMake Describe(const std::string& name, Arguments... arguments) {
  for (const Make& make : Makes()) {
    if (make.name == name) {
      DescribedMake described;
      described.make = make;
      described.expect_defaults = ExpectDefaults<Drive>;
      described.create_with_own_parts = [arguments...](Texts& calls) {
        return std::make_unique<OwnParts<Drive>>(calls, arguments...);
      };
      return described;
    }
  }
  throw std::invalid_argument("no make " + name);
}

// Of a drive with one motor in a node.
Reading Read(const std::string& report, int node, double rpm, int counts) {
  return {report, node, {rpm, 0}, {counts, 0}};
}

// Of one with two, whose node is never told.
Reading Read2(const std::string& report, double rpm1, int counts1, double rpm2, int counts2) {
  return {report, 99, {rpm1, rpm2}, {counts1, counts2}};
}

constexpr auto kHeartbeatCalled = "heartbeat of node 1 every 2000";
constexpr auto kModeCalled = "mode of node 1";

DescribedMake Zl() {
  DescribedMake zl = Describe<ZlDriver>("zl");
  zl.confirmed_writes = 8 + 9 + 24;
  zl.speed_mode = zl_script::kSpeedMode;
  zl.varying = zl_script::kVarying;
  zl.variants = zl_script::kVariants;
  zl.leaves_an_answer = true;
  zl.refused_beside_own_parts = 0;
  zl.own_parts_called = {kModeCalled, kHeartbeatCalled};
  zl.status_from = StatusFrom::kReports;
  zl.saving = {"#2B10200001000000", "#6010200000000000", "#8010200020000008", "0x2010, sub: 0x00"};
  zl.speeds = {{1, {1000, -1000}, "201#E803000018FCFFFF"},
               {2, {0, 0}, "202#0000000000000000"},
               {127, {INT_MAX, INT_MIN}, "27F#FFFFFF7F00000080"},
               {1, {-1, 0x12345678}, "201#FFFFFFFF78563412"},
               {255, {1, 2}, "2FF#0100000002000000"}};
  zl.turning = {{"181#0000000000000000"},
                {Read2("181#0010000000F0FFFF", 6000.0, 4096, -6000.0, -4096),
                 Read2("181#0010000000F0FFFF", 0.0, 4096, 0.0, -4096),
                 Read2("181#0110000001F0FFFF", 1.46484375, 4097, 1.46484375, -4095)}};
  zl.wrap_around = {
      {"181#F0FFFFFF10000000"},
      {// +32 and -32 counts
       Read2("181#10000000F0FFFFFF", 46.875, 16, -46.875, -16),
       Read2("181#FFFFFF7F00000080", (INT_MAX - 16) * (1.0 / 4096) / 10 * 60.0 * 1000.0, INT_MAX,
             (INT_MIN + 16.0) * (1.0 / 4096) / 10 * 60.0 * 1000.0, INT_MIN),
       Read2("181#00000080FFFFFF7F", 1.46484375, INT_MIN, -1.46484375, INT_MAX)}};
  zl.short_frames = {
      {"181#0000000000000000"},
      {Read2("181#0010", 6000.0, 4096, 0.0, 0),
       Read2("181#000000000020", -6000.0, 0, 12000.0, 8192), Read2("181#", 0.0, 0, -12000.0, 0)}};
  const double fast = 1'000'003 * (1.0 / 4096) / 7 * 60.0 * 1000.0;
  zl.periods = {
      {7, "181#0000000000000000",
       Read2("181#43420F00BDBDF0FF", fast, 1'000'003, -fast, -1'000'003)},
      {40000, "181#0000000000000000", Read2("181#0010000000000000", 1.5, 4096, 0.0, 0)},
      {0, "181#0000000000000000", Read2("181#01000000FFFFFFFF", HUGE_VAL, 1, -HUGE_VAL, -1)}};
  zl.foreign_ids = {"182", "281", "00000181"};
  zl.after_nothing = Values::kKept;
  return zl;
}

DescribedMake Tt() {
  DescribedMake tt = Describe<TtDriver>("tt");
  tt.confirmed_writes = 5 + 16;
  tt.speed_mode = tt_script::kSpeedMode;
  tt.varying = tt_script::kVarying;
  tt.variants = tt_script::kVariants;
  tt.refused_beside_own_parts = 0;
  tt.own_parts_called = {kHeartbeatCalled, kModeCalled};
  tt.status_from = StatusFrom::kReports;
  tt.hears_all_after_status = false;
  tt.saving = {"#2310100173617665", "#6010100100000000", "#8010100120000008", "0x1010, sub: 0x01"};
  tt.speeds = {{1, {1000}, "201#E8030000"},         {2, {-1000}, "202#18FCFFFF"},
               {127, {INT_MAX}, "27F#FFFFFF7F"},    {1, {INT_MIN}, "201#00000080"},
               {255, {0x12345678}, "2FF#78563412"}, {1, {0}, "201#00000000"}};
  // Bytes behind the position are none of its business.
  tt.turning = {
      {"181#00000000", "182#00000000"},
      {Read("181#00800000FFFFFFFF", 1, 6000.0, 32768), Read("182#0080FFFF", 2, -6000.0, -32768),
       Read("181#00800000", 1, 0.0, 32768), Read("182#0180FFFF", 2, 0.18310546875, -32767),
       Read("181#00000100", 1, 6000.0, 65536)}};
  tt.wrap_around = {
      {"181#F0FFFFFF", "182#FFFFFF7F"},
      {Read("181#10000000", 1, 5.859375, 16), Read("182#00000080", 2, 0.18310546875, INT_MIN)}};
  tt.short_frames = {{"181#00000000"},
                     {Read("181#0080", 1, 6000.0, 32768), Read("181#", 1, -6000.0, 0)}};
  tt.periods = {{7, "182#00000000",
                 Read("182#43420F00", 2, 1'000'003 * (1.0 / 32768) / 7 * 60.0 * 1000.0, 1'000'003)},
                {0, "182#43420F00", Read("182#42420F00", 2, -HUGE_VAL, 1'000'002)}};
  tt.foreign_ids = {"183", "180", "281", "00000181"};
  return tt;
}

DescribedMake Hls() {
  DescribedMake hls = Describe<HlsDriver>("hls");
  hls.confirmed_writes = 6 + 16;
  hls.speed_mode = hls_script::kSpeedMode;
  hls.varying = hls_script::kVarying;
  hls.variants = hls_script::kVariants;
  hls.leaves_an_answer = true;
  hls.refused_beside_own_parts = 15;
  hls.own_parts_called = {kModeCalled, kHeartbeatCalled};
  hls.own_init = OwnInit::kOfTwoNodes;
  hls.is_reset_and_started = false;
  hls.status_from = StatusFrom::kStatusword;
  hls.speeds = {{1, {100}, "201#18FCFFFF"},     {2, {-100}, "202#E8030000"},
                {127, {0}, "27F#00000000"},     {1, {INT_MAX}, "201#0A000000"},
                {1, {INT_MIN}, "201#00000000"}, {255, {0x12345678}, "2FF#509FF449"}};
  hls.turning = {
      {"180#00000000", "181#00000000"},
      {Read("180#00000200FFFFFFFF", 0, -6000.0, 131072), Read("181#0000FEFF", 1, 6000.0, -131072),
       Read("180#00000200", 0, 0.0, 131072), Read("181#0100FEFF", 1, -0.0457763671875, -131071),
       Read("180#00000400", 0, -6000.0, 262144)}};
  hls.wrap_around = {{"180#F0FFFFFF", "181#FFFFFF7F"},
                     {Read("180#10000000", 0, -1.46484375, 16),
                      Read("181#00000080", 1, -0.0457763671875, INT_MIN)}};
  hls.short_frames = {{"180#00000000"},
                      {Read("180#000002", 0, -6000.0, 131072), Read("180#", 0, 6000.0, 0)}};
  // The whole period, although one byte of it is sent.
  hls.periods = {
      {300, "181#00000000",
       Read("181#43420F00", 1, -(1'000'003 * (1.0 / 131072) / 300 * 60.0 * 1000.0), 1'000'003)},
      {0, "181#43420F00", Read("181#42420F00", 1, HUGE_VAL, 1'000'002)}};
  hls.foreign_ids = {"185", "182", "281", "00000181"};
  hls.after_foreign = Values::kSignTurned;
  return hls;
}

DescribedMake Amps() {
  DescribedMake amps = Describe<AMPSDriver>("amps");
  amps.confirmed_writes = 2 + 2;
  amps.speed_mode = amps_script::kSpeedMode;
  amps.varying = amps_script::kVarying;
  amps.variants = amps_script::kVariants;
  amps.refused_beside_own_parts = 1;
  amps.own_parts_called = {kModeCalled};
  amps.own_init = OwnInit::kOfTwoNodes;
  amps.speeds = {{1, {70000}, "601#2BF02F0970110100"},
                 {2, {-60}, "602#2BF02F09C4FFFFFF"},
                 {127, {0}, "67F#2BF02F0900000000"},
                 {1, {INT_MAX}, "601#2BF02F09FFFFFF7F"},
                 {255, {INT_MIN}, "6FF#2BF02F0900000080"}};
  amps.knows_what_was_sent = false;
  amps.turning = {
      {"181#0000000000000000", "182#0000000000000000"},
      {Read("181#3700000000100000", 1, 6000.0, 4096),
       Read("182#3700000000F0FFFF", 2, -6000.0, -4096), Read("181#FFFFFFFF00100000", 1, 0.0, 4096),
       Read("182#0000000001F0FFFF", 2, 1.46484375, -4095),
       Read("181#0000000000200000", 1, 6000.0, 8192)}};
  amps.wrap_around = {{"181#00000000F0FFFFFF", "182#00000000FFFFFF7F"},
                      {Read("181#0000000010000000", 1, 46.875, 16),
                       Read("182#0000000000000080", 2, 1.46484375, INT_MIN)}};
  amps.short_frames = {
      {"181#0000000000000000"},
      {Read("181#FFFFFFFF0010", 1, 6000.0, 4096), Read("181#0000", 1, -6000.0, 0)}};
  amps.periods = {
      {7, "182#0000000000000000",
       Read("182#0000000043420F00", 2, 1'000'003 * (1.0 / 4096) / 7 * 60.0 * 1000.0, 1'000'003)},
      {0, "182#0000000043420F00", Read("182#0000000042420F00", 2, -HUGE_VAL, 1'000'002)}};
  amps.foreign_ids = {"183", "180", "281", "00000181"};
  return amps;
}

DescribedMake Kinco() {
  DescribedMake kinco = Describe<KincoDriver>("kinco", 10000UL);
  kinco.confirmed_writes = 4 + 20;
  kinco.speed_mode = kinco_script::kSpeedMode;
  kinco.varying = kinco_script::kVarying;
  kinco.variants = kinco_script::kVariants;
  kinco.leaves_an_answer = true;
  kinco.refused_beside_own_parts = 19;
  kinco.own_parts_called = {kModeCalled, kHeartbeatCalled};
  kinco.own_init = OwnInit::kOfOneNode;
  kinco.is_reset_and_started = false;
  kinco.status_from = StatusFrom::kStatusword;
  kinco.clears_errors = true;
  kinco.speeds = {{1, {3000}, "201#30F87C00"},    {1, {-3000}, "201#D00783FF"},
                  {4, {1}, "204#AA0A0000"},       {127, {1}, "27F#AA0A0000"},
                  {255, {1}, "2FF#AA0A0000"},     {1, {INT_MAX}, "201#FFFFFF7F"},
                  {1, {INT_MIN}, "201#00000080"}, {1, {0}, "201#00000000"}};
  kinco.speeds_need_enabling = true;
  kinco.exact_rpm = false;
  kinco.turning = {
      {"181#00000000"},
      {Read("181#E8030000", 1, 600.0, 1000), Read("181#E8030000", 1, 0.0, 1000),
       Read("181#18FCFFFF", 1, -1200.0, -1000), Read("181#18FCFFFFFFFFFFFF", 1, 0.0, -1000)}};
  kinco.wrap_around = {
      {"182#F0FFFFFF"},
      {Read("182#10000000", 2, 19.2, 16), Read("182#F0FFFFFF", 2, -19.2, -16),
       Read("182#FFFFFF7F", 2, (INT_MIN + 15.0) / 10000 / 10 * 60 * 1000, INT_MAX),
       Read("182#00000080", 2, 0.6, INT_MIN), Read("182#FFFFFF7F", 2, -0.6, INT_MAX)}};
  kinco.short_frames = {{"183#00000000"},
                        {Read("183#E803", 3, 600.0, 1000), Read("183#", 3, -600.0, 0)}};
  kinco.periods = {
      {7, "181#00000000", Read("181#43420F00", 1, 1'000'003 / 10000.0 / 7 * 60 * 1000, 1'000'003)},
      {40000, "181#00000000", Read("181#20A10700", 1, 75.0, 500'000)},
      {0, "181#00000000", Read("181#01000000", 1, HUGE_VAL, 1)},
      {0, "181#01000000", Read("181#00000000", 1, -HUGE_VAL, 0)}};
  kinco.foreign_ids = {"180", "185", "281", "481", "00000181"};
  kinco.after_foreign = Values::kZero;
  return kinco;
}

}  // namespace

const std::vector<DescribedMake>& DescribedMakes() {
  static const std::vector<DescribedMake> makes = {Zl(), Tt(), Hls(), Amps(), Kinco()};
  return makes;
}

}  // namespace tested
