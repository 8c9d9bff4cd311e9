#include "numbers.hpp"

#include <clocale>
#include <locale>

#include "fakes.hpp"

namespace decision_bounds::test {

struct Comma : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};

TEST(NumbersTest, AreWrittenWithAPointWhateverTheLocale) {
  std::locale::global(std::locale(std::locale::classic(), new Comma));
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8"}) std::setlocale(LC_ALL, name);
  EXPECT_EQ((std::ostringstream() << 0.5).str(), "0,5");
  std::string text;
  for (const double usd : {0.0, -0.0, 2.0, 0.0042, 0.1 + 0.2, 9007199254740994.0, 1e-4, 1.2e-5,
                           1e-5, 5e-324, 1e16, -1.5e300, not_known, -not_known, nan, -nan})
    text += internal::shortest(usd) + " ";
  for (const double usd : {0.1 + 0.2, 5e-7, 1.5e-6, 0.0009765625, -1e-9, 1e300, nan})
    text += internal::shortest(internal::micro_rounded(usd)) + " ";
  for (const double usd : {10.0, 0.125, -0.375, 1e22, -not_known, nan})
    text += internal::fixed(usd, 2) + " ";
  EXPECT_EQ(text,
            "0.0 -0.0 2.0 0.0042 0.30000000000000004 9007199254740994.0 0.0001 1.2e-05 1e-05 "
            "5e-324 1e+16 -1.5e+300 inf -inf nan nan "
            "0.3 0.0 2e-06 0.000977 -0.0 1e+300 nan "
            "10.00 0.12 -0.38 10000000000000000000000.00 -inf nan ");
  EXPECT_EQ(internal::fixed(-1.7e308, 20).size(), 331u);
  std::locale::global(std::locale::classic());
}

}  // namespace decision_bounds::test
