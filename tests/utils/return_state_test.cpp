// ReturnState: a value or an error, and the mistakes of reading the wrong one.
#include "orbivane/utils/return_state.h"

#include <stdexcept>
#include <string>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::HasSubstr;

TEST(ReturnState, HoldsEitherAValueOrAnError) {
  const Utils::ReturnState<int> good = 5;
  EXPECT_TRUE(good.hasValue());
  EXPECT_FALSE(good.hasError());
  EXPECT_TRUE(static_cast<bool>(good));
  EXPECT_EQ(good.value(), 5);
  EXPECT_THROW(good.error(), std::logic_error);

  const Utils::ReturnState<int> bad = Utils::failure("camera unreachable");
  EXPECT_FALSE(bad.hasValue());
  EXPECT_TRUE(bad.hasError());
  EXPECT_FALSE(static_cast<bool>(bad));
  EXPECT_EQ(bad.error(), "camera unreachable");
  try {
    (void)bad.value();
    ADD_FAILURE() << "value() of an error must throw";
  } catch (const std::logic_error& e) {
    EXPECT_THAT(e.what(), HasSubstr("camera unreachable"));
  }
}

TEST(ReturnState, TellsValueFromErrorWhenBothAreStrings) {
  using Text = Utils::ReturnState<std::string, std::string>;
  const Text value = std::string("payload");
  ASSERT_TRUE(value.hasValue());
  EXPECT_EQ(value.value(), "payload");
  EXPECT_THROW(value.error(), std::logic_error);

  const Text error = Utils::failure(std::string("payload"));
  ASSERT_TRUE(error.hasError());
  EXPECT_EQ(error.error(), "payload");
  EXPECT_THROW(error.value(), std::logic_error);

  EXPECT_TRUE(Text::success("a").hasValue());
  EXPECT_EQ(Text::success("a").value(), "a");
  EXPECT_TRUE(Text::fromError("b").hasError());
  EXPECT_EQ(Text::fromError("b").error(), "b");
}

// A text is never taken for a value of a flag: `return "cannot connect";`
// must not compile as success = true. Texts stay values where T is a text.
static_assert(!std::is_convertible_v<const char*, Utils::ReturnState<bool, std::string>>);
static_assert(!std::is_constructible_v<Utils::ReturnState<bool, std::string>, const char*>);
static_assert(!std::is_convertible_v<const char (&)[15], Utils::ReturnState<int, std::string>>);
static_assert(!std::is_convertible_v<const char*, Utils::ReturnState<const void*, std::string>>);
static_assert(std::is_constructible_v<Utils::ReturnState<std::string, std::string>, const char*>);
static_assert(std::is_convertible_v<Utils::Failure<std::string>, Utils::ReturnState<bool, std::string>>);

TEST(ReturnState, ATextBecomesAnErrorOnlyThroughTheFailureForm) {
  auto connect = []() -> Utils::ReturnState<bool, std::string> { return Utils::failure("cannot connect"); };
  EXPECT_FALSE(connect());
  EXPECT_EQ(connect().error(), "cannot connect");
  const Utils::ReturnState<std::string, std::string> text("a value");
  EXPECT_EQ(text.value(), "a value");
}
