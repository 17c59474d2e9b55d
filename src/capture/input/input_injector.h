// The platform side of remote input: what InputEvent needs to put synthetic pointer and
// keyboard input into this desktop. Backends live in linux/ (XTest on X11, the wlroots
// virtual pointer on wlroots compositors) and, for the remote-desktop portal, with the
// portal's capture (capture/session/linux/).
#pragma once

#include <QPointF>
#include <QRect>
#include <QString>

#include <cstdint>
#include <memory>

namespace velocast::input {

enum class MouseButton { Left = 0, Right = 1, Center = 2 };

// Modifier keys held around each typed character (writeString's flag mask). The bit values
// are the ones the flag mask has always used on the wire of the InputEvent API.
namespace modifier {
constexpr uint64_t kAlphaShift = 1ULL << 16; // caps lock; not pressed by injection
constexpr uint64_t kShift = 1ULL << 17;
constexpr uint64_t kControl = 1ULL << 18;
constexpr uint64_t kAlternate = 1ULL << 19;
constexpr uint64_t kCommand = 1ULL << 20; // the "super"/logo key on Linux desktops
} // namespace modifier

// What the casting session captures, handed to the backend when a capture is built, so
// that a position in the captured picture lands on the same pixel of the desktop.
struct CaptureStream {
    // X11: the display the capture opened ("name" as XOpenDisplay takes it; empty: DISPLAY).
    QString displayName;
    // X11: the RandR output captured, 0 for the whole root window.
    uint32_t outputId = 0;
    // Where the captured picture sits on the desktop, in desktop (root window) pixels.
    QRect area;
    // Wayland portal casts: the screen-cast session's object path and the PipeWire node
    // of the stream captured (empty / 0 elsewhere).
    QString portalSession;
    uint32_t pipeWireNode = 0;
};

// One synthetic input device. Used on the main thread only. Positions are pixels of the
// captured picture (0,0 is its top-left corner); the backend places them on the desktop
// through the capture stream's identity and hands positions outside the picture over as
// they are (the window system clamps them). Every call takes effect at once: the backend
// flushes its connection before it returns.
class InputInjector {
public:
    virtual ~InputInjector() = default;

    // Which backend this is, for the log ("X11", "portal", "wlroots").
    virtual QString name() const = 0;

    // The capture being cast; called again whenever a new capture is built.
    virtual void setCaptureStream(const CaptureStream &stream) = 0;
    // Moves the pointer (with a button held this is a drag).
    virtual void moveTo(QPointF position) = 0;
    // Presses or releases one button where the pointer is.
    virtual void setButton(MouseButton button, bool pressed) = 0;
    // count press/release pairs in a row where the pointer is, quickly enough for the
    // desktop's toolkits to see a click of that count (2: a double click).
    virtual void click(MouseButton button, int count) = 0;
    // Wheel clicks, one per line: vertical > 0 up, < 0 down; horizontal > 0 left, < 0 right.
    // The caller bounds the counts.
    virtual void scroll(int verticalLines, int horizontalLines) = 0;
    // Types text (whole code points), holding the modifier keys of flags (modifier::*)
    // around each character. Characters the backend cannot type are logged and skipped.
    virtual void typeText(const QString &text, uint64_t flags) = 0;
    // Releases every button this injector holds down (a cast ended in the middle of a drag).
    virtual void releaseButtons() = 0;
};

// The backend for this session, or null with the reason in *why when none can work here:
// XTest where there is an X display, else the wlroots virtual pointer on a Wayland
// compositor that offers it (a console, or a compositor with neither: null). Main thread.
std::unique_ptr<InputInjector> makeInputInjector(QString *why);

} // namespace velocast::input
