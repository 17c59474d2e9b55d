#pragma once

#include <QString>
#include <QVariant>

#include <chrono>
#include <functional>
#include <ostream>

namespace velocast::test {

// Runs the Qt event loop until pred() is true or the time is up; returns pred().
bool waitUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout = std::chrono::seconds(5));
// Runs the Qt event loop for the given time (for checking that something does NOT happen).
void spinFor(std::chrono::milliseconds duration);
// A fresh, empty directory that lives as long as the test run.
QString freshTempDir();

} // namespace velocast::test

// Readable gtest output for Qt strings.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString &s, std::ostream *os) { *os << '"' << s.toStdString() << '"'; }
inline void PrintTo(const QByteArray &s, std::ostream *os) { *os << '"' << s.toStdString() << '"'; }
QT_END_NAMESPACE
