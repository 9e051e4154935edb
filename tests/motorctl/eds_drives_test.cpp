// The data sheets that are installed, held against the drives that they describe: over the bus, object
// by object.
#include <gtest/gtest.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>

#include "bus_environment.h"
#include "eds.h"
#include "makes.h"
#include "sim/simulated_drive.h"

namespace motorctl {
namespace {

constexpr int kNode = 5;  // not 1, which may be anything
constexpr std::uint32_t kReadOnly = 0x06010002;
constexpr std::uint32_t kNoObject = 0x06020000;
constexpr std::uint32_t kNoSubIndex = 0x06090011;
constexpr std::uint32_t kNoData = 0x08000024;

using Place = std::pair<std::uint16_t, std::uint8_t>;
using Payload = std::array<std::uint8_t, 8>;

std::string Text(const Place& place) {
  char text[16];
  std::snprintf(text, sizeof text, "%04X:%02X", unsigned{place.first}, unsigned{place.second});
  return text;
}

struct Answer {
  std::uint32_t abort_code = 0;
  Bytes bytes;
};

// A client of its own: neither the library's nor motorctl's idea of an SDO.
class Client {
 public:
  Client() : socket_(::socket(PF_CAN, SOCK_RAW, CAN_RAW)) {
    const can_filter filter = {0x580 + kNode, CAN_SFF_MASK};
    ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, &filter, sizeof filter);
    sockaddr_can address = {};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(::if_nametoindex("can0"));
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~Client() { ::close(socket_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void Send(const Payload& payload) const {
    can_frame frame = {};
    frame.can_id = 0x600 + kNode;
    frame.can_dlc = 8;
    std::copy(payload.begin(), payload.end(), frame.data);
    EXPECT_EQ(::write(socket_, &frame, sizeof frame), ssize_t{sizeof frame});
  }
  Payload Receive() const {
    pollfd readable = {socket_, POLLIN, 0};
    can_frame frame = {};
    Payload payload{};
    if (::poll(&readable, 1, 10000) != 1 || ::read(socket_, &frame, sizeof frame) < 0) {
      ADD_FAILURE() << "no answer";
      return payload;
    }
    std::copy_n(frame.data, 8, payload.begin());
    return payload;
  }

  static Payload Request(unsigned command, const Place& place) {
    return {static_cast<std::uint8_t>(command), static_cast<std::uint8_t>(place.first),
            static_cast<std::uint8_t>(place.first >> 8), place.second};
  }
  static std::uint32_t Number(const Payload& payload) {
    std::uint32_t number = 0;
    for (unsigned i = 0; i < 4; ++i) number |= std::uint32_t{payload[4 + i]} << (8 * i);
    return number;
  }
  static Place PlaceOf(const Payload& payload) {
    return {static_cast<std::uint16_t>(payload[1] | payload[2] << 8), payload[3]};
  }

  Answer Upload(const Place& place) const {
    Send(Request(0x40, place));
    const Payload first = Receive();
    EXPECT_EQ(PlaceOf(first), place);
    if (first[0] == 0x80) return {Number(first), {}};
    if ((first[0] & 0xE3) == 0x43) {
      return {0, Bytes(first.begin() + 4, first.end() - (first[0] >> 2 & 3))};
    }
    EXPECT_EQ(first[0], 0x41) << "in segments, with its length";
    Answer answer;
    for (unsigned toggle = 0;; toggle ^= 0x10) {
      Send({static_cast<std::uint8_t>(0x60 | toggle)});
      const Payload segment = Receive();
      EXPECT_EQ(segment[0] & 0xF0U, toggle);
      answer.bytes.insert(answer.bytes.end(), segment.begin() + 1,
                          segment.end() - (segment[0] >> 1 & 7));
      if ((segment[0] & 1) != 0 || answer.bytes.size() > Number(first)) break;
    }
    EXPECT_EQ(answer.bytes.size(), Number(first));
    return answer;
  }

  // 0 when it is taken. Of more than four bytes only whether it may begin, which is then ended.
  std::uint32_t AbortOfDownload(const Place& place, const Bytes& bytes) const {
    const bool expedited = bytes.size() <= 4 && !bytes.empty();
    Payload request =
        Request(expedited ? 0x23U | static_cast<unsigned>((4 - bytes.size()) << 2) : 0x21U, place);
    if (expedited) {
      std::copy(bytes.begin(), bytes.end(), request.begin() + 4);
    } else {
      request[4] = static_cast<std::uint8_t>(bytes.size());
    }
    Send(request);
    const Payload reply = Receive();
    EXPECT_EQ(PlaceOf(reply), place);
    if (reply[0] == 0x80) return Number(reply);
    EXPECT_EQ(reply[0], 0x60);
    if (!expedited) Send(Request(0x80, place));
    return 0;
  }

 private:
  int socket_;
};

class EdsOfDriveTest : public bus::BusTest, public ::testing::WithParamInterface<std::string> {
 protected:
  static sim::SimulatedDrive::Options Options() {
    sim::SimulatedDrive::Options options;
    options.make = GetParam();
    options.node_id = kNode;
    return options;
  }

  const Eds eds_ = LoadEds(DATA_SHEETS "/" + GetParam() + ".eds");
  const sim::SimulatedDrive drive_{Options()};
  const Client client_;
};

TEST_P(EdsOfDriveTest, EveryObjectAnswersWithSizeAndDefault) {
  EXPECT_GT(eds_.objects.size(), 100U);
  std::size_t without_data = 0;
  for (const EdsObject& object : eds_.objects) {
    SCOPED_TRACE(Text({object.index, object.sub}) + " " + object.name);
    const Answer answer = client_.Upload({object.index, object.sub});
    if (!object.default_value) {
      // The history of errors, which is empty.
      EXPECT_EQ(answer.abort_code, object.type == DataType::kVisibleString ? 0 : kNoData);
      EXPECT_EQ(answer.bytes, Bytes());
      ++without_data;
      continue;
    }
    EXPECT_EQ(answer.abort_code, 0U);
    EXPECT_EQ(answer.bytes, object.default_value->Of(kNode));
    if (SizeOf(object.type) != 0) {
      EXPECT_EQ(answer.bytes.size(), SizeOf(object.type));
    }
  }
  EXPECT_EQ(without_data, 9U) << "eight errors and the text of the user";
}

TEST_P(EdsOfDriveTest, AccessIsAsItSays) {
  std::size_t refused = 0;
  for (const EdsObject& object : eds_.objects) {
    SCOPED_TRACE(Text({object.index, object.sub}) + " " + object.name);
    Bytes bytes(std::max(SizeOf(object.type), 1U));
    if (object.default_value) bytes = object.default_value->Of(kNode);
    const std::uint32_t abort_code = client_.AbortOfDownload({object.index, object.sub}, bytes);
    if (object.writable()) {
      EXPECT_NE(abort_code, kReadOnly);
    } else {
      EXPECT_EQ(abort_code, kReadOnly);
      ++refused;
    }
  }
  EXPECT_GT(refused, 20U);
}

TEST_P(EdsOfDriveTest, NothingElseAnswers) {
  std::set<Place> listed;
  std::set<std::uint16_t> indices;
  for (const EdsObject& object : eds_.objects) {
    listed.insert({object.index, object.sub});
    indices.insert(object.index);
  }
  std::vector<Place> absent;
  for (unsigned index = 0x1000; index < 0x7000; ++index) {
    const auto place = static_cast<std::uint16_t>(index);
    if (indices.count(place) == 0) {
      absent.emplace_back(place, 0);
      continue;
    }
    for (unsigned sub = 0; sub < 0x100; ++sub) {
      const Place of_index = {place, static_cast<std::uint8_t>(sub)};
      if (listed.count(of_index) == 0) absent.push_back(of_index);
    }
  }
  // As many at once as the drive keeps answers of.
  constexpr std::size_t kAtOnce = 64;
  for (std::size_t at = 0; at < absent.size(); at += kAtOnce) {
    const std::size_t end = std::min(at + kAtOnce, absent.size());
    for (std::size_t i = at; i < end; ++i) client_.Send(Client::Request(0x40, absent[i]));
    for (std::size_t i = at; i < end; ++i) {
      const Payload reply = client_.Receive();
      ASSERT_EQ(Client::PlaceOf(reply), absent[i]) << Text(absent[i]);
      EXPECT_EQ(reply[0], 0x80) << Text(absent[i]);
      EXPECT_EQ(Client::Number(reply),
                indices.count(absent[i].first) == 0 ? kNoObject : kNoSubIndex)
          << Text(absent[i]);
    }
  }
}

std::vector<std::string> Names() {
  std::vector<std::string> names;
  for (const tested::Make& make : tested::Makes()) names.push_back(make.name);
  return names;
}

INSTANTIATE_TEST_SUITE_P(Makes, EdsOfDriveTest, ::testing::ValuesIn(Names()),
                         [](const ::testing::TestParamInfo<std::string>& test) {
                           return test.param;
                         });

}  // namespace
}  // namespace motorctl
