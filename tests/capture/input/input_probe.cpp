// A window over the whole screen that reports the input a toolkit receives, one line per event
// on standard output, for the remote input tests; a line edit at its top left holds the focus.
#include <QApplication>
#include <QKeySequence>
#include <QLineEdit>
#include <QMouseEvent>
#include <QScreen>

#include <cstdio>

namespace {

void say(const QString &line)
{
    std::printf("%s\n", line.toUtf8().constData());
    std::fflush(stdout);
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
    QLineEdit *edit_;

protected:
    bool eventFilter(QObject *, QEvent *e) override
    {
        if (e->type() == QEvent::FocusIn && !ready_) {
            // The line edit has the keyboard: the window is mapped and active.
            ready_ = true;
            say(QStringLiteral("ready"));
        }
        // Keys are reported by key (the text of a Control chord is a control character).
        if (e->type() == QEvent::KeyPress) {
            const auto *k = static_cast<QKeyEvent *>(e);
            say(QStringLiteral("key ") + QKeySequence(k->keyCombination()).toString());
        }
        return false;
    }
    void mousePressEvent(QMouseEvent *e) override { report("press", e); }
    void mouseReleaseEvent(QMouseEvent *e) override { report("release", e); }
    void mouseDoubleClickEvent(QMouseEvent *e) override { report("dblclick", e); }
    void wheelEvent(QWheelEvent *e) override { say(QStringLiteral("wheel %1 %2").arg(e->angleDelta().x()).arg(e->angleDelta().y())); }

private:
    void report(const char *what, QMouseEvent *e)
    {
        const QPointF at = e->globalPosition();
        say(QStringLiteral("%1 %2 %3 %4").arg(QLatin1String(what)).arg(int(e->button())).arg(int(at.x())).arg(int(at.y())));
    }
    bool ready_ = false;
};

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    Probe probe;
    // A Wayland client cannot place its window: full screen puts it over the output, so that
    // window positions are screen positions.
    if (QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) {
        probe.showFullScreen();
    } else {
        probe.setGeometry(app.primaryScreen()->geometry());
        probe.show();
    }
    probe.activateWindow();
    QObject::connect(app.primaryScreen(), &QScreen::geometryChanged, &probe, [&probe](const QRect &g) { probe.setGeometry(g); });
    probe.edit_->setFocus();
    return app.exec();
}
