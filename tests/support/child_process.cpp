#include "support/child_process.h"

#include <QDeadlineTimer>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
    closeFd(input_);
    closeFd(output_);
    if (pid_ > 0) ::kill(pid_, SIGKILL);
    reap(true);
}

bool ChildProcess::start(const QString &program, const QStringList &arguments, OutputHandler handler, QString *error)
{
    std::signal(SIGPIPE, SIG_IGN); // a child that went away must not end the test when we write to it
    int in[2] = {-1, -1}, out[2] = {-1, -1};
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        *error = QStringLiteral("pipe: %1").arg(qt_error_string(errno));
        for (int fd : {in[0], in[1], out[0], out[1]})
            if (fd >= 0) ::close(fd);
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    // The child starts with no signal blocked and SIGPIPE back at its default.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t mask;
    sigemptyset(&mask);
    posix_spawnattr_setsigmask(&attributes, &mask);
    sigaddset(&mask, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &mask);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<QByteArray> storage{program.toLocal8Bit()};
    for (const QString &a : arguments) storage.push_back(a.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &s : storage) argv.push_back(s.data());
    argv.push_back(nullptr);
    const int rc = ::posix_spawnp(&pid_, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
    if (rc != 0) { // the pipes are closed with this object
        pid_ = -1;
        *error = QStringLiteral("cannot start %1: %2").arg(program, qt_error_string(rc));
        return false;
    }
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
        if (n > 0 && handler_) handler_(QByteArray(buffer, qsizetype(n)));
        if (n > 0 || (n < 0 && errno == EINTR)) continue;
        if (n < 0 && errno == EAGAIN) return;
        notifier_.reset(); // end of output
        closeFd(output_);
    }
}

bool ChildProcess::write(const QByteArray &bytes)
{
    for (qsizetype done = 0; input_ >= 0 && done < bytes.size();) {
        const ssize_t n = ::write(input_, bytes.constData() + done, size_t(bytes.size() - done));
        if (n < 0 && errno != EINTR) return false;
        done += std::max<ssize_t>(n, 0);
    }
    return input_ >= 0;
}

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

bool ChildProcess::waitForFinished(std::chrono::milliseconds timeout)
{
    QDeadlineTimer deadline(timeout);
    while (!reap(false)) {
        if (deadline.hasExpired()) return false;
        // Its output keeps flowing meanwhile: a child blocked on a full pipe would never end.
        pollfd p{output_, POLLIN, 0};
        ::poll(&p, output_ >= 0 ? 1 : 0, 10);
        if (p.revents) readOutput();
    }
    readOutput();
    return true;
}

std::optional<QByteArray> ChildProcess::run(const QString &program, const QStringList &arguments, std::chrono::milliseconds timeout)
{
    ChildProcess child;
    QByteArray out;
    QString error;
    if (!child.start(program, arguments, [&out](const QByteArray &bytes) { out += bytes; }, &error)) return std::nullopt;
    closeFd(child.input_);
    if (!child.waitForFinished(timeout) || child.exitCode_ != 0) return std::nullopt;
    return out;
}

} // namespace velocast::test
