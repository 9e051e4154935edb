// Curves and axes of a jog.
#include "chart.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace motorctl {
namespace {

using Texts = std::vector<std::string>;

Sample At(double second, float target, float measured, double reported) {
  Sample sample;
  sample.second = second;
  sample.target[0] = target;
  sample.measured[0] = measured;
  sample.reported[0] = reported;
  return sample;
}

// What `pattern` has in its parentheses, wherever it matches.
Texts Matches(const std::string& text, const std::string& pattern) {
  const std::regex wanted(pattern);
  Texts found;
  for (std::sregex_iterator match(text.begin(), text.end(), wanted), end; match != end; ++match) {
    found.push_back((*match)[1]);
  }
  return found;
}

// The numbers at the axes: first those of the speeds, then those of the time.
Texts Numbers(const std::string& svg) { return Matches(svg, ">(-?[0-9.]+)</text>"); }

Texts Curves(const std::string& svg) { return Matches(svg, "<polyline[^>]* points=\"([^\"]*)\""); }

// The labels of a chart of text, from the top.
Texts Labels(const Texts& rows) {
  Texts labels;
  for (const std::string& row : rows) {
    const std::size_t begin = row.find_first_not_of(' ');
    labels.push_back(row.substr(begin, row.find(' ', begin) - begin));
  }
  return labels;
}

TEST(ChartTest, PutsRoundNumbersAtTheAxesOfAPicture) {
  const Samples samples = {At(0, 0, 0, 0), At(1.5, 60, 60.1F, 1.5), At(3.22, -30, -30.1F, 3.22)};
  EXPECT_EQ(Numbers(Svg(samples, {"left"}, "")), (Texts{"-40", "-20", "0", "20", "40", "60",  //
                                                        "0", "0.5", "1", "1.5", "2", "2.5", "3"}));
}

TEST(ChartTest, PutsRoundNumbersAtTheAxesOfASlowWheel) {
  const Samples samples = {At(0, 0, 0, 0), At(0.4, 3, 3, 0.4)};
  EXPECT_EQ(Numbers(Svg(samples, {"left"}, "")),
            (Texts{"0", "2", "4", "6", "8", "10",  //
                   "0", "0.05", "0.1", "0.15", "0.2", "0.25", "0.3", "0.35", "0.4"}));
}

TEST(ChartTest, PutsAMeasuredSpeedInTheMiddleOfTheTimeThatItIsTheMeanOf) {
  // 720 of the 800 columns are 2 s, and 310 of the 400 rows 100 rpm.
  const Samples samples = {At(0, 0, 0, -0.01), At(1, 100, 50, 1.0), At(2, 100, 100, 1.99)};
  EXPECT_EQ(Curves(Svg(samples, {"left"}, "")),
            (Texts{"60.0,350.0 420.0,40.0 780.0,40.0 ", "402.0,195.0 758.4,40.0 "}));
}

TEST(ChartTest, DrawsNoSpeedWithoutAReport) {
  const Samples samples = {At(0, 100, 0, -1000), At(1, 100, 100, 1.0), At(1.5, 100, 0, 1.0),
                           At(2, 100, 100, 2.0)};
  EXPECT_EQ(Curves(Svg(samples, {"left"}, ""))[1], "402.0,40.0 762.0,40.0 ");
}

TEST(ChartTest, NamesEachWheelInItsColour) {
  const std::string svg = Svg({At(0, 0, 0, 0)}, {"<left>", "right & last"}, "zl");
  EXPECT_EQ(Matches(svg, "fill=\"(#[0-9a-f]*\">[^<]*)<"),
            (Texts{"#06c\">&lt;left>", "#c60\">right &amp; last"}));
  EXPECT_EQ(Matches(svg, "<polyline[^>]* stroke=\"([^\"]*)\""),
            (Texts{"#06c", "#06c", "#c60", "#c60"}));
}

TEST(ChartTest, LabelsTheRowsOfAChartWithRoundNumbers) {
  const Samples forward = {At(0, 0, 0, 0), At(1, 60, 60.1F, 1)};
  EXPECT_EQ(Labels(DrawChart(forward, 0, 79, 9)),
            (Texts{"80", "70", "60", "50", "40", "30", "20", "10", "0"}));
  const Samples backward = {At(0, 0, 0.1F, 0), At(1, -30, -30.1F, 1)};
  EXPECT_EQ(Labels(DrawChart(backward, 0, 79, 9)),
            (Texts{"0", "-5", "-10", "-15", "-20", "-25", "-30", "-35", "-40"}));
  const Samples both = {At(0, -80, -81, 0), At(1, 80, 80, 1)};
  EXPECT_EQ(Labels(DrawChart(both, 0, 79, 9)),
            (Texts{"80", "60", "40", "20", "0", "-20", "-40", "-60", "-80"}));
}

TEST(ChartTest, DrawsEachSpeedInTheRowOfItsLabel) {
  const Samples samples = {At(0, 0, 0, 0), At(1, 60, 44, 1), At(2, 60, 60.1F, 2)};
  EXPECT_EQ(DrawChart(samples, 0, 19, 4), (Texts{"     60 | -*       ",  //
                                                 "     40 | *        ",  //
                                                 "     20 |          ",  //
                                                 "      0 |*........."}));
}

}  // namespace
}  // namespace motorctl
