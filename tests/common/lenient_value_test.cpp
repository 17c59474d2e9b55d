#include "common/lenient_value.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

using namespace velocast;

namespace {

TEST(LenientValue, IntsBoolsAndMissingKeys)
{
    const std::pair<QVariant, qint64> ints[] = {{7, 7}, {qint64(1) << 40, qint64(1) << 40}, {2.9, 2}, {-2.9, -2},
        {true, 1}, {false, 0}, {"42", 42}, {"  12abc", 12}, {"3.7", 3}, {"abc", 0}, {"", 0}, {QVariant(), 0},
        {QVariantList{1}, 0}, {QVariantMap{}, 0}, {1e300, std::numeric_limits<qint64>::max()}};
    for (const auto &[value, expected] : ints) EXPECT_EQ(lenientInt(value), expected) << value.toString().toStdString();

    const QVariantMap m{{"t", true}, {"one", 1}, {"zero", 0}, {"s1", "1"}, {"s0", "0"}, {"st", "true"},
        {"half", 0.5}, {"list", QVariantList{1}}};
    const std::pair<const char *, bool> bools[] = {{"t", true}, {"one", true}, {"zero", false}, {"s1", true},
        {"s0", false}, {"st", true}, {"half", true}, {"list", false}, {"missing", false}};
    for (const auto &[key, expected] : bools) EXPECT_EQ(lenientBool(m, key), expected) << key;
    EXPECT_EQ(lenientInt(m, "missing"), 0);
    EXPECT_DOUBLE_EQ(lenientDouble(QVariant(QStringLiteral("1.5e2px"))), 150.0);
}

} // namespace
