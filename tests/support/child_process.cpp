#include "support/child_process.h"

#include <QDeadlineTimer>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

extern char **environ;

namespace velocast::test {

namespace {

void closeFd(int &fd)
{
    if (fd >= 0) ::close(fd);
    fd = -1;
}

} // namespace

ChildProcess::~ChildProcess()
{
    notifier_.reset();
    closeInput();
    closeFd(output_);
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        reap(true);
    }
}

bool ChildProcess::start(const QString &program, const QStringList &arguments, OutputHandler handler, QString *error)
{
    // A child that went away must not end the test when we write to it (as QProcess does).
    std::signal(SIGPIPE, SIG_IGN);
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0) {
        *error = QStringLiteral("pipe: %1").arg(qt_error_string(errno));
        return false;
    }
    if (::pipe2(out, O_CLOEXEC) != 0) {
        *error = QStringLiteral("pipe: %1").arg(qt_error_string(errno));
        ::close(in[0]);
        ::close(in[1]);
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    // Nothing of ours leaks into the child, whatever its close-on-exec flag says.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t mask;
    sigemptyset(&mask);
    posix_spawnattr_setsigmask(&attributes, &mask);
    sigaddset(&mask, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &mask);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    const QByteArray path = program.toLocal8Bit();
    std::vector<QByteArray> storage{path};
    for (const QString &a : arguments) storage.push_back(a.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &s : storage) argv.push_back(s.data());
    argv.push_back(nullptr);
    // posix_spawnp: a bare name is looked up in PATH.
    const int rc = ::posix_spawnp(&pid_, path.constData(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(in[0]);
    ::close(out[1]);
    if (rc != 0) {
        pid_ = -1;
        ::close(in[1]);
        ::close(out[0]);
        *error = QStringLiteral("cannot start %1: %2").arg(program, qt_error_string(rc));
        return false;
    }
    input_ = in[1];
    output_ = out[0];
    ::fcntl(output_, F_SETFL, ::fcntl(output_, F_GETFL) | O_NONBLOCK);
    handler_ = std::move(handler);
    notifier_ = std::make_unique<QSocketNotifier>(output_, QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] { readOutput(); });
    return true;
}

void ChildProcess::readOutput()
{
    char buffer[16384];
    while (output_ >= 0) {
        const ssize_t n = ::read(output_, buffer, sizeof buffer);
        if (n > 0) {
            if (handler_) handler_(QByteArray(buffer, qsizetype(n)));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        // End of output (or a broken pipe): nothing more to watch.
        notifier_.reset();
        closeFd(output_);
    }
}

bool ChildProcess::write(const QByteArray &bytes)
{
    qsizetype done = 0;
    while (input_ >= 0 && done < bytes.size()) {
        const ssize_t n = ::write(input_, bytes.constData() + done, size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        done += n;
    }
    return input_ >= 0;
}

void ChildProcess::closeInput() { closeFd(input_); }

bool ChildProcess::reap(bool wait)
{
    if (pid_ <= 0) return true;
    int status = 0;
    pid_t r;
    do r = ::waitpid(pid_, &status, wait ? 0 : WNOHANG);
    while (r < 0 && errno == EINTR);
    if (r == 0) return false;
    exitCode_ = r == pid_ && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
    return true;
}

bool ChildProcess::isRunning() { return !reap(false); }

bool ChildProcess::waitForFinished(std::chrono::milliseconds timeout)
{
    QDeadlineTimer deadline(timeout);
    while (!reap(false)) {
        if (deadline.hasExpired()) return false;
        // Its output keeps flowing meanwhile: a child blocked on a full pipe would never end.
        pollfd p{output_, POLLIN, 0};
        ::poll(&p, output_ >= 0 ? 1 : 0, 10);
        if (output_ >= 0 && p.revents) readOutput();
    }
    if (output_ >= 0) readOutput();
    return true;
}

void ChildProcess::kill()
{
    if (pid_ > 0) ::kill(pid_, SIGKILL);
}

std::optional<QByteArray> ChildProcess::run(const QString &program, const QStringList &arguments, std::chrono::milliseconds timeout)
{
    ChildProcess child;
    QByteArray out;
    QString error;
    if (!child.start(program, arguments, [&out](const QByteArray &bytes) { out += bytes; }, &error)) return std::nullopt;
    child.closeInput();
    if (!child.waitForFinished(timeout) || child.exitCode() != 0) return std::nullopt;
    return out;
}

} // namespace velocast::test
