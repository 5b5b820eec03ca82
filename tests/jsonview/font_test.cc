#include "kestro/jsonview/font.h"

#include <gtest/gtest.h>

namespace kestro {
namespace {

TEST(Fonts, MetricsScaleAndBoldVariantsExistWhereRegistered) {
    const Font f = Font::system(16);
    EXPECT_EQ(f.size(), 16);
    EXPECT_GT(f.ascender(), 0);
    EXPECT_LT(f.descender(), 0);
    EXPECT_NEAR(f.lineHeight(), f.ascender() - f.descender(), 1.0);
    ASSERT_TRUE(f.boldVariant());
    EXPECT_TRUE(f.boldVariant()->isBold());
    EXPECT_EQ(f.boldVariant()->size(), 16);
    EXPECT_FALSE(f == *f.boldVariant());
    EXPECT_TRUE(Font::monospacedSystem(12).isMonospaced());
    EXPECT_FALSE(Font::named("no such family", 12));

    Font::registerFamily({"thin-test", 0.7, -0.3, 0, 0.5, false, false});
    auto thin = Font::named("thin-test", 10);
    ASSERT_TRUE(thin);
    EXPECT_DOUBLE_EQ(thin->lineHeight(), 10);
    EXPECT_FALSE(thin->boldVariant());
}

}  // namespace
}  // namespace kestro
