#include "capture/input/linux/xtest_input_injector.h"

#include "capture/input/linux/virtual_pointer_injector.h"

#include "common/log.h"

#include <QTimer>

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <set>
#include <vector>

#include <unistd.h>

namespace velocast::input {

namespace {

struct DisplayCloser {
    void operator()(Display *d) const { XCloseDisplay(d); }
};
using DisplayPtr = std::unique_ptr<Display, DisplayCloser>;
struct XFreeDeleter {
    void operator()(void *p) const { XFree(p); }
};

// X core input carries root positions as 16-bit signed values: anything beyond would wrap
// around to the far side of the screen, so it is held at the edge of that range (the server
// then clamps to the screen as for any other position outside it).
int toRootCoordinate(double picturePixel, int origin)
{
    if (!std::isfinite(picturePixel)) picturePixel = 0;
    const double v = std::floor(picturePixel) + origin;
    return int(std::clamp(v, -32768.0, 32767.0));
}

unsigned xButton(MouseButton button)
{
    switch (button) {
    case MouseButton::Left: return 1;
    case MouseButton::Center: return 2;
    case MouseButton::Right: return 3;
    }
    return 1;
}

// The keysym that types a code point, or nothing for control characters X cannot type.
std::optional<KeySym> keysymFor(char32_t cp)
{
    switch (cp) {
    case U'\n':
    case U'\r': return XK_Return;
    case U'\t': return XK_Tab;
    case U'\b': return XK_BackSpace;
    default: break;
    }
    if (cp < 0x20 || (cp >= 0x7f && cp < 0xa0) || cp > 0x10ffff) return std::nullopt;
    // Latin-1 keysyms are the code points themselves; the rest of Unicode is 0x01000000 + cp.
    if (cp < 0x100) return KeySym(cp);
    return KeySym(0x01000000u | cp);
}

class XTestInputInjector final : public InputInjector {
public:
    explicit XTestInputInjector(DisplayPtr dpy) : dpy_(std::move(dpy))
    {
        restoreTimer_.setSingleShot(true);
        restoreTimer_.setInterval(kRestoreAfterMs);
        QObject::connect(&restoreTimer_, &QTimer::timeout, [this] { restoreSpares(); });
    }

    QString name() const override { return QStringLiteral("X11"); }

    ~XTestInputInjector() override
    {
        releaseButtons();
        restoreSpares();
    }

    void setCaptureStream(const CaptureStream &stream) override
    {
        origin_ = stream.area.topLeft();
        const QByteArray wanted = stream.displayName.toLocal8Bit();
        if (wanted.isEmpty() || wanted == XDisplayString(dpy_.get())) return;
        // The capture runs on another display than ours: follow it.
        DisplayPtr other(XOpenDisplay(wanted.constData()));
        int a = 0, b = 0, c = 0, d = 0;
        if (!other || !XTestQueryExtension(other.get(), &a, &b, &c, &d)) {
            logLine(lcCapture(), QStringLiteral("remote input: cannot inject on display \"%1\" (captured); staying on \"%2\"")
                                     .arg(stream.displayName, QString::fromLocal8Bit(XDisplayString(dpy_.get()))));
            return;
        }
        releaseButtons();
        restoreSpares();
        spares_.clear();
        sparesKnown_ = false;
        dpy_ = std::move(other);
    }

    void moveTo(QPointF position) override
    {
        XTestFakeMotionEvent(dpy_.get(), -1, toRootCoordinate(position.x(), origin_.x()), toRootCoordinate(position.y(), origin_.y()),
                             CurrentTime);
        XSync(dpy_.get(), False);
    }

    void setButton(MouseButton button, bool pressed) override
    {
        const unsigned b = xButton(button);
        XTestFakeButtonEvent(dpy_.get(), b, pressed ? True : False, CurrentTime);
        if (pressed)
            held_.insert(b);
        else
            held_.erase(b);
        XSync(dpy_.get(), False);
    }

    void click(MouseButton button, int count) override
    {
        const unsigned b = xButton(button);
        // X events carry no click count: toolkits count presses that follow each other
        // closely, so the pairs go out back to back.
        for (int i = 0; i < count; ++i) {
            XTestFakeButtonEvent(dpy_.get(), b, True, CurrentTime);
            XTestFakeButtonEvent(dpy_.get(), b, False, CurrentTime);
        }
        held_.erase(b);
        XSync(dpy_.get(), False);
    }

