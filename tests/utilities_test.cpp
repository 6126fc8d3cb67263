// The tolerant conversions: a value of the wrong kind is absent, never a failure.
#include "support/Utilities.h"

#include <gtest/gtest.h>

namespace vx {
namespace {

PlistArray Texts(std::initializer_list<const char*> texts) {
  PlistArray out;
  for (const char* t : texts) out.emplace_back(t);
  return out;
}

TEST(UtilitiesTest, StringifyKeepsTextAndPrintsEverythingElse) {
  EXPECT_EQ(VXStringifyObject(std::nullopt), std::nullopt);
  EXPECT_EQ(VXStringifyObject(PlistValue(5)), "5");
  // A text comes back untouched, even where its printed form would be quoted.
  EXPECT_EQ(VXStringifyObject(PlistValue("two words")), "two words");
  EXPECT_EQ(VXStringifyObject(PlistValue(Texts({"a", "b c"}))), "(a, \"b c\")");
  EXPECT_EQ(VXStringifyObject(ValueSet({PlistValue(1), PlistValue(2), PlistValue(1)})), "{(1, 2)}");
  EXPECT_EQ(VXStringifyObject(PlistValue(FileURL::fileURLWithPath("/a/b", true))), "/a/b");
}

TEST(UtilitiesTest, BooleanValueReadsOnlyNumbers) {
  EXPECT_FALSE(VXBooleanValue(PlistValue(0), true));
  EXPECT_TRUE(VXBooleanValue(PlistValue(true), false));
  EXPECT_TRUE(VXBooleanValue(PlistValue(0.5), false));  // not cut down to 0
  EXPECT_TRUE(VXBooleanValue(std::nullopt, true));
  EXPECT_FALSE(VXBooleanValue(PlistValue("YES"), false));
  EXPECT_TRUE(VXBooleanValue(PlistValue("0"), true));
  EXPECT_TRUE(VXBooleanValue(ValueSet({PlistValue(0)}), true));
}

TEST(UtilitiesTest, ArrayContainsOnlyClassCountsBooleansAsNumbers) {
  EXPECT_TRUE(VXArrayContainsOnlyClass({}, ValueKind::Dictionary));
  EXPECT_TRUE(VXArrayContainsOnlyClass({PlistValue(1), PlistValue(false), PlistValue(2.5)},
                                       ValueKind::Number));
  EXPECT_FALSE(VXArrayContainsOnlyClass({PlistValue(1), PlistValue("1")}, ValueKind::Number));
  // A location is not a text, though both print as a path.
  EXPECT_FALSE(
      VXArrayContainsOnlyClass({PlistValue(FileURL::fileURLWithPath("/a"))}, ValueKind::String));
}

TEST(UtilitiesTest, ArrayifyWrapsConvertsOrRefuses) {
  EXPECT_EQ(VXArrayifyThing(std::nullopt, ValueKind::String), std::nullopt);
  EXPECT_EQ(VXArrayifyThing(PlistValue("x"), ValueKind::String), Texts({"x"}));
  EXPECT_EQ(VXArrayifyThing(PlistValue(Texts({"a", "b"})), ValueKind::String), Texts({"a", "b"}));
  PlistArray mixed = Texts({"a", "b"});
  mixed.insert(mixed.begin() + 1, PlistValue(3));
  EXPECT_EQ(VXArrayifyThing(PlistValue(mixed), ValueKind::String), std::nullopt);
  EXPECT_EQ(VXArrayifyThing(PlistValue(PlistArray{}), ValueKind::String), PlistArray{});
  EXPECT_EQ(VXArrayifyThing(ValueSet(), ValueKind::String), PlistArray{});
  EXPECT_EQ(VXArrayifyThing(PlistValue(PlistDictionary{}), ValueKind::String), std::nullopt);

  // The array test comes first: an array asked for as the array kind is checked element by
  // element, not wrapped.
  EXPECT_EQ(VXArrayifyThing(PlistValue(Texts({"a"})), ValueKind::Array), std::nullopt);
  PlistArray nested{PlistValue(Texts({"a"}))};
  EXPECT_EQ(VXArrayifyThing(PlistValue(nested), ValueKind::Array), nested);

  // A set gives its members in its own order, only when all are of the kind.
  ValueSet numbers({PlistValue(3), PlistValue(1), PlistValue(3), PlistValue(2)});
  EXPECT_EQ(VXArrayifyThing(numbers, ValueKind::Number),
            (PlistArray{PlistValue(3), PlistValue(1), PlistValue(2)}));
  numbers.insert(PlistValue("4"));
  EXPECT_EQ(VXArrayifyThing(numbers, ValueKind::Number), std::nullopt);
  EXPECT_EQ(VXArrayifyThing(ValueSet({PlistValue(1)}), ValueKind::Set), std::nullopt);
}

}  // namespace
}  // namespace vx
