#pragma once

#include <QByteArray>
#include <QSocketNotifier>
#include <QStringList>

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace velocast::test {

// A child started with posix_spawn: standard input a pipe we write to, standard output read
// on the Qt event loop, standard error ours. Not QProcess: its vfork-like start runs libc
// calls in our memory, which ThreadSanitizer's interceptors book against the parent thread.
class ChildProcess {
public:
    using OutputHandler = std::function<void(const QByteArray &bytes)>;

    ChildProcess() = default;
    ~ChildProcess(); // kills and reaps a child still running
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    bool start(const QString &program, const QStringList &arguments, OutputHandler handler, QString *error);
    bool write(const QByteArray &bytes); // false once the child is gone
    // Passes on the output meanwhile; false on time-out.
    bool waitForFinished(std::chrono::milliseconds timeout);

    // The standard output of a run that started, ended in time and exited with 0.
    static std::optional<QByteArray> run(const QString &program, const QStringList &arguments,
                                         std::chrono::milliseconds timeout = std::chrono::seconds(60));

private:
    void readOutput();
    bool reap(bool wait);

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int exitCode_ = -1; // -1 for a signal
    OutputHandler handler_;
    std::unique_ptr<QSocketNotifier> notifier_;
};

} // namespace velocast::test