    void scroll(int verticalLines, int horizontalLines) override
    {
        // Wheel clicks are buttons: 4 up, 5 down, 6 left, 7 right.
        const auto clicks = [this](unsigned b, int n) {
            for (int i = 0; i < n; ++i) {
                XTestFakeButtonEvent(dpy_.get(), b, True, CurrentTime);
                XTestFakeButtonEvent(dpy_.get(), b, False, CurrentTime);
            }
        };
        clicks(verticalLines > 0 ? 4 : 5, std::abs(verticalLines));
        clicks(horizontalLines > 0 ? 6 : 7, std::abs(horizontalLines));
        XSync(dpy_.get(), False);
    }

    void typeText(const QString &text, uint64_t flags) override
    {
        if (!sparesKnown_) findSpares();
        if (spares_.empty()) {
            logLine(lcCapture(), QStringLiteral("remote input: no spare keycode on this display; text not typed"));
            return;
        }
        const std::vector<KeyCode> modifiers = modifierKeys(flags);
        for (qsizetype i = 0; i < text.size(); ++i) {
            char32_t cp = text.at(i).unicode();
            if (QChar::isHighSurrogate(cp) && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
                cp = QChar::surrogateToUcs4(text.at(i), text.at(i + 1));
                ++i;
            } else if (QChar::isSurrogate(cp)) {
                // Half of a pair is not a character on X11: nothing to type for it.
                logLine(lcCapture(), QStringLiteral("remote input: lone surrogate U+%1 skipped").arg(uint(cp), 4, 16, QLatin1Char('0')));
                continue;
            }
            const std::optional<KeySym> sym = keysymFor(cp);
            if (!sym) {
                logLine(lcCapture(), QStringLiteral("remote input: U+%1 cannot be typed; skipped").arg(uint(cp), 4, 16, QLatin1Char('0')));
                continue;
            }
            const KeyCode code = lend(*sym);
            for (KeyCode m : modifiers) XTestFakeKeyEvent(dpy_.get(), m, True, CurrentTime);
            XTestFakeKeyEvent(dpy_.get(), code, True, CurrentTime);
            XTestFakeKeyEvent(dpy_.get(), code, False, CurrentTime);
            for (auto m = modifiers.rbegin(); m != modifiers.rend(); ++m) XTestFakeKeyEvent(dpy_.get(), *m, False, CurrentTime);
            XSync(dpy_.get(), False);
        }
        // The lent keycodes go back to "no symbol" once typing has stopped for a while.
        restoreTimer_.start();
    }

    void releaseButtons() override
    {
        for (unsigned b : held_) XTestFakeButtonEvent(dpy_.get(), b, False, CurrentTime);
        held_.clear();
        XSync(dpy_.get(), False);
    }

private:
    // Keycodes with no keysym at all: free to lend. The highest ones are taken first; a
    // handful is enough.
    void findSpares()
    {
        sparesKnown_ = true;
        int minCode = 0, maxCode = 0, perCode = 0;
        XDisplayKeycodes(dpy_.get(), &minCode, &maxCode);
        const int count = maxCode - minCode + 1;
        if (count <= 0) return;
        std::unique_ptr<KeySym, XFreeDeleter> map(XGetKeyboardMapping(dpy_.get(), KeyCode(minCode), count, &perCode));
        if (!map || perCode <= 0) return;
        for (int code = maxCode; code >= minCode && spares_.size() < kSpareCount; --code) {
            const KeySym *syms = map.get() + size_t(code - minCode) * size_t(perCode);
            if (std::all_of(syms, syms + perCode, [](KeySym s) { return s == NoSymbol; })) spares_.push_back(KeyCode(code));
        }
    }

