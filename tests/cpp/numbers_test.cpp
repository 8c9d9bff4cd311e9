#include "numbers.hpp"

#include <clocale>
#include <locale>
#include <sstream>

#include "fakes.hpp"

namespace decision_bounds::test {

struct DecimalComma : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};

/// The program runs in a locale with a decimal comma: of C++ always, of C where one is installed.
const bool has_decimal_comma = [] {
  std::locale::global(std::locale(std::locale::classic(), new DecimalComma));
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8"}) std::setlocale(LC_ALL, name);
  return (std::ostringstream() << 0.5).str() == "0,5";
}();

static_assert(internal::saturating_add(INT64_MIN, -1) == INT64_MIN);

using Case = std::pair<double, const char*>;

TEST(NumbersTest, TheShortestTextReadsBackAsTheValue) {
  constexpr Case cases[] = {{0.0, "0.0"},       {0.1 + 0.2, "0.30000000000000004"},
                            {1e-4, "0.0001"},   {1.2e-5, "1.2e-05"},
                            {1e16, "1e+16"},    {9007199254740994.0, "9007199254740994.0"},
                            {-nan, "nan"},      {-1.5e300, "-1.5e+300"},
                            {not_known, "inf"}, {-not_known, "-inf"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(internal::shortest(value), text);
  EXPECT_TRUE(has_decimal_comma);
}

TEST(NumbersTest, AreRoundedToTheNearestMicro) {
  // 0.0078125 and 0.0234375 are ties; 2.5e-6 lies above one, and 0.0704455 below, by less than a
  // product shows.
  constexpr Case cases[] = {{0.1 + 0.2, "0.3"}, {0.0078125, "0.007812"},
                            {2.5e-6, "3e-06"},  {0.0234375, "0.023438"},
                            {-1e-9, "-0.0"},    {9698323932.301403, "9698323932.301403"},
                            {nan, "nan"},       {0.0704455, "0.070445"}};
  for (const auto& [value, text] : cases)
    EXPECT_EQ(internal::shortest(internal::micro_rounded(value)), text);
}

TEST(NumbersTest, AreWrittenWithAFixedNumberOfDecimals) {
  constexpr Case cases[] = {
      {10.0, "10.00"}, {0.125, "0.12"}, {-0.375, "-0.38"}, {-not_known, "-inf"}, {-nan, "nan"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(internal::fixed(value, 2), text);
  EXPECT_EQ(internal::fixed(-1.7e308, 20).size(), 1u + 309u + 1u + 20u);  // the longest text
}

}  // namespace decision_bounds::test
