// The page in a browser: what its scripts show is what is in the log, and nothing of a log runs.
#include <stdio.h>

#include "report_bench.h"

namespace motorctl {
namespace {

constexpr char kNonce[] = "0123456789abcdef";

struct Browser {
  std::string size = "1000,800";
  std::string name = "bus.log";  // of the log, on the page
  std::string hand = {};         // what somebody does on the page, as a script
};

// The page after its scripts have run.
std::string Shown(const std::string& log, const How& how, const Browser& browser = {}) {
  const Folder folder;
  WithReport(folder.Write("bus.log", log), how, browser.name, [&](const ReportOf& of) {
    std::string page = ReportPage(of, kNonce);
    page.insert(page.rfind("</body>"),
                std::string("<script nonce=\"") + kNonce + "\">" + browser.hand +
                    "\ndraw();</script>");  // now, not with the next frame
    folder.Write("page.html", page);
  });
  // Without a sandbox, for containers have none to give, and the page is our own.
  const std::string command = "HOME=" + folder.path() +
                              " timeout 60 " BROWSER
                              " --no-sandbox --disable-gpu --disable-dev-shm-usage "
                              "--virtual-time-budget=5000 --window-size=" +
                              browser.size + " --user-data-dir=" + folder.path() +
                              "/browser --dump-dom file://" + folder.path() + "/page.html 2>" +
                              folder.path() + "/errors";
  FILE* const output = ::popen(command.c_str(), "r");
  std::string page;
  char buffer[4096];
  for (std::size_t bytes = 0; (bytes = std::fread(buffer, 1, sizeof(buffer), output)) > 0;) {
    page.append(buffer, bytes);
  }
  EXPECT_EQ(::pclose(output), 0) << WholeFile(folder.path() + "/errors");
  return page;
}

// As it stands in the page, unescaped.
std::string ElementOf(const std::string& page, const std::string& begin, const std::string& end) {
  const std::size_t at = page.find(begin);
  EXPECT_NE(at, std::string::npos) << begin << " in " << page.substr(0, 2000);
  if (at == std::string::npos) return "";
  const std::size_t from = page.find('>', at) + 1;
  std::string text = page.substr(from, page.find(end, from) - from);
  for (const auto& [escaped, plain] : {std::pair<std::string, std::string>{"&lt;", "<"},
                                       {"&gt;", ">"},
                                       {"&nbsp;", " "},
                                       {"&amp;", "&"}}) {
    for (std::size_t i = 0; (i = text.find(escaped, i)) != std::string::npos; ++i) {
      text.replace(i, escaped.size(), plain);
    }
  }
  return text;
}

nlohmann::json SummaryOf(const std::string& page) {
  return nlohmann::json::parse(ElementOf(page, "<pre id=\"summary\"", "</pre>"));
}

// 60 rpm and a fault at 3 s, of which the times count; 50 ms before, another command.
std::string FaultLog() {
  Lines positions;
  for (int i = 0; i < 200; ++i) {
    const auto counts = static_cast<std::uint32_t>(i * 655);
    char text[64];
    std::snprintf(text, sizeof(text), "%d.%03d 181#%02X%02X%02X00", i / 50, i % 50 * 20,
                  counts & 0xFF, counts >> 8 & 0xFF, counts >> 16 & 0xFF);
    positions.emplace_back(text);
  }
  return Merged({positions,
                 Repeated("201#3C000000", 5, 2950, 20),
                 Repeated("201#1E000000", 2951, 4000, 20),
                 Repeated("701#05", 0, 4000, 100),
                 {"3.001 081#1023010000000000"}});
}

TEST(ReportBrowserTest, ShowsWhatIsInTheLog) {
  for (const std::string size : {"1400,900", "360,740"}) {
    const std::string page = Shown(FaultLog(), {"tt"}, {size});
    const nlohmann::json summary = SummaryOf(page);
    EXPECT_EQ(summary["failures"], nlohmann::json::array());
    EXPECT_EQ(summary["drawn"], true);
    EXPECT_EQ(summary["cursor"], 0);
    EXPECT_EQ(summary["anomalies"], 1);
    ASSERT_EQ(summary["wheels"].size(), 1U);
    EXPECT_EQ(summary["wheels"][0]["name"], "node 1");
    EXPECT_EQ(summary["wheels"][0]["commanded"], 30);
    // 655 of 32768 counts in 20 ms.
    EXPECT_EQ(summary["wheels"][0]["measured"], 60.0);
    EXPECT_EQ(summary["states"][0]["nmt"], "operational");
    EXPECT_EQ(summary["panels"], 3);  // wheel, NMT, load
    EXPECT_EQ(ElementOf(page, "<h1", "</h1>"), "bus.log");
    EXPECT_EQ(ElementOf(page, "<output", "</output>"), "+0.000 s");
    EXPECT_NE(ElementOf(page, "<tr class=\"anomaly\"", "</tr>").find("emergency of node 1: 0x2310"),
              std::string::npos);
    EXPECT_EQ(ElementOf(page, "<pre id=\"text\"", "</pre>"), TextOf(FaultLog(), {"tt"}));
    const nlohmann::json view = summary["view"];
    EXPECT_NEAR(view[0].get<double>(), -3001, 50);
    EXPECT_NEAR(view[1].get<double>(), 999, 50);
  }
}

// What is seen after somebody did this; from 0 to 1 is the whole log.
std::pair<double, double> ViewAfter(const std::string& hand) {
  const nlohmann::json summary = SummaryOf(
      Shown(FaultLog(), {"tt"},
            {"1000,800", "bus.log",
             "const at = (type, share, more) => canvas.dispatchEvent(new PointerEvent(type, "
             "{pointerId: 1,"
             " pointerType: 'mouse', clientX: canvas.getBoundingClientRect().left + share *"
             " canvas.clientWidth, clientY: canvas.getBoundingClientRect().top + 50, ...more}));"
             "canvas.setPointerCapture = () => {};" +
                 hand}));
  EXPECT_EQ(summary["failures"], nlohmann::json::array()) << hand;
  const double begin = -3001;
  const double length = 3990;
  return {(summary["view"][0].get<double>() - begin) / length,
          (summary["view"][1].get<double>() - begin) / length};
}

TEST(ReportBrowserTest, ZoomsByButtonsWheelAndMouse) {
  const auto expect = [](const std::string& hand, double begin, double end) {
    const auto [from, to] = ViewAfter(hand);
    EXPECT_NEAR(from, begin, 0.02) << hand;
    EXPECT_NEAR(to, end, 0.02) << hand;
  };
  expect("", 0, 1);
  // Around the cursor, which is at the fault: at 0.75.
  expect("element('in').click();", 0.375, 0.875);
  expect("element('in').click(); element('in').click(); element('out').click();", 0.375, 0.875);
  expect("element('in').click(); element('left').click();", 0.175, 0.675);
  expect("element('in').click(); element('right').click();", 0.51, 1.01);  // no farther
  expect("element('in').click(); element('all').click();", 0, 1);
  expect("element('zero').click();", 0.5, 1);
  expect(
      "canvas.dispatchEvent(new WheelEvent('wheel', {deltaY: -462, clientX: canvas"
      ".getBoundingClientRect().left + canvas.clientWidth / 4, cancelable: true}));",
      0.125, 0.625);
  expect("at('pointerdown', 0.2, {button: 0}); at('pointermove', 0.4); at('pointerup', 0.4);", 0.2,
         0.4);
  expect(
      "at('pointerdown', 0.2, {button: 0}); at('pointermove', 0.4); at('pointerup', 0.4);"
      "canvas.dispatchEvent(new MouseEvent('dblclick'));",
      0, 1);
  // Two fingers, then one.
  expect(
      "const finger = (type, id, share) => at(type, share, {pointerType: 'touch', pointerId: id});"
      "finger('pointerdown', 1, 0.25); finger('pointerdown', 2, 0.5);"
      "finger('pointermove', 2, 0.75);",
      0.125, 0.625);
  expect(
      "element('in').click(); const finger = (type, share) => at(type, share, {pointerType:"
      " 'touch'}); finger('pointerdown', 0.25); finger('pointermove', 0.5);",
      0.25, 0.75);
  expect("element('findings').rows[1].click();", 0.5, 1);
}

TEST(ReportBrowserTest, ShowsStatesAndLoad) {
  How how{"kinco"};
  how.bit_rate = 125'000;
  const nlohmann::json summary =
      SummaryOf(Shown(WholeFile(std::string(DATA_DIRECTORY) + "/kinco.log"), how));
  EXPECT_EQ(summary["failures"], nlohmann::json::array());
  EXPECT_EQ(summary["states"][0]["drives"], (nlohmann::json{"Emergency stop"}));
  EXPECT_EQ(summary["wheels"][0]["commanded"], 60);
  EXPECT_NEAR(summary["load"].get<double>(), 0.8, 0.8);
}

TEST(ReportBrowserTest, DrawsLogsWithoutTimesAndWithoutWheels) {
  for (const std::string log : {"701#05\n", "can0 123#\n", "(1.0) can0 123#\n"}) {
    const nlohmann::json summary = SummaryOf(Shown(log, {}));
    EXPECT_EQ(summary["failures"], nlohmann::json::array()) << log;
    EXPECT_EQ(summary["drawn"], true) << log;
  }
}

TEST(ReportBrowserTest, RunsNothingOfALog) {
  const std::string bad = "document.title='taken';document.body.id='taken'";
  const std::string hostile =
      "</script><script>" + bad + "</script><img/src=x/onerror=\"" + bad + "\">";
  How how{"tt"};
  how.vehicle.wheels.resize(1);
  how.vehicle.wheels[0].name = hostile;
  const std::string page = Shown("(1.0) " + hostile + " 201#3C000000\n(1.1) " + hostile +
                                     " 081#1023010000000000\n" + hostile + "\n",
                                 how, {"1000,800", "x/" + hostile});
  const nlohmann::json summary = SummaryOf(page);
  EXPECT_EQ(summary["failures"], nlohmann::json::array());
  EXPECT_EQ(summary["wheels"][0]["name"], hostile);
  EXPECT_EQ(page.find("id=\"taken\""), std::string::npos);
  EXPECT_EQ(page.find("<title>taken"), std::string::npos);
  EXPECT_EQ(page.find("<img"), std::string::npos);
  EXPECT_NE(ElementOf(page, "<title", "</title>").find("motorctl report"), std::string::npos);
}

}  // namespace
}  // namespace motorctl
