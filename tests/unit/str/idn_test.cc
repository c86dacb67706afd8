#include <gtest/gtest.h>

#include "zelapi/str.h"

namespace {

std::string Ascii(const std::string& domain) {
  std::string out = "(unchanged)";
  if (!str::IdnToAscii(domain, out)) return "(refused) " + out;
  return out;
}

TEST(IdnToAsciiTest, UnicodeLabelBecomesItsALabel) {
  EXPECT_EQ(Ascii("bücher.example"), "xn--bcher-kva.example");
  EXPECT_EQ(Ascii("ünï.例え.テスト"), "xn--n-nga1b.xn--r8jz45g.xn--zckzah");
  EXPECT_EQ(Ascii("١٢٣.example"), "xn--9hbcd.example");
}

TEST(IdnToAsciiTest, AsciiLabelsKeepTheirLetterCase) {
  EXPECT_EQ(Ascii("WWW.Example.COM"), "WWW.Example.COM");
  EXPECT_EQ(Ascii("WWW.bücher.EXAMPLE"), "WWW.xn--bcher-kva.EXAMPLE");
  EXPECT_EQ(Ascii("xn--bcher-kva.example"), "xn--bcher-kva.example");
}

TEST(IdnToAsciiTest, UnicodeLabelsAreMappedToLowerCase) {
  EXPECT_EQ(Ascii("BÜCHER.example"), "xn--bcher-kva.example");
}

TEST(IdnToAsciiTest, DecomposedInputIsNormalisedFirst) {
  EXPECT_EQ(Ascii("bu\xcc\x88" "cher.example"), "xn--bcher-kva.example");
}

TEST(IdnToAsciiTest, NonTransitionalProcessingKeepsSharpS) {
  EXPECT_EQ(Ascii("faß.de"), "xn--fa-hia.de");
}

TEST(IdnToAsciiTest, TransitionalMappingIsTheFallback) {
  // A zero-width non-joiner outside the context that allows it fails the
  // non-transitional rules; the transitional mapping removes it.
  EXPECT_EQ(Ascii("a\xe2\x80\x8c" "b.example"), "ab.example");
}

TEST(IdnToAsciiTest, InvalidNamesAreRefusedAndOutputLeftAlone) {
  EXPECT_EQ(Ascii("\xff.example"), "(refused) (unchanged)");
  EXPECT_EQ(Ascii("b\xc3.example"), "(refused) (unchanged)");
  EXPECT_EQ(Ascii("-bücher.example"), "(refused) (unchanged)");
  EXPECT_EQ(Ascii(std::string("b\xc3\xbc\0x.example", 11)), "(refused) (unchanged)");
}

TEST(IdnToUnicodeTest, ALabelsAreDecodedForDisplay) {
  EXPECT_EQ(str::IdnToUnicode("xn--bcher-kva.example"), "bücher.example");
  EXPECT_EQ(str::IdnToUnicode("www.xn--fa-hia.de"), "www.faß.de");
  EXPECT_EQ(str::IdnToUnicode("xn--n-nga1b.xn--r8jz45g.xn--zckzah"), "ünï.例え.テスト");
}

TEST(IdnToUnicodeTest, NamesWithoutALabelAreReturnedAsGiven) {
  EXPECT_EQ(str::IdnToUnicode("WWW.Example.COM"), "WWW.Example.COM");
  EXPECT_EQ(str::IdnToUnicode("bücher.example"), "bücher.example");
  EXPECT_EQ(str::IdnToUnicode(""), "");
}

TEST(IdnToUnicodeTest, UndecodableALabelLeavesTheNameUnchanged) {
  EXPECT_EQ(str::IdnToUnicode("xn--.example"), "xn--.example");
  EXPECT_EQ(str::IdnToUnicode("xn--zz.example"), "xn--zz.example");
}

}  // namespace
