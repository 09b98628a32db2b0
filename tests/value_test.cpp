// The program's value type: lookups and equality as the rest of the helper
// relies on them.
#include "base/value.h"

#include <gtest/gtest.h>

#include <chrono>

namespace vtl {
namespace {

TEST(Value, DefaultIsAnEmptyDictionary) {
  const Value v;
  ASSERT_NE(v.dictionary(), nullptr);
  EXPECT_TRUE(v.dictionary()->empty());
}

TEST(Value, FindLooksUpExactKeysOfDictionariesOnly) {
  const Value dict(Dictionary{{"Path", Value("/private/var")}, {"Count", Value(3)}});
  ASSERT_NE(dict.find("Path"), nullptr);
  EXPECT_EQ(*dict.find("Path"), Value("/private/var"));
  EXPECT_EQ(dict.find("path"), nullptr);
  EXPECT_EQ(dict.find("Path "), nullptr);
  EXPECT_EQ(dict.find_string("Count"), nullptr);  // present, but not a string
  ASSERT_NE(dict.find_string("Path"), nullptr);
  EXPECT_EQ(*dict.find_string("Path"), "/private/var");
  EXPECT_EQ(Value(Array{Value("Path")}).find("Path"), nullptr);
  EXPECT_EQ(Value("Path").find_string("Path"), nullptr);
}

TEST(Value, EqualityComparesTypeAndContent) {
  EXPECT_EQ(Value(1), Value(std::int64_t{1}));
  EXPECT_NE(Value(1), Value(true));
  EXPECT_NE(Value(1), Value(1.0));
  EXPECT_NE(Value("1"), Value(1));
  EXPECT_NE(Value(Data{}), Value(Array{}));
  EXPECT_EQ(Value(Array{Value(Dictionary{{"a", Value(Data{1, 2})}})}),
            Value(Array{Value(Dictionary{{"a", Value(Data{1, 2})}})}));
  EXPECT_NE(Value(Date(std::chrono::nanoseconds(1))), Value(Date(std::chrono::nanoseconds(2))));
}

}  // namespace
}  // namespace vtl
