#pragma once

#include <QByteArray>
#include <QString>
#include <QSocketNotifier>
#include <QStringList>

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace velocast::test {

// A child program started with posix_spawn: its standard input a pipe we write to, its
// standard output a pipe read on the Qt event loop, its standard error this process's.
//
// Not QProcess: Qt starts children with a vfork-like clone, and the child then runs the C
// library calls that prepare it (sigaction, dup3, close) in this process's memory and on the
// calling thread's thread-local state. In a ThreadSanitizer build those calls are the
// sanitizer's interceptors, which then update the parent thread's bookkeeping from another
// process: races are reported on data that one mutex guards and the test can hang. glibc's
// posix_spawn prepares the child with its internal, uninterposed calls.
class ChildProcess {
public:
    using OutputHandler = std::function<void(const QByteArray &bytes)>;

    ChildProcess() = default;
    // Kills a child still running and reaps it.
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    // Standard output goes to handler as it arrives (while the event loop runs).
    bool start(const QString &program, const QStringList &arguments, OutputHandler handler, QString *error);
    // Writes all of bytes to the child's standard input; false once it is gone.
    bool write(const QByteArray &bytes);
    void closeInput();
    bool isRunning();
    // Waits for the child to end, passing on its output meanwhile; false on time-out.
    bool waitForFinished(std::chrono::milliseconds timeout);
    void kill();
    // The exit status once finished: the code of a normal exit, -1 for a signal.
    int exitCode() const { return exitCode_; }

    // Runs a program to its end and returns its standard output; nothing when it could not
    // start, did not end in time or did not exit with 0.
    static std::optional<QByteArray> run(const QString &program, const QStringList &arguments,
                                         std::chrono::milliseconds timeout = std::chrono::seconds(60));

private:
    void readOutput();
    bool reap(bool wait);

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int exitCode_ = -1;
    OutputHandler handler_;
    std::unique_ptr<QSocketNotifier> notifier_;
};

} // namespace velocast::test
