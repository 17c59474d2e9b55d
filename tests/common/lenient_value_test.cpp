#include "common/lenient_value.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

using namespace velocast;

namespace {

struct IntCase {
    QVariant value;
    qint64 expected;
};

class LenientIntTest : public ::testing::TestWithParam<IntCase> { };

TEST_P(LenientIntTest, Reads)
{
    EXPECT_EQ(lenientInt(GetParam().value), GetParam().expected) << GetParam().value.toString().toStdString();
}

INSTANTIATE_TEST_SUITE_P(Values, LenientIntTest,
    ::testing::Values(IntCase{QVariant(7), 7}, IntCase{QVariant(qint64(1) << 40), qint64(1) << 40},
        IntCase{QVariant(2.9), 2}, IntCase{QVariant(-2.9), -2}, IntCase{QVariant(true), 1},
        IntCase{QVariant(false), 0}, IntCase{QVariant(QStringLiteral("42")), 42},
        IntCase{QVariant(QStringLiteral("  12abc")), 12}, IntCase{QVariant(QStringLiteral("3.7")), 3},
        IntCase{QVariant(QStringLiteral("abc")), 0}, IntCase{QVariant(QStringLiteral("")), 0},
        IntCase{QVariant(), 0}, IntCase{QVariant(QVariantList{1}), 0}, IntCase{QVariant(QVariantMap{}), 0},
        IntCase{QVariant(1e300), std::numeric_limits<qint64>::max()}));

TEST(LenientValue, BoolsAndMissingKeys)
{
    const QVariantMap m{{"t", true}, {"one", 1}, {"zero", 0}, {"s1", "1"}, {"s0", "0"}, {"st", "true"},
        {"half", 0.5}, {"list", QVariantList{1}}};
    EXPECT_TRUE(lenientBool(m, "t"));
    EXPECT_TRUE(lenientBool(m, "one"));
    EXPECT_FALSE(lenientBool(m, "zero"));
    EXPECT_TRUE(lenientBool(m, "s1"));
    EXPECT_FALSE(lenientBool(m, "s0"));
    EXPECT_TRUE(lenientBool(m, "st"));
    EXPECT_TRUE(lenientBool(m, "half"));
    EXPECT_FALSE(lenientBool(m, "list"));
    EXPECT_FALSE(lenientBool(m, "missing"));
    EXPECT_EQ(lenientInt(m, "missing"), 0);
    EXPECT_DOUBLE_EQ(lenientDouble(QVariant(QStringLiteral("1.5e2px"))), 150.0);
}

TEST(LenientValue, MessageIdAndProperty)
{
    const QVariantMap msg{{"id", "id_rename"}, {"property", QVariantMap{{"name", "客厅"}}}};
    EXPECT_EQ(messageId(msg), "id_rename");
    EXPECT_EQ(lenientString(messageProperty(msg), "name"), QStringLiteral("客厅"));
    EXPECT_EQ(messageId(QVariantMap{{"id", 5}}), QString());
    EXPECT_EQ(messageId(QVariant()), QString());
    EXPECT_TRUE(messageProperty(QVariantMap{{"property", "x"}}).isEmpty());
    EXPECT_EQ(lenientString(QVariantMap{{"n", 12}}, "n"), "12");
}

} // namespace
