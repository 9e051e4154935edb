// The page: what is in it, and what cannot get into it.
#include "report_bench.h"

namespace motorctl {
namespace {

constexpr char kNonce[] = "00112233";

std::string PageOf(const std::string& log, const How& how = {}) {
  std::string page;
  WithReportOf(log, how, [&](const ReportOf& of) { page = ReportPage(of, kNonce); });
  return page;
}

nlohmann::json DataOf(const std::string& page) {
  const std::string begin = "id=\"data\" nonce=\"00112233\">";
  const std::size_t at = page.find(begin) + begin.size();
  return nlohmann::json::parse(page.substr(at, page.find("</script>", at) - at));
}

std::size_t CountOf(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++count;
  return count;
}

// Times in tenths of ms and speeds in tenths of rpm, each after the one before.
TEST(ReportPageTest, HoldsTheCurvesAsDifferences) {
  const nlohmann::json data =
      DataOf(PageOf(LogOf({"1.0 701#05", "1.1 201#3C000000", "1.2 201#C4FFFFFF",
                           "1.25 201#C4FFFFFF", "2.0 081#1023010000000000"}),
                    {"tt"}));
  EXPECT_EQ(data["begin"], -1000.0);
  EXPECT_EQ(data["end"], 0.0);
  EXPECT_EQ(data["wheels"].size(), 1U);
  EXPECT_EQ(data["wheels"][0]["commanded"], (nlohmann::json{1000, 600, 1000, -1200}));
  EXPECT_EQ(data["nodes"][0]["nmt"], (nlohmann::json{{-1000.0, "operational"}}));
  EXPECT_EQ(data["findings"][1]["t"], 0.0);
  EXPECT_EQ(data["findings"][1]["anomaly"], true);
}

TEST(ReportPageTest, NeedsNothingFromAnywhere) {
  const std::string page = PageOf(LogOf({"1.0 701#05"}));
  for (const char* const reference :
       {"http:", "https:", "src=", "href=", "url(", "import ", "fetch("}) {
    EXPECT_EQ(CountOf(page, reference), 0U) << reference;
  }
  EXPECT_NE(page.find("default-src 'none'; script-src 'nonce-00112233'"), std::string::npos);
  EXPECT_NE(page.find("name=\"viewport\" content=\"width=device-width, initial-scale=1\""),
            std::string::npos);
}

// Whatever a log, a vehicle or a path holds.
TEST(ReportPageTest, LetsNoLogEndItsScript) {
  const std::string hostile = "</script><script>alert(1)</script><!--<img/onerror=alert(1)>&amp;";
  How how{"tt"};
  how.vehicle.wheels.resize(1);
  how.vehicle.wheels[0].name = hostile;
  const std::string page = PageOf(
      "(1.0) " + hostile + " 701#05\n(1.1) " + hostile + " 201#3C000000\n" + hostile + "\n", how);
  const std::string plain = PageOf(LogOf({"1.0 701#05"}));
  EXPECT_EQ(CountOf(page, "<script"), 2U);
  for (const char* const mark : {"<", ">", "alert(1)>"}) {
    const std::size_t of_plain = std::string(mark).size() > 1 ? 0 : CountOf(plain, mark);
    EXPECT_EQ(CountOf(page, mark), of_plain) << mark;
  }
  const nlohmann::json data = DataOf(page);
  EXPECT_EQ(data["interface"], hostile);
  EXPECT_EQ(data["wheels"][0]["name"], hostile);
  EXPECT_NE(data["text"].get<std::string>().find(hostile), std::string::npos);
}

// A vehicle of eight drives for a minute, every 10 ms.
TEST(ReportPageTest, StaysSmall) {
  std::vector<Lines> parts;
  for (int node = 1; node <= 8; ++node) {
    Lines positions;
    Lines commands;
    for (int i = 0; i < 6000; ++i) {
      char text[64];
      const unsigned counts =
          static_cast<unsigned>(i) * (300 + static_cast<unsigned>(i * node) % 97);
      std::snprintf(text, sizeof(text), "%d.%03d %03X#%02X%02X%02X00", i / 100, i % 100 * 10,
                    0x180 + node, counts & 0xFF, counts >> 8 & 0xFF, counts >> 16 & 0xFF);
      positions.emplace_back(text);
      std::snprintf(text, sizeof(text), "%d.%03d %03X#%02X000000", i / 100, i % 100 * 10,
                    0x200 + node, i % 50);
      commands.emplace_back(text);
    }
    parts.push_back(positions);
    parts.push_back(commands);
  }
  const std::string page = PageOf(Merged(parts), {"tt"});
  EXPECT_LT(page.size(), 350'000U);
  EXPECT_GT(DataOf(page)["wheels"][7]["measured"].size(), 2000U);
}

}  // namespace
}  // namespace motorctl
