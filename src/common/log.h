#pragma once

#include <QLoggingCategory>
#include <QString>

#include <functional>

namespace velocast {

// One logging category per subsystem ("velocast.control", ...). Switch them with
// QT_LOGGING_RULES, e.g. "velocast.*.info=false".
Q_DECLARE_LOGGING_CATEGORY(lcCommon)
Q_DECLARE_LOGGING_CATEGORY(lcControl)
Q_DECLARE_LOGGING_CATEGORY(lcNet)
Q_DECLARE_LOGGING_CATEGORY(lcCapture)
Q_DECLARE_LOGGING_CATEGORY(lcAirplay)
Q_DECLARE_LOGGING_CATEGORY(lcUi)
Q_DECLARE_LOGGING_CATEGORY(lcApp)

// Writes one log line to standard error and to the system log (syslog, ident "velocast").
// Thread-safe. The line is the program's own text, e.g. "send json:{...}".
void logLine(const QLoggingCategory &category, const QString &text);

// Whether a line for this category would go anywhere (enabled, or a tap is set): lets hot
// paths skip building a text nobody reads.
bool logWanted(const QLoggingCategory &category);

// Test hook: while set, every line written through logLine is also handed to the tap
// (on the logging thread). Returns the previous tap.
using LogTap = std::function<void(const char *category, const QString &text)>;
LogTap setLogTap(LogTap tap);

} // namespace velocast
