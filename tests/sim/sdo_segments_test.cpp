// SDO transfers in segments: whole sequences, of a bare node of every make.
#include <string>

#include "sim/makes.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

struct Long {
  std::string make;
  std::string user_text;  // index and sub-index as on the wire
  std::string size;       // of the device's name
  Texts name;             // its segments
};

void PrintTo(const Long& row, std::ostream* out) { *out << row.make; }

// "Simulated drive " and the make.
Texts NameInSegments(const Texts& last) {
  Texts segments = {"0053696D756C6174", "1065642064726976"};
  segments.insert(segments.end(), last.begin(), last.end());
  return segments;
}

std::vector<Long> Makes() {
  return {{"zl", "302000", "12", NameInSegments({"0765207A6C000000"})},
          {"tt", "202000", "12", NameInSegments({"0765207474000000"})},
          {"hls", "002500", "13", NameInSegments({"056520686C730000"})},
          {"amps", "104700", "14", NameInSegments({"036520616D707300"})},
          {"kinco", "002F00", "15", NameInSegments({"0165206B696E636F"})}};
}

class SegmentsTest : public NodeFixture {
 protected:
  explicit SegmentsTest(const std::string& make = "zl") : NodeFixture(FindMake(make)) {
    node_.PowerOn();
  }
  // The one answer to a request to node 1, without its identifier.
  std::string Ask(const std::string& request) {
    const Texts answers = After("601#" + request);
    return answers.size() == 1 ? answers[0].substr(4) : std::to_string(answers.size()) + " answers";
  }
  void Exchange(const std::vector<std::pair<std::string, std::string>>& sequence) {
    for (const auto& [request, answer] : sequence) EXPECT_EQ(Ask(request), answer) << request;
  }
  std::string UserText() { return node_.dictionary().Text(0x2030, 0); }
};

class EveryMakeSegmentsTest : public SegmentsTest, public testing::WithParamInterface<Long> {
 protected:
  EveryMakeSegmentsTest() : SegmentsTest(GetParam().make) {}
};

INSTANTIATE_TEST_SUITE_P(Makes, EveryMakeSegmentsTest, testing::ValuesIn(Makes()),
                         [](const auto& test) { return test.param.make; });

TEST_P(EveryMakeSegmentsTest, TellsItsNameInSegments) {
  EXPECT_EQ(Ask("4008100000000000"), "41081000" + GetParam().size + "000000");
  std::string request = "60";
  for (const std::string& segment : GetParam().name) {
    EXPECT_EQ(Ask(request + "00000000000000"), segment);
    request = request == "60" ? "70" : "60";
  }
  EXPECT_EQ(Ask(request + "00000000000000"), "8000000001000405") << "it is over";
}

TEST_P(EveryMakeSegmentsTest, TellsAShortTextExpedited) {
  const std::string version(FindMake(GetParam().make).hardware_version);
  const std::string answer = Ask("4009100000000000");
  if (version.size() > 4) {
    EXPECT_EQ(answer.substr(0, 8), "41091000");
    return;
  }
  Frame frame{0x581, 8, {static_cast<std::uint8_t>(0x43 | (4 - version.size()) << 2), 9, 0x10, 0}};
  for (std::size_t i = 0; i < version.size(); ++i) {
    frame.data[4 + i] = static_cast<std::uint8_t>(version[i]);
  }
  EXPECT_EQ("581#" + answer, ToText(frame));
}

TEST_P(EveryMakeSegmentsTest, KeepsATextOfItsHost) {
  const std::string object = GetParam().user_text;
  Exchange({{"40" + object + "00000000", "41" + object + "00000000"},
            {"6000000000000000", "0F00000000000000"},  // it is empty
            {"21" + object + "0A000000", "60" + object + "00000000"},
            {"00736F6D65207465", "2000000000000000"},
            {"1978742100000000", "3000000000000000"},
            {"40" + object + "00000000", "41" + object + "0A000000"},
            {"6000000000000000", "00736F6D65207465"},
            {"7000000000000000", "1978742100000000"}});
}

// Sixty-four bytes, and one more, which is refused where it shows.
TEST_F(SegmentsTest, TakesAsManyBytesAsTheObjectHas) {
  const std::string segment = "61626364656667";
  for (const bool too_long : {false, true}) {
    EXPECT_EQ(Ask("2030200000000000"), "6030200000000000") << "no size indicated";
    for (int i = 0; i < 9; ++i) {
      EXPECT_EQ(Ask((i % 2 == 0 ? "00" : "10") + segment),
                (i % 2 == 0 ? "20" : "30") + std::string("00000000000000"));
    }
    if (too_long) {
      EXPECT_EQ(Ask("1B78790000000000"), "8030200012000706");
    } else {
      EXPECT_EQ(Ask("1D78000000000000"), "3000000000000000");
    }
    EXPECT_EQ(UserText().size(), 64U);
    EXPECT_EQ(UserText().back(), 'x');
  }
}

TEST_F(SegmentsTest, HoldsADownloadAgainstTheSizeThatItIndicated) {
  Exchange({{"2130200041000000", "8030200012000706"},  // 65 bytes, at once
            {"2130200008000000", "6030200000000000"},
            {"0061626364656667", "2000000000000000"},
            {"1B68690000000000", "8030200012000706"},  // nine
            {"2130200008000000", "6030200000000000"},
            {"0161626364656667", "8030200013000706"},  // seven
            {"2130200008000000", "6030200000000000"},
            {"0061626364656667", "2000000000000000"},
            {"1D68000000000000", "3000000000000000"}});
  EXPECT_EQ(UserText(), "abcdefgh");
}

