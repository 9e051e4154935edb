#include "sim/can_socket.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "bus_environment.h"
#include "far_end.h"
#include "tests/sim/candump_text.h"
#include "tests/sim/drive_on_bus.h"

namespace sim {
namespace {

class CanSocketTest : public DriveOnBus {
 protected:
  // What the socket hears of these frames, up to a last one that every socket hears.
  Texts Heard(CanSocket& socket, const Texts& frames) {
    for (const std::string& frame : frames) host_.Send(frame);
    host_.Send("000#0100");
    Texts heard;
    for (;;) {
      pollfd source{socket.fd(), POLLIN, 0};
      if (::poll(&source, 1, 5000) != 1) {
        ADD_FAILURE() << "nothing arrives any more";
        return heard;
      }
      while (const auto frame = socket.Read()) {
        if (frame->id == 0) return heard;
        heard.push_back(ToText(*frame));
      }
    }
  }

  bus::FarEnd host_{"can0"};
};

const Texts kSentByDrives{"181#01", "282#02", "383#03", "4FF#04", "581#05", "701#05"};
const Texts kSentByHosts{"080#", "100#01", "201#06", "302#07", "403#08", "57F#09", "601#0A"};

TEST_F(CanSocketTest, HearsHostsButNoDrives) {
  CanSocket socket("can1");
  EXPECT_EQ(Heard(socket, kSentByDrives), Texts{});
  EXPECT_EQ(Heard(socket, kSentByHosts), kSentByHosts);
}

TEST_F(CanSocketTest, HearsWhatItIsToldToAndNothingElseOfDrives) {
  CanSocket socket("can1");
  socket.ListenTo({0x282, 0x701, 0x201});
  EXPECT_EQ(Heard(socket, kSentByDrives), (Texts{"282#02", "701#05"}));
  EXPECT_EQ(Heard(socket, kSentByHosts), kSentByHosts) << "each once";
  socket.ListenTo({0x383});
  EXPECT_EQ(Heard(socket, kSentByDrives), Texts{"383#03"});
  socket.ListenTo({});
  EXPECT_EQ(Heard(socket, kSentByDrives), Texts{});
}

}  // namespace
}  // namespace sim
