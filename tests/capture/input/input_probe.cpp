// A window that reports the input a toolkit receives, one line per event on standard
// output, for the remote input tests. It covers the whole screen; a line edit sits at its
// top left and holds the keyboard focus. Runs on X11 and on Wayland (full screen there).
#include <QApplication>
#include <QKeySequence>
#include <QLineEdit>
#include <QMouseEvent>
#include <QScreen>
#include <QWheelEvent>
#include <QWidget>

#include <cstdio>

namespace {

void say(const QString &line)
{
    std::fputs(line.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

QString modifiers(Qt::KeyboardModifiers m)
{
    QStringList names;
    if (m & Qt::ShiftModifier) names << QStringLiteral("shift");
    if (m & Qt::ControlModifier) names << QStringLiteral("ctrl");
    if (m & Qt::AltModifier) names << QStringLiteral("alt");
    if (m & Qt::MetaModifier) names << QStringLiteral("meta");
    return names.isEmpty() ? QStringLiteral("none") : names.join(QLatin1Char('+'));
}

class Probe : public QWidget {
public:
    Probe()
    {
        setWindowTitle(QStringLiteral("input probe"));
        setWindowFlag(Qt::FramelessWindowHint);
        edit_ = new QLineEdit(this);
        edit_->setAccessibleName(QStringLiteral("typed text"));
        edit_->setGeometry(0, 0, 400, 30);
        edit_->installEventFilter(this);
        connect(edit_, &QLineEdit::textChanged, this, [](const QString &t) { say(QStringLiteral("text ") + t); });
    }

protected:
    bool eventFilter(QObject *, QEvent *e) override
    {
        if (e->type() == QEvent::FocusIn && !ready_) {
            // The line edit has the keyboard: the window is mapped and active.
            ready_ = true;
            say(QStringLiteral("ready"));
        }
        if (e->type() == QEvent::KeyPress) {
            const auto *k = static_cast<QKeyEvent *>(e);
            say(QStringLiteral("key %1 %2").arg(modifiers(k->modifiers()), k->key() ? QKeySequence(k->key()).toString() : QStringLiteral("-")));
        }
        return false;
    }
    // Keys are reported by key (the text of a Control chord is a control character).
    void mousePressEvent(QMouseEvent *e) override { report("press", e); }
    void mouseReleaseEvent(QMouseEvent *e) override { report("release", e); }
    void mouseDoubleClickEvent(QMouseEvent *e) override { report("dblclick", e); }
    void wheelEvent(QWheelEvent *e) override { say(QStringLiteral("wheel %1 %2").arg(e->angleDelta().x()).arg(e->angleDelta().y())); }

private:
    void report(const char *what, QMouseEvent *e)
    {
        say(QStringLiteral("%1 %2 %3 %4").arg(QLatin1String(what)).arg(int(e->button())).arg(int(e->globalPosition().x())).arg(int(e->globalPosition().y())));
    }
    QLineEdit *edit_;
    bool ready_ = false;
};

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    Probe probe;
    if (QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) {
        // A Wayland client cannot place its window: full screen puts it over the output, so
        // that window positions are screen positions.
        probe.showFullScreen();
    } else {
        probe.setGeometry(app.primaryScreen()->geometry());
        probe.show();
    }
    probe.activateWindow();
    QObject::connect(app.primaryScreen(), &QScreen::geometryChanged, &probe, [&probe](const QRect &g) { probe.setGeometry(g); });
    probe.findChild<QLineEdit *>()->setFocus();
    return app.exec();
}