TEST_F(SegmentsTest, TakesANumberInSegments) {
  Exchange({{"2117100001000000", "8017100013000706"},
            {"2117100004000000", "8017100012000706"},
            {"2117100002000000", "6017100000000000"},
            {"0BE8030000000000", "2000000000000000"},
            {"2017100000000000", "6017100000000000"},
            {"0D01000000000000", "8017100013000706"},
            {"2018100100000000", "8018100102000106"},
            {"20FF5F0000000000", "80FF5F0000000206"}});
  EXPECT_EQ(node_.dictionary().Get(0x1017, 0), 1000U);
}

TEST_F(SegmentsTest, EndsATransferAtAWrongToggleBit) {
  Exchange({{"4008100000000000", "4108100012000000"},
            {"7000000000000000", "8008100000000305"},
            {"6000000000000000", "8000000001000405"},
            {"4008100000000000", "4108100012000000"},
            {"6000000000000000", "0053696D756C6174"},
            {"6000000000000000", "8008100000000305"},
            {"2030200000000000", "6030200000000000"},
            {"1061626364656667", "8030200000000305"}});
  EXPECT_EQ(UserText(), "");
}

TEST_F(SegmentsTest, EndsATransferAtASegmentOfTheOtherDirection) {
  Exchange({{"4008100000000000", "4108100012000000"},
            {"0061626364656667", "8008100001000405"},
            {"2030200000000000", "6030200000000000"},
            {"6000000000000000", "8030200001000405"}});
}

TEST_F(SegmentsTest, AClientsAbortEndsATransfer) {
  Exchange({{"4008100000000000", "4108100012000000"},
            {"8008100000000405", "0 answers"},
            {"6000000000000000", "8000000001000405"},
            {"4017100000000000", "4B17100000000000"}});
}

// As strict as a drive may be: whoever leaves a transfer open loses the next one.
TEST_F(SegmentsTest, AbortsATransferThatBeginsInTheMidstOfAnother) {
  Exchange({{"4008100000000000", "4108100012000000"},
            {"4017100000000000", "8017100001000405"},
            {"4017100000000000", "4B17100000000000"}});
}

TEST_F(SegmentsTest, GivesUpAClientThatIsSilentForASecond) {
  Exchange({{"4008100000000000", "4108100012000000"}});
  EXPECT_EQ(Advance(900), Texts());
  Exchange({{"6000000000000000", "0053696D756C6174"}});
  EXPECT_EQ(Advance(990), Texts());
  EXPECT_EQ(node_.NextEvent(), node_.now() + std::chrono::milliseconds(10));
  EXPECT_EQ(Advance(20), Texts{"581#8008100000000405"});
  EXPECT_EQ(Advance(2000), Texts());
  Exchange({{"7000000000000000", "8000000001000405"}});
}

TEST_F(SegmentsTest, AResetEndsATransfer) {
  Exchange({{"4008100000000000", "4108100012000000"}});
  After("000#8201");
  Exchange({{"6000000000000000", "8000000001000405"}});
}

TEST_F(SegmentsTest, FaultsStrikeSegments) {
  const auto begin = [this](const char* fault) {
    node_.ClearFaults();
    node_.Inject(ParseFault(fault));
    After("601#8000000000000008");
  };
  begin("abort-segment=2/0x06040047");
  Exchange({{"4008100000000000", "4108100012000000"},
            {"6000000000000000", "0053696D756C6174"},
            {"7000000000000000", "8008100047000406"},
            {"6000000000000000", "8000000001000405"}});
  begin("ignore-segment=1");
  Exchange({{"4008100000000000", "4108100012000000"}, {"6000000000000000", "0 answers"}});
  EXPECT_EQ(Advance(1010), Texts{"581#8008100000000405"});
  begin("wrong-toggle=2");
  Exchange({{"4008100000000000", "4108100012000000"},
            {"6000000000000000", "0053696D756C6174"},
            {"7000000000000000", "0065642064726976"}});
  begin("wrong-toggle=1");
  Exchange({{"2030200000000000", "6030200000000000"}, {"0061626364656667", "3000000000000000"}});
  begin("wrong-size=3");
  Exchange({{"4008100000000000", "4108100003000000"}});
  begin("no-size");
  Exchange({{"4017100000000000", "4217100000000000"}, {"4008100000000000", "4008100000000000"}});
  begin("delay-replies-ms=5");
  EXPECT_EQ(After("601#4008100000000000"), Texts());
  EXPECT_EQ(Advance(6), Texts{"581#4108100012000000"});
}

TEST(ParameterChannelTest, HasATransferOfItsOwn) {
  Texts sent;
  Node::Options options;
  options.node_id = 2;
  Node node(FindMake("hls"), options, [&](const Frame& frame) { sent.push_back(ToText(frame)); });
  node.PowerOn();
  const auto after = [&](const char* frame) {
    sent.clear();
    node.Receive(FromText(frame));
    return sent;
  };
  // Axis 2: 0x2500 is 0x4500 there. Another axis's transfer is not ours, nor are its segments.
  EXPECT_EQ(after("600#6000000000000000"), Texts());
  EXPECT_EQ(after("600#2100450003000000"), Texts{"580#6000450000000000"});
  EXPECT_EQ(after("602#4008100000000000"), Texts{"582#4108100013000000"});
  EXPECT_EQ(after("600#0961626300000000"), Texts{"580#2000000000000000"});
  EXPECT_EQ(node.dictionary().Text(0x2500, 0), "abc");
  EXPECT_EQ(after("602#6000000000000000"), Texts{"582#0053696D756C6174"});
}

}  // namespace
}  // namespace sim
