#include "numbers.hpp"

#include <clocale>
#include <locale>
#include <sstream>
#include <utility>

#include "fakes.hpp"

namespace decision_bounds::test {

struct DecimalComma : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};

/// Runs in a locale with a decimal comma: that of C++ always, that of C where one is installed.
struct NumbersTest : testing::Test {
  void SetUp() override {
    std::locale::global(std::locale(std::locale::classic(), new DecimalComma));
    for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8"}) std::setlocale(LC_ALL, name);
    ASSERT_EQ((std::ostringstream() << 0.5).str(), "0,5");
  }
  void TearDown() override { std::locale::global(std::locale::classic()); }

  using Case = std::pair<double, const char*>;
};

TEST_F(NumbersTest, TheShortestTextReadsBackAsTheValue) {
  constexpr Case cases[] = {{0.0, "0.0"},       {-0.0, "-0.0"},
                            {2.0, "2.0"},       {-2.5, "-2.5"},
                            {0.0042, "0.0042"}, {0.1 + 0.2, "0.30000000000000004"},
                            {1e16, "1e+16"},    {9007199254740994.0, "9007199254740994.0"},
                            {1e-4, "0.0001"},   {-1.5e300, "-1.5e+300"},
                            {5e-324, "5e-324"}, {1.2e-5, "1.2e-05"},
                            {not_known, "inf"}, {-not_known, "-inf"},
                            {nan, "nan"},       {-nan, "nan"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(internal::shortest(value), text);
}

TEST_F(NumbersTest, AreRoundedToTheNearestMicro) {
  // 0.0078125 and 0.0234375 are ties; 2.5e-6 lies above one, and 0.0704455 below, by less than a
  // product shows.
  constexpr Case cases[] = {{0.1 + 0.2, "0.3"}, {0.0009765625, "0.000977"},
                            {1.1, "1.1"},       {0.0078125, "0.007812"},
                            {2.5e-6, "3e-06"},  {0.0234375, "0.023438"},
                            {-1e-9, "-0.0"},    {9698323932.301403, "9698323932.301403"},
                            {nan, "nan"},       {0.0704455, "0.070445"}};
  for (const auto& [value, text] : cases)
    EXPECT_EQ(internal::shortest(internal::micro_rounded(value)), text);
}

TEST_F(NumbersTest, AreWrittenWithAFixedNumberOfDecimals) {
  constexpr Case cases[] = {
      {10.0, "10.00"}, {0.125, "0.12"}, {-0.375, "-0.38"}, {-not_known, "-inf"}, {-nan, "nan"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(internal::fixed(value, 2), text);
  EXPECT_EQ(internal::fixed(-1.7e308, 20).size(), 1u + 309u + 1u + 20u);  // the longest text
}

}  // namespace decision_bounds::test
