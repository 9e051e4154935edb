#include "sim/sdo_server.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/sim/candump_text.h"

namespace sim {
namespace {

// Hexadecimal bytes in and out, as on the wire; "" where nothing is answered.
class SdoServerTest : public testing::Test {
 protected:
  SdoServerTest() {
    dictionary_.Add(0x6060, 0, 1, Access::kReadWrite, 0xFD);
    dictionary_.Add(0x6040, 0, 2, Access::kReadWrite, 0x000F);
    dictionary_.Add(0x60FF, 0, 4, Access::kReadWrite, 0xFFFFFF9C);
    dictionary_.Add(0x6041, 0, 2, Access::kReadOnly, 0x0237);
    dictionary_.Add(0x2002, 0, 2, Access::kWriteOnly);
    dictionary_.Add(0x2010, 0, 1, Access::kReadWrite, 1).Range(1, 5);
  }
  std::string Serve(const std::string& request) {
    const auto reply = server_.Serve(DecodeSdoRequest(FromText("601#" + request).data));
    return reply ? ToText({0x581, 8, *reply}).substr(4) : "";
  }
  ObjectDictionary dictionary_;
  SdoServer server_{dictionary_};
};

TEST_F(SdoServerTest, AcknowledgesDownloadsOfOneTwoAndFourBytes) {
  EXPECT_EQ(Serve("2F60600003000000"), "6060600000000000");
  EXPECT_EQ(Serve("2B40600006000000"), "6040600000000000");
  EXPECT_EQ(Serve("23FF600078563412"), "60FF600000000000");
  EXPECT_EQ(dictionary_.Get(0x6060, 0), 0x03U);
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 0x0006U);
  EXPECT_EQ(dictionary_.Get(0x60FF, 0), 0x12345678U);
}

TEST_F(SdoServerTest, AnswersUploadsWithTheirSizeAndNoStrayBytes) {
  EXPECT_EQ(Serve("4060600000000000"), "4F606000FD000000");
  EXPECT_EQ(Serve("4041600000000000"), "4B41600037020000");
  EXPECT_EQ(Serve("40FF600000000000"), "43FF60009CFFFFFF");
}

TEST_F(SdoServerTest, IgnoresTheReservedBitsOfAnUploadRequest) {
  EXPECT_EQ(Serve("4341600000000000"), "4B41600037020000");
  EXPECT_EQ(Serve("5F41600000000000"), "4B41600037020000");
}

TEST_F(SdoServerTest, TakesADownloadWithoutIndicatedSizeAsTheObjectsSize) {
  EXPECT_EQ(Serve("2240600007000000"), "6040600000000000");
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 7U);
}

TEST_F(SdoServerTest, AbortsWithTheReason) {
  EXPECT_EQ(Serve("4000300000000000"), "8000300000000206") << "no such object";
  EXPECT_EQ(Serve("4040600100000000"), "8040600111000906") << "no such sub-index";
  EXPECT_EQ(Serve("2B41600000000000"), "8041600002000106") << "read-only";
  EXPECT_EQ(Serve("4002200000000000"), "8002200001000106") << "write-only";
  EXPECT_EQ(Serve("2340600006000000"), "8040600012000706") << "too long";
  EXPECT_EQ(Serve("2F40600006000000"), "8040600013000706") << "too short";
  EXPECT_EQ(Serve("2740600006000000"), "8040600012000706") << "three bytes";
  EXPECT_EQ(Serve("2F10200006000000"), "8010200031000906") << "value too high";
  EXPECT_EQ(Serve("2F10200000000000"), "8010200032000906") << "value too low";
}

TEST_F(SdoServerTest, RefusesBlockAndUnknownCommands) {
  for (const char* command : {"A0", "A4", "C0", "C6", "E0", "FF"}) {
    EXPECT_EQ(Serve(command + std::string("40600004000000")), "8040600001000405") << command;
  }
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 0x000FU);
}

TEST_F(SdoServerTest, DoesNotAnswerAClientsAbort) { EXPECT_EQ(Serve("8040600000000405"), ""); }

}  // namespace
}  // namespace sim