    // A keycode that types sym: the one already lent it, else a spare not lent yet, else the
    // one used longest ago.
    //
    // Clients read a changed keyboard map when they get to its change notice, which comes
    // before our key event in their queue, so a keycode keeps its keysym until typing has
    // stopped for a while: a client that reads the map late still finds what it was told
    // about. Lending a keycode again while typing (more distinct characters than spares)
    // cannot know how far behind the clients are; a short pause gives them a chance.
    KeyCode lend(KeySym sym)
    {
        if (auto it = std::find_if(lent_.begin(), lent_.end(), [sym](const Lent &l) { return l.sym == sym; }); it != lent_.end()) {
            const Lent l = *it;
            lent_.erase(it);
            lent_.push_back(l);
            return l.code;
        }
        KeyCode code = 0;
        if (lent_.size() < spares_.size()) {
            code = spares_[lent_.size()];
        } else {
            code = lent_.front().code;
            lent_.erase(lent_.begin());
            XSync(dpy_.get(), False);
            usleep(kRelendPauseUs);
        }
        // The keysym on both levels, so that Shift does not change it.
        std::array<KeySym, 2> syms{sym, sym};
        XChangeKeyboardMapping(dpy_.get(), code, int(syms.size()), syms.data(), 1);
        XSync(dpy_.get(), False);
        lent_.push_back({sym, code});
        return code;
    }

    void restoreSpares()
    {
        restoreTimer_.stop();
        if (lent_.empty()) return;
        for (const Lent &l : lent_) {
            KeySym none = NoSymbol;
            XChangeKeyboardMapping(dpy_.get(), l.code, 1, &none, 1);
        }
        lent_.clear();
        XSync(dpy_.get(), False);
    }

    std::vector<KeyCode> modifierKeys(uint64_t flags) const
    {
        std::vector<KeyCode> keys;
        const std::pair<uint64_t, KeySym> table[] = {
            {modifier::kShift, XK_Shift_L},
            {modifier::kControl, XK_Control_L},
            {modifier::kAlternate, XK_Alt_L},
            {modifier::kCommand, XK_Super_L},
        };
        for (const auto &[flag, sym] : table) {
            if (!(flags & flag)) continue;
            if (const KeyCode code = XKeysymToKeycode(dpy_.get(), sym); code != 0) keys.push_back(code);
        }
        return keys;
    }

    static constexpr size_t kSpareCount = 32;
    static constexpr useconds_t kRelendPauseUs = 20000;
    static constexpr int kRestoreAfterMs = 2000;

    struct Lent {
        KeySym sym;
        KeyCode code;
    };

    DisplayPtr dpy_;
    QPoint origin_;
    std::set<unsigned> held_;
    std::vector<KeyCode> spares_;
    bool sparesKnown_ = false;
    std::vector<Lent> lent_; // least recently used first
    QTimer restoreTimer_;
};

} // namespace

std::unique_ptr<InputInjector> makeXTestInputInjector(const QString &displayName, QString *why)
{
    const QByteArray name = displayName.toLocal8Bit();
    DisplayPtr dpy(XOpenDisplay(name.isEmpty() ? nullptr : name.constData()));
    if (!dpy) {
        *why = QStringLiteral("cannot open X display \"%1\"")
                   .arg(name.isEmpty() ? QString::fromLocal8Bit(std::getenv("DISPLAY")) : displayName);
        return nullptr;
    }
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    if (!XTestQueryExtension(dpy.get(), &eventBase, &errorBase, &major, &minor)) {
        *why = QStringLiteral("the X server has no XTest extension");
        return nullptr;
    }
    // Our fake events must not be undone by another client's server grab.
    XTestGrabControl(dpy.get(), True);
    return std::make_unique<XTestInputInjector>(std::move(dpy));
}

std::unique_ptr<InputInjector> makeInputInjector(QString *why)
{
    if (!std::getenv("DISPLAY") || !*std::getenv("DISPLAY")) {
        if (!std::getenv("WAYLAND_DISPLAY") || !*std::getenv("WAYLAND_DISPLAY")) {
            *why = QStringLiteral("no display (neither DISPLAY nor WAYLAND_DISPLAY is set)");
            return nullptr;
        }
        return makeVirtualPointerInjector(why);
    }
    auto injector = makeXTestInputInjector(QString(), why);
    if (injector && std::getenv("WAYLAND_DISPLAY"))
        logLine(lcCapture(), QStringLiteral("remote input: Wayland session, injecting through XWayland; only X11 windows will see it"));
    return injector;
}

} // namespace velocast::input
